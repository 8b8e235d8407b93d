// Selects the package entry for the local UFS device and saves its body for the download.
#pragma once

#include "fwpkg/firmware_package.h"

// Where the body lies between selection and download: below the state directory when useDataDir is
// non-zero, else below /tmp.
[[nodiscard]] const char* UfsFwBodyPath(int useDataDir);

// Whether entry is meant for device: manufacturer equal, product name equal position by position,
// where a blank, a line end or a zero byte on either side agrees with anything. The revision takes
// no part.
[[nodiscard]] bool UfsEntryMatches(const UfsFwHeader& device, const UfsFwHeader& entry);

// Returns 0 when entry's revision is newer than device's, -1 when it is equal or older; says which
// on the console log.
[[nodiscard]] int FwVerCheck(const UfsFwHeader& device, const UfsFwHeader& entry);

// The entry that was selected: its body's place in the package, and whether it is newer than the
// device's firmware (FwVerCheck).
struct UfsSelection {
    uint32_t ufsCurrentFwOffset, ufsCurrentFwSize; // bytes
    int verdict;                                   // 0 or -1
};

// Looks through package (size bytes, borrowed) for the first entry that matches device. Returns 0
// with selection filled, -1 when there is none.
[[nodiscard]] int SelectUfsFw(const UfsFwHeader& device, const uint8_t* package, int32_t size,
                              UfsSelection& selection);

// The same, and saves the entry's body whatever its revision. Returns 0 when the entry is newer
// than the device and its body is saved; -1 when there is no entry, the revision is equal or older,
// or the body was not saved.
[[nodiscard]] int GetUfsFwFromFwBin(const UfsFwHeader& device, const uint8_t* package, int32_t size,
                                    int useDataDir);
