// The system log of run control: always at error priority, whatever the message says, and untagged.
#pragma once

#include <android/log.h>

// A printf-style call of the platform's log. Every format begins with "FFU process %s: ", the
// routine that logs. No line end is added.
#define SYSTEM_LOG(...) __android_log_print(ANDROID_LOG_ERROR, nullptr, __VA_ARGS__)
