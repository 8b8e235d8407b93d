// Stands between the tool and its bounded functions (--wrap of the linker): the call that the
// environment's REFUSED names ("memcpy_s 3", the third of a run) is refused, as if a size were
// wrong.
#include "platform/bounded.h"

#include <cstdlib>
#include <string>

extern "C" {
// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
int __real_memcpy_s(void* dest, size_t destSize, const void* src, size_t count);
int __real_memset_s(void* dest, size_t destSize, int value, size_t count);
int __real_strncpy_s(char* dest, size_t destSize, const char* src, size_t count);

namespace {

constexpr int REFUSED = 22;

bool Refused(const char* function, int& calls) {
    const char* refused = getenv("REFUSED");
    return refused != nullptr && refused == function + (" " + std::to_string(++calls));
}

} // namespace

int __wrap_memcpy_s(void* dest, size_t destSize, const void* src, size_t count) {
    static int calls;
    return Refused("memcpy_s", calls) ? REFUSED : __real_memcpy_s(dest, destSize, src, count);
}

int __wrap_memset_s(void* dest, size_t destSize, int value, size_t count) {
    static int calls;
    return Refused("memset_s", calls) ? REFUSED : __real_memset_s(dest, destSize, value, count);
}

int __wrap_strncpy_s(char* dest, size_t destSize, const char* src, size_t count) {
    static int calls;
    return Refused("strncpy_s", calls) ? REFUSED : __real_strncpy_s(dest, destSize, src, count);
}

__attribute__((format(printf, 4, 5))) int __wrap_snprintf_s(char* dest, size_t destSize,
                                                            size_t count, const char* format, ...) {
    static int calls;
    va_list args;
    va_start(args, format);
    const bool refused = Refused("snprintf_s", calls);
    const int written = refused ? -1 : vsnprintf_s(dest, destSize, count, format, args);
    va_end(args);
    return written;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}
