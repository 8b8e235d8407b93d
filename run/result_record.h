// The record of update attempts. It is all that the tool remembers from run to run.
#pragma once

#include "run/device_info.h"

#include <array>
#include <cstdio>

constexpr char RESULT_FILE[] = "/data/vendor/fw/fw_result";
constexpr size_t RESULT_LINE_SIZE = 1024; // bytes of a line of the record, terminator included
constexpr char BASE_REV_KEY[] = "current fw version:";
constexpr char TARGET_REV_KEY[] = "upgrading to version:";

// Whether the last attempt on record was for fwBinRev, the package's revision. Returns 0 when it
// was not or there is no record (go on), 1 when it was (nothing to do), -1 when the record cannot
// be read or parsed.
[[nodiscard]] int CheckResultFile(const char* fwBinRev);

// Appends an attempt to the record and syncs it: the device with product name pnm is about to be
// updated from localFwRev to fwFileRev. Returns 0, or -1 when an argument is null or nothing could
// be written. Neither a partial write nor a failed sync is a failure.
[[nodiscard]] int WriteResultFile(const char* pnm, const char* localFwRev, const char* fwFileRev);

// Below: the format of the record, for everything that writes or reads it.

// Formats one attempt (two lines) into record (RESULT_LINE_SIZE zeroed bytes). Returns the length
// in bytes, or a negative value when it does not fit.
[[nodiscard]] int FormatRecord(char* record, const char* timeText, const char* pnm,
                               const char* localFwRev, const char* fwFileRev);

// A line of the record, terminated.
using ResultLine = std::array<char, RESULT_LINE_SIZE>;

// Reads file, a record, to its end or to a read error. line, zeroed by the caller, then holds the
// last line, or the last piece of a line that is longer than line. The beginning of a line in which
// a read failed is such a piece if the C library delivers it.
void ReadLastLine(FILE* file, ResultLine& line);

// The revisions of the last attempt, terminated.
struct LastAttempt {
    char lastBaseRev[REV_SIZE + 1];
    char lastTargetRev[REV_SIZE + 1];
};

// Copies both revisions from line, the record's last, into attempt, zeroed by the caller. Returns
// 0; logs and returns -1 when one of them is missing or longer than REV_SIZE bytes.
[[nodiscard]] int ParseAttempt(const char* line, LastAttempt& attempt);

// Whether attempt was for fwBinRev: whether its target revision begins with fwBinRev. Every
// revision begins with an empty one.
[[nodiscard]] bool IsAttempted(const LastAttempt& attempt, const char* fwBinRev);
