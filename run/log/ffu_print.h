// The console log of the eMMC and UFS updates.
#pragma once

// Writes a local-time stamp with milliseconds, one blank and the formatted message to the standard
// output. Adds no line end. Returns the number of characters of the message, or a negative value
// when it cannot be written. When there is no local time it prints a line that says so, without the
// message, and returns 0.
//
// Every format begins with "%s,line=%d: ": the routine that logs, and a number. The number
// identifies the message in field logs. It is not today's source line and is never changed.
int ffu_print(const char* format, ...) __attribute__((format(printf, 1, 2)));
