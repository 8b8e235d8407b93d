// The bounded copy, fill and print functions of a phone's system library, for hosts that have none.
// A build for a phone links the phone's own library instead (CMake: FFU_BOUNDED_LIBRARY).
#pragma once

#include <cstdarg>
#include <cstddef>

extern "C" {

// Copy and fill: 0 on success. EINVAL when an argument is null, ERANGE when count exceeds destSize;
// nothing is written then. memcpy_s also refuses (EINVAL) ranges that overlap.
[[nodiscard]] int memcpy_s(void* dest, size_t destSize, const void* src, size_t count);
[[nodiscard]] int memset_s(void* dest, size_t destSize, int value, size_t count);

// Copies the string at src, at most count characters of it, and a terminating zero. 0 on success;
// ERANGE also when the characters and their zero do not fit.
[[nodiscard]] int strncpy_s(char* dest, size_t destSize, const char* src, size_t count);

// Format at most count characters and a terminating zero into dest, of destSize bytes. Return the
// number of characters written, or a negative value when an argument is null, destSize is 0, count
// exceeds destSize or the text was truncated. A truncated text is terminated, too.
[[nodiscard]] int snprintf_s(char* dest, size_t destSize, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
[[nodiscard]] int vsnprintf_s(char* dest, size_t destSize, size_t count, const char* format,
                              va_list args) __attribute__((format(printf, 4, 0)));
}
