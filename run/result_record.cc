// Keeps the record of attempts, by which each package revision is attempted at most once. The run
// reads it back before an update and appends to it before it starts one. A failure here ends the
// run without an update; the record is never shortened, repaired or removed.
#include "run/result_record.h"

#include "platform/bounded.h"
#include "run/log/system_log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

void CheckResultFlag() {
    if (access(OK_FLAG, F_OK) != 0 && access(FAIL_FLAG, F_OK) != 0) {
        SYSTEM_LOG("FFU process %s: No result flag file found!\n", __func__);
    }
}

// Formats the record, appends it to fd with one write and syncs it.
[[nodiscard]] int WriteRecord(int fd, const char* pnm, const char* localFwRev,
                              const char* fwFileRev, const char* timeText) {
    char line[RESULT_LINE_SIZE] = {};
    const int length =
        snprintf_s(line, sizeof(line), sizeof(line) - 1,
                   "%sproduct name:%s, current fw version:%s, upgrading to version:%s\n", timeText,
                   pnm, localFwRev, fwFileRev);
    if (length < 0) {
        SYSTEM_LOG("FFU process %s: snprintf_s error!\n", "WriteResultFile");
        return -1;
    }
    const bool isWritten = write(fd, line, static_cast<size_t>(length)) > 0;
    // The record has to be on the storage before the device gets its first request: after a power
    // cut it is all that keeps the next run from a second attempt. A file system that cannot sync
    // is no reason to leave a device without its update: the write decides.
    (void)fsync(fd);
    return isWritten ? 0 : -1;
}

} // namespace

void GetTmeStamp(char* timeText) {
    const time_t now = time(nullptr);
    const char* text = ctime(&now);
    if (text == nullptr) {
        return;
    }
    if (timeText == nullptr) {
        SYSTEM_LOG("FFU process %s: invalid time param.exit.\n", __func__);
        return;
    }
    const size_t length = strlen(text);
    if (memcpy_s(timeText, TIME_TEXT_SIZE, text, length + 1) != 0) {
        SYSTEM_LOG("FFU process %s: memcpy_s error.\n", __func__);
        return;
    }
    timeText[length] = '\0';
}

int WriteResultFile(const char* pnm, const char* localFwRev, const char* fwFileRev) {
    if (pnm == nullptr || localFwRev == nullptr || fwFileRev == nullptr) {
        SYSTEM_LOG("FFU process %s: param is null. exit.\n", __func__);
        return -1;
    }
    char timeText[TIME_TEXT_SIZE] = {};
    GetTmeStamp(timeText);
    const int fd = open(RESULT_FILE, O_RDWR | O_CREAT | O_APPEND, STATE_FILE_MODE);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: open ffu result file failed! %s\n", __func__, strerror(errno));
        return -1;
    }
    const int status = WriteRecord(fd, pnm, localFwRev, fwFileRev, timeText);
    close(fd);
    return status;
}

int ParseResultFile(const char* path, char* line) {
    FILE* file = fopen(path, "r");
    if (file == nullptr) {
        SYSTEM_LOG("FFU process %s: open result file failed! %s\n", __func__, strerror(errno));
        return -1;
    }
    while (fgets(line, RESULT_LINE_SIZE, file) != nullptr) {
        // The last line read is the one that counts.
    }
    fclose(file);
    return 0;
}

int SubParseResultFile(const char* line, const char* key, char delimiter, char* dest) {
    const char* found = strstr(line, key);
    const char* value = found == nullptr ? nullptr : found + strlen(key);
    const char* end = value == nullptr ? nullptr : strchr(value, delimiter);
    if (end == nullptr) {
        SYSTEM_LOG("FFU process %s: Parse base rev failed!\n", __func__);
        return -1;
    }
    if (memcpy_s(dest, REV_SIZE, value, static_cast<size_t>(end - value)) != 0) {
        SYSTEM_LOG("FFU process %s: memcpy_s error!\n", __func__);
        return -1;
    }
    return 0;
}

int CheckResultFile(const char* fwBinRev) {
    if (access(RESULT_FILE, F_OK) != 0) {
        return STEP_DONE;
    }
    char line[RESULT_LINE_SIZE] = {};
    if (ParseResultFile(RESULT_FILE, line) != 0) {
        SYSTEM_LOG("FFU process %s: ParseResultFile error\n", __func__);
        return STEP_FAILED;
    }
    CheckResultFlag();
    char lastBaseRev[REV_SIZE + 1] = {};
    char lastTargetRev[REV_SIZE + 1] = {};
    if (SubParseResultFile(line, BASE_REV_KEY, ',', lastBaseRev) != 0 ||
        SubParseResultFile(line, TARGET_REV_KEY, '\n', lastTargetRev) != 0) {
        SYSTEM_LOG("FFU process %s: ParseResultFile error\n", __func__);
        return STEP_FAILED;
    }
    SYSTEM_LOG("FFU process %s: lastBaseRev:%s, lastTargetRev:%s, fwBinRev:%s\n", __func__,
               lastBaseRev, lastTargetRev, fwBinRev);
    if (strncmp(lastTargetRev, fwBinRev, strlen(fwBinRev)) == 0) {
        SYSTEM_LOG("FFU process %s: firmware in fw file has been applied, no need to update.",
                   __func__);
        return STEP_NOTHING_TO_DO;
    }
    SYSTEM_LOG("FFU process %s: firmware in fw file has not been applied yet, try to update.",
               __func__);
    return STEP_DONE;
}
