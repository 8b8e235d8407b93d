// Which storage device this is, and what the run needs to know of it.
#pragma once

#include "fwpkg/firmware_package.h"

constexpr char DEVICE_EMMC = '0';
constexpr char DEVICE_UFS = '1';

constexpr size_t PNM_SIZE = 16;
constexpr size_t EMMC_PNM_SIZE = sizeof(EmmcFwHeader::emmcPnm); // of an eMMC device's name
constexpr size_t REV_SIZE = 8;

// Names and revisions are raw bytes with a zero byte behind them; a zero byte among them ends the
// value wherever it is used as text.
struct DeviceInfo {
    char type;                     // DEVICE_EMMC or DEVICE_UFS
    char pnm[PNM_SIZE + 1];        // product name as the kernel's node gives it
    char localFwRev[REV_SIZE + 1]; // the revision that runs: REV_SIZE bytes (eMMC) or UFS_REV_SIZE
};

// Whether a storage device was found; type tells which then. UFS is looked for first.
[[nodiscard]] bool DetectDevice(char& type);

// Fills device, which is zeroed but for its type, from the kernel's nodes and the EXT_CSD register.
// Returns 0 or -1.
[[nodiscard]] int GetDeviceInfo(DeviceInfo& device);
