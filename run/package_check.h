// The pre-check: whether the package holds an update for this device at all.
#pragma once

#include "run/device_info.h"

// What the pre-check takes from the device's entry. Zeroed before it is filled.
struct PackageRevs {
    char fwFileRev[REV_SIZE + 1];         // the revision it brings, terminated
    uint8_t legalBaseRev[BASE_REVS_SIZE]; // the revisions from which it may be applied
};

// Why no revision was taken from the package; 0 stands for one that was.
constexpr int PARSE_FAILED = -1;
constexpr int ENTRY_NOT_FOUND = 1;
constexpr int PACKAGE_NOT_FOUND = 2;

// Reads the package of the device's technology and takes revs from the device's entry. Returns 0,
// or one of the values above; revs is of no use then.
[[nodiscard]] int ParseFwBin(const DeviceInfo& device, PackageRevs& revs);

// The same for a package that lies in memory (size bytes). Returns 0, ENTRY_NOT_FOUND or
// PARSE_FAILED.
[[nodiscard]] int GetRevs(const DeviceInfo& device, const uint8_t* package, size_t size,
                          PackageRevs& revs);

// The offset of the device's entry in package (size bytes): the first one with the device's product
// name, and with a body that lies inside the package. Returns size when there is none.
[[nodiscard]] size_t FindEntry(const DeviceInfo& device, const uint8_t* package, size_t size);

// The verdict, from the result of ParseFwBin and the revisions that it took. It and CheckBaseRev
// tell their reasons on the log. Returns 0 when an update is to be attempted, 1 when there is
// nothing to do, -1 when the package could not be read.
[[nodiscard]] int CheckFwBin(const DeviceInfo& device, int parsed, const PackageRevs& revs);

// Whether the package's revision is the one that runs, both of REV_SIZE + 1 bytes, compared over
// the length of the latter as text: a revision that begins with a zero byte equals every other.
[[nodiscard]] bool IsSameRev(const char* localFwRev, const char* fwFileRev);

// Whether an entry with these base revisions (BASE_REVS_SIZE bytes) may be applied to the device.
[[nodiscard]] bool CheckBaseRev(const DeviceInfo& device, const uint8_t* legalBaseRev);
