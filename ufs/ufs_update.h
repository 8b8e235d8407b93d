// The update of a UFS device, from reading the package to the result.
#pragma once

#include "fwpkg/firmware_package.h"

// Applies the package at ufsFwFile (useBackupFile zero) or ufsBackupFile (non-zero) to the local
// device; a null path is refused, whichever is used. useDataDir: see UfsFwBodyPath.
// Returns 0 when firmware was downloaded, -1 when the download failed or the device record could
// not be cleared, -2 (-ENOENT) when nothing was sent to the device for any other reason.
[[nodiscard]] int UfsFfu(const char* ufsFwFile, const char* ufsBackupFile, int useDataDir,
                         int useBackupFile);

// Downloads the saved body to device. Then, also after a failed download, writes and reads a file
// with direct I/O (the trigger test). Returns 0 when the download succeeded, else -1.
[[nodiscard]] int DoUfsFfu(const UfsFwHeader& device, int useDataDir);
