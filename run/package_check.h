// The pre-check: whether the package holds an update for this device at all.
#pragma once

#include "run/device_info.h"

// What the pre-check takes from the device's entry. The caller zeroes it first.
struct PackageRevs {
    size_t entry;                         // its offset in the package
    char fwFileRev[REV_SIZE + 1];         // the entry's own revision, terminated
    uint8_t legalBaseRev[BASE_REVS_SIZE]; // the revisions from which it may be applied
};

// Decides whether the package of the device's technology has an update for device, and logs the
// reason. Returns 0 when it has one (go on) and revs is filled; 1 when it has none (nothing to do);
// -1 when the package could not be read.
[[nodiscard]] int CheckFwBin(const DeviceInfo& device, PackageRevs& revs);

// Below: the decisions of CheckFwBin, for a package in memory.

// What GetRevs returns when it took no revisions from the package.
constexpr int PARSE_FAILED = -1;
constexpr int ENTRY_NOT_FOUND = 1;

// Fills revs from the device's entry in package (size bytes, borrowed): the first one that has the
// device's product name and a body inside the package. An eMMC header at the very end of the
// package is not looked at. Returns 0, or one of the values above; revs must not be used then.
[[nodiscard]] int GetRevs(const DeviceInfo& device, const uint8_t* package, size_t size,
                          PackageRevs& revs);

// Decides from what GetRevs returned (parsed; PARSE_FAILED also for a package that could not be
// read) and filled (revs). Logs and returns as CheckFwBin.
[[nodiscard]] int JudgeRevs(const DeviceInfo& device, int parsed, const PackageRevs& revs);

// Whether the package's revision is the running one. Both have REV_SIZE + 1 bytes. Only the first
// strlen(localFwRev) bytes are compared: an empty running revision equals every other.
[[nodiscard]] bool IsSameRev(const char* localFwRev, const char* fwFileRev);

// Whether an entry with these base revisions (BASE_REVS_SIZE bytes) may be applied to the device:
// one of them is its running revision, or all bytes are 0xFF. Logs whether that matters, and when
// it may.
[[nodiscard]] bool CheckBaseRev(const DeviceInfo& device, const uint8_t* legalBaseRev);
