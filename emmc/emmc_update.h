// The update of an eMMC device, from its package to the verdict.
#pragma once

#include "fwpkg/firmware_package.h"

// Applies the package at emmcFwFile (useBackupFile zero) or emmcFwBackupFile (non-zero) to the
// local device; neither path may be null. downloadOnly is passed on to DoEmmc50Ffu.
// Returns 0 when firmware was downloaded and, if not left out, installed; -2 (-ENOENT) when there
// was nothing to do; any other value on a failure.
[[nodiscard]] int EmmcFfu(const char* emmcFwFile, const char* emmcFwBackupFile, int downloadOnly,
                          int useBackupFile);

// Whether entry is meant for device: magic, manufacturer, product name and EXT_CSD revision equal.
[[nodiscard]] bool EmmcEntryMatches(const EmmcFwHeader& device, const EmmcFwHeader& entry);

// Looks through fwFileBuffer (size bytes, borrowed) for the first entry that matches fwHeader, the
// device record: fwBody then points at its body inside fwFileBuffer, of fwBodySize bytes; both stay
// as they are without such an entry. Returns 0 when the entry carries a revision other than the
// device's, else -2 (-ENOENT).
[[nodiscard]] int EmmcFwhdrCheck(const EmmcFwHeader& fwHeader, const uint8_t* fwFileBuffer,
                                 int32_t size, const uint8_t*& fwBody, uint32_t& fwBodySize);

// Whether a device with this EXT_CSD_REV is of eMMC 5.0 or later, as an update wants it.
[[nodiscard]] bool IsEmmc50OrLater(uint8_t emmcRev);

// Hands fwBody to a device whose EXT_CSD_REV is emmcRev. Returns -1 when that is below eMMC 5.0,
// else the status of DoEmmc50Ffu.
[[nodiscard]] int DoEmmcFfu(uint8_t emmcRev, const uint8_t* fwBody, uint32_t fwBodySize,
                            int downloadOnly);
