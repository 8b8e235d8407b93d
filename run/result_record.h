// The memory of the tool across runs: the record of every attempt.
#pragma once

#include "run/run_values.h"

constexpr size_t RESULT_LINE_SIZE = 1024; // bytes of a line of the record, terminator included
constexpr size_t TIME_TEXT_SIZE = 128;
constexpr char BASE_REV_KEY[] = "current fw version:";
constexpr char TARGET_REV_KEY[] = "upgrading to version:";

// Whether the record's last attempt was for fwBinRev, the package's revision. Returns 0 when it was
// not (go on), 1 when it was (nothing to do), -1 when the record cannot be read back.
[[nodiscard]] int CheckResultFile(const char* fwBinRev);

// Appends a record: the device with this product name and revision is about to be updated to
// fwFileRev. Returns 0 or -1.
[[nodiscard]] int WriteResultFile(const char* pnm, const char* localFwRev, const char* fwFileRev);

// Reads the record at path; line (RESULT_LINE_SIZE zeroed bytes) then holds its last line, or the
// last piece of one that is longer. Returns 0, or -1 when the record cannot be opened.
[[nodiscard]] int ParseResultFile(const char* path, char* line);

// Copies the value between key and the next delimiter from line into dest (REV_SIZE + 1 zeroed
// bytes). Returns 0, or -1 when key or delimiter is missing or the value is too long.
[[nodiscard]] int SubParseResultFile(const char* line, const char* key, char delimiter, char* dest);

// Writes the local time as ctime's text, with its line end, into timeText (TIME_TEXT_SIZE zeroed
// bytes). It stays as it is when the time cannot be had.
void GetTmeStamp(char* timeText);
