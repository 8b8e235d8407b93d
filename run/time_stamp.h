// The time, as records and outcome flags hold it.
#pragma once

#include <cstddef>

constexpr size_t TIME_TEXT_SIZE = 128;

// Writes the local time as ctime's text, with its line end, into timeText (TIME_TEXT_SIZE zeroed
// bytes). It stays as it is when the time cannot be had or copied; null is told on the log.
void GetTmeStamp(char* timeText);
