#include "fwlab/base/work_folder.h"

#include "fwlab/base/stop.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

sigset_t EndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
        sigaddset(&signals, number);
    }
    return signals;
}

} // namespace

WorkFolder::WorkFolder() : WorkFolder(fs::temp_directory_path() / "fwlab-") {
}

WorkFolder::WorkFolder(const std::string& begin) : path(begin + "XXXXXX"), mask() {
    const sigset_t signals = EndingSignals();
    sigprocmask(SIG_BLOCK, &signals, &mask);
    if (mkdtemp(path.data()) == nullptr) {
        throw FailureAt(path, errno); // which ends the command
    }
}

WorkFolder::~WorkFolder() {
    std::error_code ignored; // what cannot be removed stays
    fs::remove_all(path, ignored);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
}

int TakeSignal() {
    const sigset_t signals = EndingSignals();
    const timespec noTime = {};
    return std::max(sigtimedwait(&signals, nullptr, &noTime), 0);
}

void StopIfInterrupted() {
    const int number = TakeSignal();
    Require(number == 0, 128 + number, "interrupted");
}
