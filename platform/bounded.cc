// Bounded functions for hosts whose system library has none. The tool copies and prints into its
// fixed-size fields through them. A refused copy leaves its destination as it was.
#include "platform/bounded.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

int memcpy_s(void* dest, size_t destSize, const void* src, size_t count) {
    if (dest == nullptr || src == nullptr) {
        return EINVAL;
    }
    if (count > destSize) {
        return ERANGE;
    }
    const auto to = reinterpret_cast<uintptr_t>(dest);
    const auto from = reinterpret_cast<uintptr_t>(src);
    if (to < from + count && from < to + count) {
        return EINVAL;
    }
    memcpy(dest, src, count);
    return 0;
}

int memset_s(void* dest, size_t destSize, int value, size_t count) {
    if (dest == nullptr) {
        return EINVAL;
    }
    if (count > destSize) {
        return ERANGE;
    }
    memset(dest, value, count);
    return 0;
}

int strncpy_s(char* dest, size_t destSize, const char* src, size_t count) {
    if (dest == nullptr || src == nullptr) {
        return EINVAL;
    }
    const size_t length = strnlen(src, count);
    if (count > destSize || length >= destSize) {
        return ERANGE;
    }
    const int status = memcpy_s(dest, destSize, src, length);
    if (status == 0) {
        dest[length] = '\0';
    }
    return status;
}

int snprintf_s(char* dest, size_t destSize, size_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int written = vsnprintf_s(dest, destSize, count, format, args);
    va_end(args);
    return written;
}

int vsnprintf_s(char* dest, size_t destSize, size_t count, const char* format, va_list args) {
    if (dest == nullptr || format == nullptr || destSize == 0 || count > destSize) {
        return -1;
    }
    const size_t room = std::min(destSize, count + 1);
    const int length = vsnprintf(dest, room, format, args);
    return length >= 0 && static_cast<size_t>(length) < room ? length : -1;
}
