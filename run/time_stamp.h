// The time stamp of records and outcome flags.
#pragma once

#include <cstddef>

constexpr size_t TIME_TEXT_SIZE = 128;

// Writes the local time in ctime's format, line end included, into timeText (TIME_TEXT_SIZE zeroed
// bytes). On a failure timeText stays as it is.
void GetTmeStamp(char* timeText);
