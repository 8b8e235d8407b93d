// Makes runs of the tool; a failure of this machine is never told as the tool's.
#include "fwlab/sweep/made_run.h"

#include "fwlab/base/stop.h"
#include "fwlab/base/work_folder.h"
#include "simphone/files.h"

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

RunResult MakeRun(const Phone& phone, const std::string& tool, const std::string& phoneLibrary,
                  const std::vector<Fault>& faults) {
    RunOptions options;
    options.libsimphone = phoneLibrary;
    options.faults = faults;
    RunResult run = RunTool(phone, tool, options);
    if (!run.error.empty()) {
        StopIfInterrupted(); // a terminal interrupts the tool as well
        throw Stop{2, run.error};
    }
    return run;
}

std::string TakenImage(const Phone& phone) {
    const std::string file = phone.directory + "/device/downloaded.bin";
    return fs::exists(phone.directory + "/device/pending") ? WholeFile(file) : "";
}

void PutState(const Phone& phone, const StateDirectory& state) {
    if (!WriteStateDirectory(phone.directory, state)) {
        throw FailureAt(phone.directory + ": the state directory", errno);
    }
}
