// The pre-check: whether the package holds an update for this device at all.
#pragma once

#include "run/run_values.h"

// Looks the device up in the package of its technology. Returns 0 when an update is to be
// attempted: fwFileRev (REV_SIZE + 1 zeroed bytes) then holds the package's revision, terminated.
// Returns 1 when there is nothing to do, -1 when the package cannot be read.
[[nodiscard]] int CheckFwBin(const DeviceInfo& device, char* fwFileRev);

// Finds the first entry for the product name pnm (PNM_SIZE bytes) in package (size bytes) and
// copies its revision and its base revisions (BASE_REVS_SIZE). Returns 0, 1 when no entry is found,
// -1 when a copy fails.
[[nodiscard]] int GetEmmcRev(const uint8_t* package, size_t size, const char* pnm, char* fwFileRev,
                             uint8_t* legalBaseRev);
[[nodiscard]] int GetUfsRev(const uint8_t* package, size_t size, const char* pnm, char* fwFileRev,
                            uint8_t* legalBaseRev);

// Whether the package's revision is the one that runs, compared over the length of the latter as
// text: a revision that begins with a zero byte equals every other.
[[nodiscard]] bool IsSameRev(const char* localFwRev, const char* fwFileRev);

// Whether an entry with these base revisions may be applied to the device. Returns 0 or -1.
[[nodiscard]] int CheckBaseRev(const DeviceInfo& device, const uint8_t* legalBaseRev);
