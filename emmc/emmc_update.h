// The update of an eMMC device, from reading the package to the result.
#pragma once

#include "fwpkg/firmware_package.h"

// Applies the package at emmcFwFile (useBackupFile zero) or emmcFwBackupFile (non-zero) to the
// local device; a null path is refused, whichever is used. downloadOnly is passed on to
// DoEmmc50Ffu. Returns 0 when firmware was downloaded and, unless left out, installed; -2 (-ENOENT)
// when there was nothing to do or a path is null; any other value on a failure.
[[nodiscard]] int EmmcFfu(const char* emmcFwFile, const char* emmcFwBackupFile, int downloadOnly,
                          int useBackupFile);

// Whether entry is for device: magic, manufacturer, product name and EXT_CSD_REV are equal.
[[nodiscard]] bool EmmcEntryMatches(const EmmcFwHeader& device, const EmmcFwHeader& entry);

// Searches fwFileBuffer (size bytes, borrowed) for the first entry that matches fwHeader, the
// device record. If there is one, fwBody then points to its body (fwBodySize bytes) inside
// fwFileBuffer; if not, both stay as they are. Returns 0 when there is one and its revision is not
// the device's, else -2 (-ENOENT).
[[nodiscard]] int EmmcFwhdrCheck(const EmmcFwHeader& fwHeader, const uint8_t* fwFileBuffer,
                                 int32_t size, const uint8_t*& fwBody, uint32_t& fwBodySize);

// Whether a device with this EXT_CSD_REV is eMMC 5.0 or later. Older devices have no FFU.
[[nodiscard]] bool IsEmmc50OrLater(uint8_t emmcRev);

// Sends fwBody to a device whose EXT_CSD_REV is emmcRev. Returns -1 when that is older than eMMC
// 5.0, else the status of DoEmmc50Ffu, whose parameters are the same.
[[nodiscard]] int DoEmmcFfu(uint8_t emmcRev, const uint8_t* fwBody, uint32_t fwBodySize,
                            int downloadOnly);
