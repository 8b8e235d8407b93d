// The update of a UFS device, from its package to the verdict.
#pragma once

#include "fwpkg/firmware_package.h"

// Applies the package at ufsFwFile (useBackupFile zero) or ufsBackupFile (non-zero) to the local
// device; neither path may be null. useDataDir chooses where the body is saved (ufs_selection.h).
// Returns 0 when firmware was downloaded, -2 (-ENOENT) when nothing was applied, -1 when the
// download failed or the device record could not be cleared.
[[nodiscard]] int UfsFfu(const char* ufsFwFile, const char* ufsBackupFile, int useDataDir,
                         int useBackupFile);

// Downloads the saved body into device and puts a burst of direct traffic on its storage, whatever
// the download gave. Returns 0 when the download succeeded, else -1.
[[nodiscard]] int DoUfsFfu(const UfsFwHeader& device, int useDataDir);
