// Holds what power cuts left on real file systems against what the simulated phone says that they
// can leave. Called by bench/power-cuts.
//   survivals PHONE   PHONE: a simulated phone as it was before the run
// Reads lines "FROM TO PHONE": what a cut between these two moments of the run left
// (bench/disk-states) is in this phone's directory. Prints the lines that the simulation does not
// allow. Then, for each pair of moments, file and loss that the simulation allows there, in how
// many lines it was seen. Exit status 0: all are allowed; 1: not all; 2: an error.
#include "simphone/phone.h"
#include "simphone/power_loss.h"
#include "simphone/tool_run.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <set>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string STATE_DIR = "/data/vendor/fw/";
const std::string TRIGGER_FILE = "/splash2/test_ffu_trigger.tmp";

[[noreturn]] void Stop(const std::string& text) {
    std::cerr << "survivals: " << text << "\n";
    exit(2);
}

// Calls are counted from 1. The power fails before call `first`, or any later one up to `last`.
struct Cut {
    long first, last;
    std::vector<Survival> survivals; // that the simulation allows
};

// Times differ from run to run: each line that tells one, or the beginning of one.
StateDirectory WithoutTimes(StateDirectory state) {
    for (auto& [name, content] : state.files) {
        std::istringstream lines(name == "ufs_fw_body.bin" ? "" : content);
        size_t at = 0;
        for (std::string line; std::getline(lines, line); at += line.size() + 1) {
            if (line.rfind("product name:", 0) != 0) {
                content.replace(at, line.size(), line.size(), 'T');
            }
        }
    }
    return state;
}

// The run on a copy of the phone.
RunResult Run(const std::string& phone, const std::string& copy, const std::vector<Fault>& faults) {
    fs::remove_all(copy);
    fs::copy(phone, copy, fs::copy_options::recursive);
    return RunTool(OpenPhone(copy), Companion("ffu"), {faults, {}, "", 60});
}

// All that the simulation allows: for each stretch of calls without a change, and for writes to the
// record and the flags that are torn after each of their bytes.
std::vector<Cut> AllCuts(const std::string& phone, const std::string& copy,
                         const std::vector<CallEntry>& calls) {
    static const std::set<std::string> changing = {"mkdir",  "open",   "creat", "write",
                                                   "remove", "unlink", "fsync"};
    std::vector<Cut> cuts;
    const auto add = [&](long first, long last, const std::vector<Fault>& faults) {
        const RunResult run = Run(phone, copy, faults);
        cuts.push_back({first, last, Survivals(run.before, run.after, run.calls)});
        for (Survival& survival : cuts.back().survivals) {
            survival.state = WithoutTimes(survival.state);
        }
    };
    long first = 1;
    for (const CallEntry& call : calls) {
        const long number = call.number;
        if ((call.path + "/").rfind(STATE_DIR, 0) != 0 || !call.error.empty() ||
            changing.count(call.function) == 0) {
            continue;
        }
        add(first, number, {{"any", "", number, number, Effect::ENDS}});
        first = number + 1;
        const bool isTorn = call.function == "write" && call.path.rfind(STATE_DIR + "f", 0) == 0;
        for (long count = 1; isTorn && count < std::stol(call.result); count++) {
            add(number, number, {{"any", "", number, number, Effect::TORN, count}});
        }
    }
    add(first, static_cast<long>(calls.size()) + 1, {});
    return cuts;
}

// The first and the last call at which the power can have failed, if a moment has passed, and if it
// has not. The power fails "before" a call while it is under way, too.
struct Limits {
    long passed, ahead;
};
Limits LimitsOf(const std::string& moment, const std::vector<CallEntry>& calls) {
    const long end = static_cast<long>(calls.size()) + 1;
    long sync = 0, request = end, written = 0, triggered = 0;
    for (const CallEntry& call : calls) {
        const bool isTrigger = call.path == TRIGGER_FILE, isSync = call.function == "fsync";
        request = call.request ? std::min(request, call.number) : request;
        sync = isSync && call.path == STATE_DIR + "fw_result" ? call.number : sync;
        triggered = isSync && isTrigger ? call.number : triggered;
        written = call.function == "write" && isTrigger ? call.number : written;
    }
    const std::map<std::string, Limits> limits = {{"run", {1, 1}},
                                                  {"synced", {sync + 1, sync}},
                                                  {"request", {request, request}},
                                                  {"triggered", {written, triggered}},
                                                  {"end", {end, end}}};
    const auto found = limits.find(moment);
    if (found == limits.end() || found->second.ahead == 0) {
        Stop("the run has no such moment: " + moment);
    }
    return found->second;
}

// Whether one of the cuts between the two moments leaves this state. Counts in `seen`, by moments,
// file and loss, what was lost where it does.
bool IsAllowed(const StateDirectory& state, const std::string& from, const std::string& to,
               const std::vector<CallEntry>& calls, const std::vector<Cut>& cuts,
               std::map<std::string, long>& seen) {
    const long first = LimitsOf(from, calls).passed, last = LimitsOf(to, calls).ahead;
    bool isAllowed = false;
    for (const Cut& cut : cuts) {
        if (cut.first > last || cut.last < first) {
            continue;
        }
        for (const auto& [losses, left] : cut.survivals) {
            const bool isThis = left == state;
            isAllowed |= isThis;
            for (const auto& [name, loss] : losses) {
                const std::string word = LossText({{name, loss}});
                seen[from + " to " + to + "\t" + name + "\t" + word] += isThis;
            }
        }
    }
    return isAllowed;
}

} // namespace

// An exception ends the program with its text, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    std::string folder = fs::temp_directory_path() / "ffu-survivals.XXXXXX";
    if (argc != 2 || mkdtemp(folder.data()) == nullptr) {
        Stop(argc != 2 ? "usage: survivals PHONE" : "no temporary folder");
    }
    const std::string copy = folder + "/phone";
    const std::vector<CallEntry> calls = Run(argv[1], copy, {}).calls;
    const std::vector<Cut> cuts = AllCuts(argv[1], copy, calls);
    fs::remove_all(folder);

    int status = 0;
    std::map<std::string, long> seen;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string from, to, survivor;
        words >> from >> to >> survivor;
        const StateDirectory state = WithoutTimes(ReadStateDirectory(survivor));
        if (!IsAllowed(state, from, to, calls, cuts, seen)) {
            std::cout << "the simulation does not allow: " << line;
            for (const auto& [name, content] : state.files) {
                std::cout << " " << name << "(" << content.size() << ")";
            }
            std::cout << "\n";
            status = 1;
        }
    }
    for (const auto& [what, number] : seen) {
        std::cout << what << "\t" << number << "\n";
    }
    return status;
}
