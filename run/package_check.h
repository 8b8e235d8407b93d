// The pre-check: whether the package holds an update for this device at all.
#pragma once

#include "run/device_info.h"

// What the pre-check takes from the device's entry.
struct PackageRevs {
    size_t entry;                         // the entry's offset in the package
    char fwFileRev[REV_SIZE + 1];         // the revision it brings, terminated
    uint8_t legalBaseRev[BASE_REVS_SIZE]; // the revisions from which it may be applied
};

// Why no revision was taken from the package; 0 stands for one that was.
constexpr int PARSE_FAILED = -1;
constexpr int ENTRY_NOT_FOUND = 1;
constexpr int PACKAGE_NOT_FOUND = 2;

// Reads the package of the device's technology and looks for the device's entry. Returns 0 with
// revs filled, or one of the values above.
[[nodiscard]] int ParseFwBin(const DeviceInfo& device, PackageRevs& revs);

// The same for a package that lies in memory (size bytes): the first entry with the device's
// product name.
[[nodiscard]] int FindRevs(const DeviceInfo& device, const uint8_t* package, size_t size,
                           PackageRevs& revs);

// The verdict, from what was parsed (a result of the two above) and the revisions that were found.
// Returns 0 when an update is to be attempted, 1 when there is nothing to do, -1 when the package
// could not be read.
[[nodiscard]] int CheckFwBin(const DeviceInfo& device, int parsed, const PackageRevs& revs);

// Whether the package's revision is the one that runs, compared over the length of the latter as
// text: a revision that begins with a zero byte equals every other.
[[nodiscard]] bool IsSameRev(const char* localFwRev, const char* fwFileRev);

// Whether an entry with these base revisions may be applied to the device.
[[nodiscard]] bool CheckBaseRev(const DeviceInfo& device, const uint8_t* legalBaseRev);
