// Stands in for both logs of the phone, so that what its routines say becomes part of an answer
// instead of the standard output. The phone's routines call it wherever they run in fwlab.
#include "fwlab/phone/phone_messages.h"

#include "emmc/emmc_print.h"
#include "run/log/ffu_print.h"
#include "simphone/text.h"

#include <android/log.h>
#include <cstdarg>
#include <cstdio>
#include <utility>

static thread_local Texts messages; // of the phone that this thread asks

__attribute__((format(printf, 1, 0))) static void Keep(const char* format, va_list args) {
    char text[1024] = {};
    (void)vsnprintf(text, sizeof(text), format, args); // a longer one is cut
    const std::string message = text;
    messages.push_back(Escaped(message.substr(0, message.find_last_not_of('\n') + 1)));
}

Texts TakePhoneMessages() {
    return std::exchange(messages, {});
}

extern "C" int __android_log_print(int /*prio*/, const char* /*tag*/, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    Keep(fmt, args);
    va_end(args);
    return 0;
}

int ffu_print(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Keep(format, args);
    va_end(args);
    return 0;
}

// The dump of an entry's header is no message: `list` shows more.
void PrintEmmcFwHeader(const char* /*label*/, const EmmcFwHeader& /*header*/) {
}
