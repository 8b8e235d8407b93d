// A buffer from the C library's heap that is released exactly once, on every path.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

struct FreeDeleter {
    void operator()(void* buffer) const {
        free(buffer);
    }
};
using HeapBuffer = std::unique_ptr<uint8_t, FreeDeleter>;
