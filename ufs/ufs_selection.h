// Selects the package entry for the local UFS device and saves its body for the download.
#pragma once

#include "fwpkg/firmware_package.h"

// Returns the path of the body file, which holds the body between selection and download: in the
// state directory when useDataDir is non-zero, else in /tmp.
[[nodiscard]] const char* UfsFwBodyPath(int useDataDir);

// Whether entry is for device: magic and manufacturer are equal, and the product names agree at
// every position. A blank, a carriage return, a line feed or a zero byte in either name agrees with
// any character. Revisions are not compared.
[[nodiscard]] bool UfsEntryMatches(const UfsFwHeader& device, const UfsFwHeader& entry);

// Returns 0 when entry's revision is newer than device's, -1 when it is equal or older. The
// revisions are compared by memcmp. Logs the result to the console.
[[nodiscard]] int FwVerCheck(const UfsFwHeader& device, const UfsFwHeader& entry);

// The entry that was selected.
struct UfsSelection {
    uint32_t ufsCurrentFwOffset, ufsCurrentFwSize; // of its body in the package, bytes
    int verdict;                                   // FwVerCheck's result: 0 or -1
};

// Searches package (size bytes, borrowed) for the first entry that matches device and has its body
// inside the package; logs to the console what it finds. Returns 0 with selection filled, whatever
// the entry's revision, or -1 when no entry matches.
[[nodiscard]] int SelectUfsFw(const UfsFwHeader& device, const uint8_t* package, int32_t size,
                              UfsSelection& selection);

// The same, and saves the entry's body to the body file, whatever the entry's revision. Returns 0
// when the entry is newer than the device and its body is saved; -1 when no entry matches, the
// revision is equal or older, or the body could not be saved.
[[nodiscard]] int GetUfsFwFromFwBin(const UfsFwHeader& device, const uint8_t* package, int32_t size,
                                    int useDataDir);
