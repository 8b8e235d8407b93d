// The memory of the tool across runs: the record of every attempt.
#pragma once

#include "run/device_info.h"

#include <array>
#include <cstdio>

constexpr char RESULT_FILE[] = "/data/vendor/fw/fw_result";
constexpr size_t RESULT_LINE_SIZE = 1024; // bytes of a line of the record, terminator included
constexpr char BASE_REV_KEY[] = "current fw version:";
constexpr char TARGET_REV_KEY[] = "upgrading to version:";

// Whether the record's last attempt was for fwBinRev, the package's revision. Returns 0 when it was
// not (go on), 1 when it was (nothing to do), -1 when the record cannot be read back.
[[nodiscard]] int CheckResultFile(const char* fwBinRev);

// Appends a record and syncs it: the device with this product name and revision is about to be
// updated to fwFileRev. Returns 0, or -1 when it cannot be written; a sync that fails is no
// failure.
[[nodiscard]] int WriteResultFile(const char* pnm, const char* localFwRev, const char* fwFileRev);

// What follows is the record's form, for all who write and read it.

// Formats a record into record (RESULT_LINE_SIZE zeroed bytes). Returns its length in bytes, or a
// negative value.
[[nodiscard]] int FormatRecord(char* record, const char* timeText, const char* pnm,
                               const char* localFwRev, const char* fwFileRev);

// A line of a record, terminated.
using ResultLine = std::array<char, RESULT_LINE_SIZE>;

// Reads file, a record, to its end or a read error; line, which is zeroed, then holds its last
// whole line, or the last piece of one that is longer.
void ReadLastLine(FILE* file, ResultLine& line);

// The revisions of the last attempt, terminated.
struct LastAttempt {
    char lastBaseRev[REV_SIZE + 1];
    char lastTargetRev[REV_SIZE + 1];
};

// Takes both revisions from the record's last line into attempt, which is zeroed. Returns 0, or -1
// and a message on the log when one of them is missing or too long.
[[nodiscard]] int ParseAttempt(const char* line, LastAttempt& attempt);

// Whether attempt was for fwBinRev, compared over the length of the latter as text: every text
// begins with an empty one.
[[nodiscard]] bool IsAttempted(const LastAttempt& attempt, const char* fwBinRev);
