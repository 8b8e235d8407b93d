// Clears what the last update left and runs that of the detected technology. The run calls it once
// an attempt is on record; a failure here is told by the outcome flag.
#include "run/update_dispatch.h"

#include "emmc/emmc_update.h"
#include "run/log/system_log.h"
#include "run/result_record.h"
#include "ufs/ufs_selection.h"
#include "ufs/ufs_update.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

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

    if (status == -ENOENT) {
        return STEP_NOTHING_TO_DO;
    }
    return status == 0 ? STEP_DONE : STEP_FAILED;
}

void UpdateResultFlag(int result, const char* fwBinRev) {
    char timeText[TIME_TEXT_SIZE] = {};
    GetTmeStamp(timeText);
    if (result == STEP_NOTHING_TO_DO) {
        return;
    }
    const char* flag = FAIL_FLAG;
    if (result == STEP_DONE) {
        flag = OK_FLAG;
        SYSTEM_LOG("FFU process %s: update to %s pass", __func__, fwBinRev);
    } else {
        SYSTEM_LOG("FFU process %s: upgrade to %s fail", __func__, fwBinRev);
    }
    const int fd = open(flag, O_RDWR | O_CREAT | O_APPEND, STATE_FILE_MODE);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: %s open file fail\n", __func__, __func__);
        return;
    }
    // The flag tells the outcome; the time in it is only for the reader.
    (void)!write(fd, timeText, strlen(timeText));
    close(fd);
}
