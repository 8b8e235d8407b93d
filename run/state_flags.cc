// Sets, removes and checks the flag files. The run sets the begin flag first and the end flag last,
// and an outcome flag after an update. A flag that cannot be removed stays, and the run goes on. A
// begin or end flag that cannot be set ends the run.
#include "run/state_flags.h"

#include "run/log/system_log.h"
#include "run/step.h"
#include "run/time_stamp.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t STATE_DIR_MODE = 0755;

// step is the routine that messages name.
void RemoveFlag(const char* step, const char* path) {
    const int status = remove(path);
    if (status != 0) {
        SYSTEM_LOG("FFU process %s: remove %s: %d\n", step, path, status);
    }
}

[[nodiscard]] int CreateFlag(const char* step, const char* path) {
    const int fd = open(path, O_RDWR | O_CREAT, STATE_FILE_MODE);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: open %s error %d!\n", step, path, fd);
        return -1;
    }
    close(fd);
    return 0;
}

} // namespace

int CreateResultDir() {
    if (access(STATE_DIR, F_OK) == 0 || mkdir(STATE_DIR, STATE_DIR_MODE) == 0) {
        return 0;
    }
    SYSTEM_LOG("FFU process %s: mkdir for result file failed! errno:%d\n", __func__, errno);
    return -1;
}

int BeginFlag() {
    RemoveFlag(__func__, END_FLAG);
    return CreateFlag(__func__, BEGIN_FLAG);
}

int EndFlag() {
    RemoveFlag(__func__, BEGIN_FLAG);
    return CreateFlag(__func__, END_FLAG);
}

void CheckResultFlag() {
    if (access(OK_FLAG, F_OK) != 0 && access(FAIL_FLAG, F_OK) != 0) {
        SYSTEM_LOG("FFU process %s: No result flag file found!\n", __func__);
    }
}

void UpdateResultFlag(int result, const char* fwBinRev) {
    char timeText[TIME_TEXT_SIZE] = {};
    GetTmeStamp(timeText);
    if (result == STEP_NOTHING_TO_DO) {
        return;
    }
    const char* flag = result == STEP_DONE ? OK_FLAG : FAIL_FLAG;
    if (result == STEP_DONE) {
        SYSTEM_LOG("FFU process %s: update to %s pass", __func__, fwBinRev);
    } else {
        SYSTEM_LOG("FFU process %s: upgrade to %s fail", __func__, fwBinRev);
    }
    const int fd = open(flag, O_RDWR | O_CREAT | O_APPEND, STATE_FILE_MODE);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: %s open file fail\n", __func__, __func__);
        return;
    }
    // The file's presence is the outcome, its time tells of which attempt.
    (void)!write(fd, timeText, strlen(timeText));
    close(fd);
}
