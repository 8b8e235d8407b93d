// Shows progress on a terminal.
#include "fwlab/base/progress.h"

#include <chrono>
#include <fmt/format.h>
#include <unistd.h>

void ShowProgress(size_t done, size_t all, const char* what) {
    using Clock = std::chrono::steady_clock;
    static const bool isTerminal = isatty(STDERR_FILENO) != 0;
    static Clock::time_point next = {};
    if (!isTerminal || (done > 0 && done < all && Clock::now() < next)) {
        return;
    }
    next = Clock::now() + std::chrono::milliseconds(100);
    if (done < all) {
        fmt::print(stderr, "\r{} of {} {}\x1b[K", done, all, what);
    } else {
        fmt::print(stderr, "\r\x1b[K");
    }
    fflush(stderr);
}
