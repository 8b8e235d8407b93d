// The console log of the eMMC and UFS updates.
#pragma once

// Writes a local-time stamp with milliseconds, one blank and the formatted message to the standard
// output. Adds no line end. Returns the number of characters of the message, or 0 when the local
// time cannot be had (a line that says so then stands in place of the message).
//
// Every format begins with "%s,line=%d: ": the routine that logs, and a number. The number is the
// message's fixed identity in field logs, not its place in today's file: nobody renumbers.
int ffu_print(const char* format, ...) __attribute__((format(printf, 1, 2)));
