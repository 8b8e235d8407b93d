// Holds what power cuts left on real file systems against what the simulated phone says that they
// can leave. Called by bench/power-cuts.
//   survivals PHONE   PHONE: a simulated phone as it was before the run
// Reads lines "FROM TO PHONE": what a cut between these two moments of the run left
// (bench/disk-states) is in this phone's directory. Prints the lines that the simulation does not
// allow. Then, for each pair of moments and each file, what the simulation allows there, and in how
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
    size_t first, last;
    std::vector<StateDirectory> states; // that the simulation allows
};

struct Survivor {
    std::string line, moments;
    size_t first, last; // as for a cut
    StateDirectory state;
};

// Times differ from run to run: each line that tells one, or the beginning of one.
StateDirectory WithoutTimes(StateDirectory state) {
    for (auto& [name, content] : state.files) {
        if (name != "fw_result" && name.rfind("ffu.", 0) != 0) {
            continue;
        }
        std::istringstream lines(content);
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
    Phone opened;
    std::string error;
    if (!OpenPhone(copy, opened, error)) {
        Stop(error);
    }
    RunOptions options;
    options.faults = faults;
    RunResult run = RunTool(opened, Companion("ffu"), options);
    if (!run.error.empty()) {
        Stop(run.error);
    }
    return run;
}

bool Changes(const CallEntry& call) {
    static const char* const functions[] = {"mkdir",  "open",   "creat", "write",
                                            "remove", "unlink", "fsync"};
    return (call.path + "/").rfind(STATE_DIR, 0) == 0 && call.error.empty() &&
           std::find(std::begin(functions), std::end(functions), call.function) !=
               std::end(functions);
}

// How many bytes of a write survive where it is torn: as many as in a survivor; else half of them.
std::set<size_t> TornSizes(const CallEntry& write, const StateDirectory& before,
                           const std::vector<Survivor>& survivors) {
    const auto size = std::stoul(write.result);
    const std::string name = fs::path(write.path).filename();
    std::set<size_t> sizes = {size / 2};
    const auto old = before.files.find(name);
    for (const Survivor& survivor : survivors) {
        const auto file = survivor.state.files.find(name);
        if (file != survivor.state.files.end()) {
            const size_t kept = old == before.files.end() ? 0 : old->second.size();
            sizes.insert(file->second.size() - std::min(kept, file->second.size()));
        }
    }
    sizes.erase(0);
    sizes.erase(sizes.lower_bound(size), sizes.end());
    return sizes;
}

// All that the simulation allows: for each stretch of calls without a change, and for torn writes.
std::vector<Cut> AllCuts(const std::string& phone, const std::string& copy,
                         const std::vector<CallEntry>& calls,
                         const std::vector<Survivor>& survivors) {
    const StateDirectory before = ReadStateDirectory(phone);
    std::vector<Cut> cuts;
    const auto add = [&](size_t first, size_t last, const std::vector<Fault>& faults) {
        if (std::none_of(survivors.begin(), survivors.end(), [&](const Survivor& survivor) {
                return survivor.first <= last && survivor.last >= first;
            })) {
            return;
        }
        const RunResult run = Run(phone, copy, faults);
        Cut cut = {first, last, {}};
        for (const Survival& survival : Survivals(before, ReadStateDirectory(copy), run.calls)) {
            cut.states.push_back(WithoutTimes(survival.state));
        }
        cuts.push_back(cut);
    };
    size_t first = 1;
    for (size_t i = 1; i <= calls.size(); i++) {
        const CallEntry& call = calls[i - 1];
        if (!Changes(call)) {
            continue;
        }
        const auto number = static_cast<long>(i);
        add(first, i, {{"any", "", number, number, Effect::ENDS}});
        first = i + 1;
        if (call.function == "write") {
            for (const size_t size : TornSizes(call, before, survivors)) {
                add(i, i, {{"any", "", number, number, Effect::TORN, static_cast<long>(size)}});
            }
        }
    }
    add(first, calls.size() + 1, {});
    return cuts;
}

// The first and the last call at which the power can have failed, if a moment has passed, and if it
// has not. The power fails "before" a call while it is under way, too.
struct Limits {
    size_t passed, ahead;
};
Limits LimitsOf(const std::string& moment, const std::vector<CallEntry>& calls) {
    const auto number = [&](auto matches, bool isLast) {
        size_t found = 0;
        for (size_t i = calls.size(); i > 0 && (found == 0 || !isLast); i--) {
            found = matches(calls[i - 1]) ? i : found;
        }
        return found != 0 ? found : (Stop("the run has no such moment: " + moment), 0);
    };
    const auto is = [](const char* function, const std::string& path) {
        return
            [=](const CallEntry& call) { return call.function == function && call.path == path; };
    };
    if (moment == "run") {
        return {1, 1};
    }
    if (moment == "synced") {
        const size_t sync = number(is("fsync", STATE_DIR + "fw_result"), true);
        return {sync + 1, sync};
    }
    if (moment == "request") {
        const size_t request =
            number([](const CallEntry& call) { return call.request.has_value(); }, false);
        return {request, request};
    }
    if (moment == "triggered") {
        return {number(is("write", TRIGGER_FILE), true), number(is("fsync", TRIGGER_FILE), true)};
    }
    if (moment != "end") {
        Stop("no such moment: " + moment);
    }
    return {calls.size() + 1, calls.size() + 1};
}

// What has become of a file, as the table has it.
std::string FateOf(const StateDirectory& state, const StateDirectory& before,
                   const StateDirectory& whole, const std::string& name) {
    const auto found = state.files.find(name);
    const auto old = before.files.find(name), full = whole.files.find(name);
    if (found == state.files.end()) {
        return !state.isThere ? "missing, with its directory" : "missing";
    }
    if (found->second.empty()) {
        return "empty";
    }
    if (full != whole.files.end() && found->second == full->second) {
        return "whole";
    }
    return old != before.files.end() && found->second == old->second ? "as before"
                                                                     : "in part, or zeros";
}

std::vector<Survivor> ReadSurvivors(const std::vector<CallEntry>& calls) {
    std::vector<Survivor> survivors;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string from, to, phone;
        words >> from >> to >> phone;
        survivors.push_back({line, from + " to " + to, LimitsOf(from, calls).passed,
                             LimitsOf(to, calls).ahead, WithoutTimes(ReadStateDirectory(phone))});
    }
    return survivors;
}

// Each file at its longest.
StateDirectory WholeFiles(StateDirectory whole, const std::vector<Cut>& cuts) {
    for (const Cut& cut : cuts) {
        for (const StateDirectory& state : cut.states) {
            for (const auto& [name, content] : state.files) {
                std::string& longest = whole.files[name];
                longest = longest.size() < content.size() ? content : longest;
            }
        }
    }
    return whole;
}

// A line for each pair of moments, file and fate: in how many survivors it was seen.
void PrintFates(const StateDirectory& before, const std::vector<Cut>& cuts,
                const std::vector<Survivor>& survivors) {
    const StateDirectory whole = WholeFiles(before, cuts);
    std::map<std::string, long> seen;
    const auto count = [&](const std::string& moments, const StateDirectory& state, long number) {
        for (const auto& file : whole.files) {
            const std::string fate = FateOf(state, before, whole, file.first);
            seen[moments + "\t" + file.first + "\t" + fate] += number;
        }
    };
    for (const Survivor& survivor : survivors) {
        count(survivor.moments, survivor.state, 1);
        for (const Cut& cut : cuts) {
            for (const StateDirectory& state : cut.states) {
                if (cut.first <= survivor.last && cut.last >= survivor.first) {
                    count(survivor.moments, state, 0);
                }
            }
        }
    }
    for (const auto& [what, number] : seen) {
        std::cout << what << "\t" << number << "\n";
    }
}

} // namespace

// An exception ends the program with its text, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    if (argc != 2) {
        Stop("usage: survivals PHONE");
    }
    const std::string phone = argv[1];
    std::string folder = fs::temp_directory_path() / "ffu-survivals.XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        Stop("no temporary folder");
    }
    const std::string copy = folder + "/phone";
    const std::vector<CallEntry> calls = Run(phone, copy, {}).calls;
    const std::vector<Survivor> survivors = ReadSurvivors(calls);
    const std::vector<Cut> cuts = AllCuts(phone, copy, calls, survivors);
    fs::remove_all(folder);

    int status = 0;
    for (const Survivor& survivor : survivors) {
        if (std::none_of(cuts.begin(), cuts.end(), [&](const Cut& cut) {
                return cut.first <= survivor.last && cut.last >= survivor.first &&
                       std::find(cut.states.begin(), cut.states.end(), survivor.state) !=
                           cut.states.end();
            })) {
            std::cout << "the simulation does not allow: " << survivor.line;
            for (const auto& [name, content] : survivor.state.files) {
                std::cout << " " << name << "(" << content.size() << ")";
            }
            std::cout << "\n";
            status = 1;
        }
    }
    PrintFates(WithoutTimes(ReadStateDirectory(phone)), cuts, survivors);
    return status;
}
