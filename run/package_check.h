// The pre-check: whether the package holds an update for this device at all.
#pragma once

#include "run/device_info.h"

// What the pre-check takes from the device's entry. The caller zeroes it first.
struct PackageRevs {
    char fwFileRev[REV_SIZE + 1];         // the entry's own revision, terminated
    uint8_t legalBaseRev[BASE_REVS_SIZE]; // the revisions from which it may be applied
};

// What ParseFwBin returns when it took no revision from the package.
constexpr int PARSE_FAILED = -1;
constexpr int ENTRY_NOT_FOUND = 1;
constexpr int PACKAGE_NOT_FOUND = 2;

// Reads the package of the device's technology and fills revs from the device's entry. Returns 0,
// or one of the values above; revs must not be used then.
[[nodiscard]] int ParseFwBin(const DeviceInfo& device, PackageRevs& revs);

// The same for a package in memory (size bytes, borrowed). Returns 0, ENTRY_NOT_FOUND or
// PARSE_FAILED.
[[nodiscard]] int GetRevs(const DeviceInfo& device, const uint8_t* package, size_t size,
                          PackageRevs& revs);

// Returns the offset of the device's entry in package (size bytes): the first entry that has the
// device's product name and a body inside the package. Returns size when there is none.
[[nodiscard]] size_t FindEntry(const DeviceInfo& device, const uint8_t* package, size_t size);

// Decides whether the package has an update for device. parsed and revs are what ParseFwBin
// returned and filled. Logs the reason. Returns 0 when it has one (go on), 1 when it has none
// (nothing to do), -1 when the package could not be read.
[[nodiscard]] int CheckFwBin(const DeviceInfo& device, int parsed, const PackageRevs& revs);

// Whether the package's revision is the running one. Both have REV_SIZE + 1 bytes. Only the first
// strlen(localFwRev) bytes are compared: an empty running revision equals every other.
[[nodiscard]] bool IsSameRev(const char* localFwRev, const char* fwFileRev);

// Whether an entry with these base revisions (BASE_REVS_SIZE bytes) may be applied to the device:
// one of them is its running revision, or all bytes are 0xFF. Logs the reason when it may.
[[nodiscard]] bool CheckBaseRev(const DeviceInfo& device, const uint8_t* legalBaseRev);
