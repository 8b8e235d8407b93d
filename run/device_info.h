// Finds the phone's storage device and reads what the run needs to know about it.
#pragma once

#include "fwpkg/firmware_package.h"

constexpr char DEVICE_EMMC = '0';
constexpr char DEVICE_UFS = '1';

constexpr size_t PNM_SIZE = 16;                                 // the longest product name (UFS)
constexpr size_t EMMC_PNM_SIZE = sizeof(EmmcFwHeader::emmcPnm); // CID PNM
constexpr size_t REV_SIZE = 8;

// Names and revisions are raw bytes, terminated by a zero byte. Used as text, a value ends at its
// first zero byte.
struct DeviceInfo {
    char type;                     // DEVICE_EMMC or DEVICE_UFS
    char pnm[PNM_SIZE + 1];        // product name, as PNM_NODE gives it
    char localFwRev[REV_SIZE + 1]; // running revision: EMMC_REV_SIZE or UFS_REV_SIZE bytes
};

// Returns whether a storage device was found, and sets type if so. UFS is looked for first.
[[nodiscard]] bool DetectDevice(char& type);

// Reads the product name and the running revision into device. The caller has set its type and
// zeroed the rest. The revision is in EXT_CSD (eMMC) or in REV_NODE (UFS). Returns 0, or -1 when
// one of the two cannot be read; device must not be used then.
[[nodiscard]] int GetDeviceInfo(DeviceInfo& device);
