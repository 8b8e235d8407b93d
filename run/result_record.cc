// Keeps the record of attempts, so that no run repeats the last attempt. The run reads it when the
// package has an update, and appends to it before it starts the update. A record that cannot be
// read, or to which nothing can be written, ends the run without an update; a failed sync or a
// write in part does not. The record is never shortened, repaired or removed.
#include "run/result_record.h"

#include "platform/bounded.h"
#include "run/log/system_log.h"
#include "run/state_flags.h"
#include "run/step.h"
#include "run/time_stamp.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Copies the text between key and the next delimiter in line to dest (REV_SIZE + 1 zeroed bytes).
// Returns 0, or -1 when key or delimiter is missing or the text is longer than REV_SIZE bytes.
[[nodiscard]] int SubParseResultFile(const char* line, const char* key, char delimiter,
                                     char* dest) {
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

[[nodiscard]] int ParseResultFile(ResultLine& line) {
    FILE* file = fopen(RESULT_FILE, "r");
    if (file == nullptr) {
        SYSTEM_LOG("FFU process %s: open result file failed! %s\n", __func__, strerror(errno));
        return -1;
    }
    ReadLastLine(file, line);
    fclose(file);
    return 0;
}

} // namespace

int FormatRecord(char* record, const char* timeText, const char* pnm, const char* localFwRev,
                 const char* fwFileRev) {
    return snprintf_s(record, RESULT_LINE_SIZE, RESULT_LINE_SIZE - 1,
                      "%sproduct name:%s, current fw version:%s, upgrading to version:%s\n",
                      timeText, pnm, localFwRev, fwFileRev);
}

int WriteResultFile(const char* pnm, const char* localFwRev, const char* fwFileRev) {
    char record[RESULT_LINE_SIZE] = {};
    char timeText[TIME_TEXT_SIZE] = {};
    if (pnm == nullptr || localFwRev == nullptr || fwFileRev == nullptr) {
        SYSTEM_LOG("FFU process %s: param is null. exit.\n", __func__);
        return -1;
    }
    GetTmeStamp(timeText);
    const int fd = open(RESULT_FILE, O_RDWR | O_CREAT | O_APPEND, STATE_FILE_MODE);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: open ffu result file failed! %s\n", __func__, strerror(errno));
        return -1;
    }
    const int length = FormatRecord(record, timeText, pnm, localFwRev, fwFileRev);
    bool isWritten = false;
    if (length < 0) {
        SYSTEM_LOG("FFU process %s: snprintf_s error!\n", __func__);
    } else {
        isWritten = write(fd, record, static_cast<size_t>(length)) > 0;
        // The record must be on the storage before the device gets its first request. After a power
        // cut, nothing else keeps the next run from a second attempt. A failed sync does not stop
        // the update; a failed write does.
        (void)fsync(fd);
    }
    close(fd);
    return isWritten ? 0 : -1;
}

void ReadLastLine(FILE* file, ResultLine& line) {
    // A read that fails may leave its bytes in the buffer.
    ResultLine next = {};
    while (fgets(next.data(), next.size(), file) != nullptr) {
        line = next;
    }
}

int ParseAttempt(const char* line, LastAttempt& attempt) {
    if (SubParseResultFile(line, BASE_REV_KEY, ',', attempt.lastBaseRev) != 0) {
        return -1;
    }
    return SubParseResultFile(line, TARGET_REV_KEY, '\n', attempt.lastTargetRev);
}

bool IsAttempted(const LastAttempt& attempt, const char* fwBinRev) {
    return strncmp(attempt.lastTargetRev, fwBinRev, strlen(fwBinRev)) == 0;
}

int CheckResultFile(const char* fwBinRev) {
    if (access(RESULT_FILE, F_OK) != 0) {
        return STEP_DONE;
    }
    ResultLine line = {};
    if (ParseResultFile(line) != 0) {
        SYSTEM_LOG("FFU process %s: ParseResultFile error\n", __func__);
        return STEP_FAILED;
    }
    CheckResultFlag();
    LastAttempt last = {};
    if (ParseAttempt(line.data(), last) != 0) {
        SYSTEM_LOG("FFU process %s: ParseResultFile error\n", __func__);
        return STEP_FAILED;
    }
    SYSTEM_LOG("FFU process %s: lastBaseRev:%s, lastTargetRev:%s, fwBinRev:%s\n", __func__,
               last.lastBaseRev, last.lastTargetRev, fwBinRev);
    if (IsAttempted(last, fwBinRev)) {
        SYSTEM_LOG("FFU process %s: firmware in fw file has been applied, no need to update.",
                   __func__);
        return STEP_NOTHING_TO_DO;
    }
    SYSTEM_LOG("FFU process %s: firmware in fw file has not been applied yet, try to update.",
               __func__);
    return STEP_DONE;
}
