// Makes runs of the tool; a failure of this machine is never told as the tool's.
#include "fwlab/sweep/made_run.h"

#include "fwlab/base/work_folder.h"
#include "simphone/files.h"

#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

RunResult MakeRun(const Phone& phone, const std::string& tool, const std::string& phoneLibrary,
                  const std::vector<Fault>& faults) {
    RunOptions options;
    options.libsimphone = phoneLibrary;
    options.faults = faults;
    try {
        return RunTool(phone, tool, options);
    } catch (const std::runtime_error&) {
        StopIfInterrupted(); // a terminal interrupts the tool as well
        throw;
    }
}

std::string TakenImage(const Phone& phone) {
    const std::string file = phone.directory + "/device/downloaded.bin";
    return fs::exists(phone.directory + "/device/pending") ? WholeFile(file) : "";
}
