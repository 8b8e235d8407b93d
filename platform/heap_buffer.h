// A buffer from the C library's heap. It is freed when the routine that holds it returns.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <type_traits>

using HeapBuffer = std::unique_ptr<uint8_t, std::integral_constant<void (*)(void*), free>>;
