#include "fwlab/work_folder.h"

#include "fwlab/package.h"

#include <algorithm>
#include <ctime>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

sigset_t EndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, number);
    }
    return signals;
}

} // namespace

WorkFolder::WorkFolder() : path(fs::temp_directory_path() / "fwlab-XXXXXX"), mask() {
    const sigset_t signals = EndingSignals();
    sigprocmask(SIG_BLOCK, &signals, &mask);
    if (mkdtemp(path.data()) == nullptr) {
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        throw Stop{2, path + ": cannot be made"};
    }
}

WorkFolder::~WorkFolder() {
    std::error_code ignored; // what cannot be removed stays
    fs::remove_all(path, ignored);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
}

int TakeSignal(long milliseconds) {
    const sigset_t signals = EndingSignals();
    const timespec time = {0, milliseconds * 1000000};
    return std::max(sigtimedwait(&signals, nullptr, &time), 0);
}

void StopIfInterrupted() {
    const int number = TakeSignal(0);
    if (number != 0) {
        throw Stop{128 + number, "interrupted"};
    }
}
