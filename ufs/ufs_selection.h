// Selects the package entry for the local UFS device and saves its body for the download.
#pragma once

#include "fwpkg/firmware_package.h"

// Where the body lies between selection and download: below the state directory when useDataDir is
// non-zero, else below /tmp.
[[nodiscard]] const char* UfsFwBodyPath(int useDataDir);

// Whether entry is meant for device: magic and manufacturer equal, product name equal position by
// position, where a blank, a line end or a zero byte on either side agrees with anything. The
// revision takes no part.
[[nodiscard]] bool UfsEntryMatches(const UfsFwHeader& device, const UfsFwHeader& entry);

// Returns 0 when entry's revision is newer than device's, -1 when it is equal or older; says which
// on the console log.
[[nodiscard]] int FwVerCheck(const UfsFwHeader& device, const UfsFwHeader& entry);

// The entry that was selected.
struct UfsSelection {
    uint32_t ufsCurrentFwOffset, ufsCurrentFwSize; // of its body in the package, bytes
    int verdict;                                   // FwVerCheck's: 0 or -1
};

// Looks through package (size bytes, borrowed) for the first entry that matches device, and tells
// on the console log what it finds. Returns 0 with selection filled, whatever the revision; -1 when
// no entry matches.
[[nodiscard]] int SelectUfsFw(const UfsFwHeader& device, const uint8_t* package, int32_t size,
                              UfsSelection& selection);

// The same, and saves the entry's body whatever its revision. Returns 0 when the entry is newer
// than the device and its body is saved; -1 when there is no entry, the revision is equal or older,
// or the body was not saved.
[[nodiscard]] int GetUfsFwFromFwBin(const UfsFwHeader& device, const uint8_t* package, int32_t size,
                                    int useDataDir);
