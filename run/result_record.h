// The memory of the tool across runs: the record of every attempt.
#pragma once

#include "run/device_info.h"

#include <cstdio>

constexpr char RESULT_FILE[] = "/data/vendor/fw/fw_result";
constexpr size_t RESULT_LINE_SIZE = 1024; // bytes of a line of the record, terminator included
constexpr size_t TIME_TEXT_SIZE = 128;
constexpr char BASE_REV_KEY[] = "current fw version:";
constexpr char TARGET_REV_KEY[] = "upgrading to version:";

// Whether the record's last attempt was for fwBinRev, the package's revision. Returns 0 when it was
// not (go on), 1 when it was (nothing to do), -1 when the record cannot be read back.
[[nodiscard]] int CheckResultFile(const char* fwBinRev);

// Appends a record and syncs it: the device with this product name and revision is about to be
// updated to fwFileRev. Returns 0 or -1.
[[nodiscard]] int WriteResultFile(const char* pnm, const char* localFwRev, const char* fwFileRev);

// What follows is the record's form, for all who write and read it.

// Formats a record into record (RESULT_LINE_SIZE zeroed bytes). Returns its length in bytes, or a
// negative value.
[[nodiscard]] int FormatRecord(char* record, const char* timeText, const char* pnm,
                               const char* localFwRev, const char* fwFileRev);

// Reads file, a record, to its end or a read error; line (RESULT_LINE_SIZE zeroed bytes) then holds
// its last line, or the last piece of one that is longer. Returns 0, or -1 when a copy fails.
[[nodiscard]] int ReadLastLine(FILE* file, char* line);

// The revisions of the last attempt, terminated.
struct LastAttempt {
    char lastBaseRev[REV_SIZE + 1];
    char lastTargetRev[REV_SIZE + 1];
};

// Takes both revisions from the record's last line into attempt, which is zeroed. Returns 0, or -1
// when one of them is missing or too long.
[[nodiscard]] int ParseAttempt(const char* line, LastAttempt& attempt);

// Whether attempt was for fwBinRev, compared over the length of the latter as text: every text
// begins with an empty one.
[[nodiscard]] bool IsAttempted(const LastAttempt& attempt, const char* fwBinRev);

// Writes the local time as ctime's text, with its line end, into timeText (TIME_TEXT_SIZE zeroed
// bytes). It stays as it is when the time cannot be had.
void GetTmeStamp(char* timeText);
