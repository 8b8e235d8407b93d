// Removes what the last update left, and runs the update of the detected technology. The run calls
// it once the attempt is on record, and writes the outcome flag from its result.
#include "run/update_dispatch.h"

#include "emmc/emmc_update.h"
#include "run/device_info.h"
#include "run/state_flags.h"
#include "run/step.h"
#include "ufs/ufs_selection.h"
#include "ufs/ufs_update.h"

#include <cerrno>
#include <cstdio>

int DoFfu(char deviceType) {
    constexpr int DOWNLOAD_AND_INSTALL = 0; // not download only
    constexpr int USE_DATA_DIR = 1;
    constexpr int USE_PACKAGE = 0; // not the backup, which is the same file
    const char* bodyFile = UfsFwBodyPath(USE_DATA_DIR);

    // Files that are not there need no removal.
    (void)remove(OK_FLAG);
    (void)remove(FAIL_FLAG);
    (void)remove(bodyFile);
    const int status =
        deviceType == DEVICE_EMMC
            ? EmmcFfu(EMMC_FW_PACKAGE, EMMC_FW_PACKAGE, DOWNLOAD_AND_INSTALL, USE_PACKAGE)
            : UfsFfu(UFS_FW_PACKAGE, UFS_FW_PACKAGE, USE_DATA_DIR, USE_PACKAGE);
    (void)remove(bodyFile);

    // Turns the status of the update into the result of a step.
    if (status == -ENOENT) {
        return STEP_NOTHING_TO_DO;
    }
    return status == 0 ? STEP_DONE : STEP_FAILED;
}
