// Reads the time for the record and the outcome flags. They are written without it if that fails.
#include "run/time_stamp.h"

#include "platform/bounded.h"
#include "run/log/system_log.h"

#include <cstring>
#include <ctime>

void GetTmeStamp(char* timeText) {
    const time_t now = time(nullptr);
    const char* text = ctime(&now);
    if (text == nullptr) {
        return;
    }
    if (timeText == nullptr) {
        SYSTEM_LOG("FFU process %s: invalid time param.exit.\n", __func__);
        return;
    }
    const size_t length = strlen(text);
    if (memcpy_s(timeText, TIME_TEXT_SIZE, text, length + 1) != 0) {
        SYSTEM_LOG("FFU process %s: memcpy_s error.\n", __func__);
        return;
    }
    timeText[length] = '\0';
}
