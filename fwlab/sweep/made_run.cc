// Makes runs of the tool, and keeps apart what the tool and what this machine has done.
#include "fwlab/sweep/made_run.h"

#include "fwlab/base/stop.h"
#include "fwlab/base/work_folder.h"
#include "simphone/files.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fmt/format.h>

namespace fs = std::filesystem;

namespace {

// Signals that no tool sends itself.
bool IsFromOutside(int signal) {
    const int signals[] = {SIGTERM, SIGINT, SIGQUIT, SIGHUP};
    return std::count(std::begin(signals), std::end(signals), signal) > 0;
}

} // namespace

MadeRun MakeRun(const Phone& phone, const std::string& tool, const std::string& phoneLibrary,
                const std::vector<Fault>& faults) {
    RunOptions options;
    options.libsimphone = phoneLibrary;
    options.faults = faults;
    for (Fault& fault : options.faults) {
        fault.losses.clear();
    }
    MadeRun made = {faults, {}, ReadStateDirectory(phone.directory), {}};
    made.run = RunTool(phone, tool, options);
    if (!made.run.error.empty() || IsFromOutside(made.run.signal)) {
        StopIfInterrupted(); // a terminal interrupts the tool as well
        throw Stop{2, !made.run.error.empty()
                          ? made.run.error
                          : fmt::format("signal {} has ended a run of the tool, and no fault has "
                                        "sent it",
                                        made.run.signal)};
    }
    made.after = ReadStateDirectory(phone.directory);
    return made;
}

void LoseUnsynced(const Phone& phone, const MadeRun& made) {
    const auto cut = std::find_if(made.faults.begin(), made.faults.end(),
                                  [](const Fault& fault) { return !fault.losses.empty(); });
    if (cut == made.faults.end()) {
        return;
    }
    StateDirectory left;
    if (!Lose(made.before, made.after, made.run.calls, cut->losses, left)) {
        throw Stop{2, fmt::format("fault \"{}\": the cut cannot leave that", FaultText(*cut))};
    }
    PutState(phone, left);
}

bool IsPowerCut(const Fault& fault) {
    return fault.effect == Effect::ENDS || fault.effect == Effect::TORN;
}

std::string TakenImage(const Phone& phone) {
    const std::string file = phone.directory + "/device/downloaded.bin";
    std::string image;
    if (fs::exists(phone.directory + "/device/pending") && !ReadWholeFile(file, image)) {
        throw FailureAt(file, errno);
    }
    return image;
}

void PutState(const Phone& phone, const StateDirectory& state) {
    if (!WriteStateDirectory(phone.directory, state)) {
        throw FailureAt(phone.directory + ": the state directory", errno);
    }
}
