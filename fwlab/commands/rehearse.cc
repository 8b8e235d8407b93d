// Runs the unmodified tool on a simulated phone with a package and checks the result. The phone is
// a directory, which is removed unless the user keeps it.
#include "emmc/emmc_register.h"
#include "fwlab/base/json.h"
#include "fwlab/base/output.h"
#include "fwlab/base/work_folder.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/decision.h"
#include "fwlab/phone/pulled_state.h"
#include "fwlab/phone/state_directory.h"
#include "fwlab/sweep/judge.h"
#include "fwlab/sweep/made_run.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "simphone/files.h"
#include "simphone/phone.h"
#include "simphone/show.h"
#include "simphone/text.h"
#include "simphone/tool_run.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <regex>

namespace fs = std::filesystem;

namespace {

std::string Content(const std::string& file) {
    std::string content;
    return ReadWholeFile(file, content) ? content : "";
}

// A console line of one character of an identity, or of one byte of a command.
bool IsOfOneCharacter(const TimeLineEntry& entry) {
    static const std::regex messages(
        "(PrintCid|PrintChar|sg_ll_write_buffer_v2),line=(154|65|159)");
    return std::regex_search(entry.text, messages);
}

// The steps of a rehearsal: printed as they come for people, or kept for programs.
struct Report {
    bool asJson, quiet;
    Json json;
    Course course = {}; // of the runs so far

    template <typename... Values> void Say(const char* format, const Values&... values) const {
        if (!asJson) {
            fmt::print(fmt::runtime(format), values...);
        }
    }
};

// Both logs and the device's requests, in the order in which they came.
void TellTimeLine(const RunResult& run, Report& report) {
    Json& lines = report.json["runs"].back()["time_line"] = Json::array();
    for (const TimeLineEntry& entry : TimeLine(run)) {
        if (!report.quiet || !IsOfOneCharacter(entry)) {
            lines.push_back({{"source", entry.source}, {"text", entry.text}});
            report.Say("{:<8}| {}\n", entry.source, entry.text);
        }
    }
}

Texts TextsOf(const std::vector<Fault>& faults) {
    Texts texts;
    std::transform(faults.begin(), faults.end(), std::back_inserter(texts), FaultText);
    return texts;
}

// The end of the run, for people.
std::string EndOf(const RunResult& run) {
    return fmt::format("{} {}{}", run.signal != 0 ? "signal" : "exit status",
                       run.signal != 0 ? run.signal : run.exitStatus,
                       run.timedOut ? ": it took too long" : "");
}

void RequireMet(const RunResult& run) {
    if (!run.unmetFaults.empty()) {
        throw Stop{2, fmt::format("{} met no call of the run: {}",
                                  run.unmetFaults.size() == 1 ? "this fault" : "these faults",
                                  fmt::join(TextsOf(run.unmetFaults), "; "))};
    }
}

RunResult Run(const std::vector<Fault>& faults, const Phone& phone, Report& report) {
    RunResult run = MakeRun(phone, Companion("ffu"), "", faults);
    StopIfInterrupted();
    report.json["runs"].push_back({{"faults", TextsOf(faults)},
                                   {"exit_status", run.exitStatus},
                                   {"signal", run.signal},
                                   {"timed_out", run.timedOut}});
    TellTimeLine(run, report);
    RequireMet(run);
    report.Say("\nThe run ended with {}.\n", EndOf(run));
    report.Say("{}", ShowPhone(phone));
    const StateReport state = ReadState(phone.directory + STATE_DIR);
    report.Say("{}\n", Sentence(state));
    report.json["runs"].back()["state"] = WordOf(state.verdict);
    return run;
}

// The same run without any fault, on a phone of its own.
RunResult RunWithoutFaults(const StateDirectory& before, const RehearseOptions& options) {
    Texts settings = options.settings;
    settings.emplace_back("faults=[]");
    const WorkFolder folder;
    const Phone phone = {folder.path + "/phone", ReadPhone(options.phone, settings)};
    std::string error;
    if (!MakePhone(phone.description, phone.directory, error) ||
        !PutPackage(phone, options.package, error)) {
        throw Stop{2, error};
    }
    PutState(phone, before);
    return MakeRun(phone, Companion("ffu"), "", {});
}

// Asks the judge of sweeps about the next run before a restart.
void TellViolations(const RunResult& run, std::vector<Fault> faults, const Phone& phone,
                    const RehearseOptions& options, Report& report) {
    const std::vector<Fault>& own = phone.description.faults; // of every run
    faults.insert(faults.end(), own.begin(), own.end());
    const bool isFirst = report.json["runs"].size() == 1;
    const RunResult base = faults.empty() ? run : RunWithoutFaults(run.before, options);
    report.course = isFirst ? CourseBefore(base) : report.course;
    for (const Wrong wrong : WrongsOf(run, faults, &base, report.course)) {
        report.json["violations"].push_back({{"run", report.json["runs"].size()},
                                             {"kind", NameOf(wrong)},
                                             {"text", SentenceOf(wrong)}});
        report.Say("VIOLATION: {}\n", SentenceOf(wrong));
    }
}

void Reboot(const Phone& phone) {
    std::string error;
    if (!RebootPhone(phone, error)) {
        throw Stop{2, error};
    }
}

// What the phone that has restarted runs.
struct Running {
    std::string revision, image; // the image is empty if no run has downloaded one
};

Running ReadRunning(const std::string& phone, const Layout& layout) {
    const size_t size = layout.revision.size;
    return {&layout == &UFS
                ? Content(phone + "/proc/bootdevice/rev").substr(0, size)
                : Content(phone + "/device/ext_csd.bin").substr(EXT_CSD_FIRMWARE_VERSION, size),
            Content(phone + "/device/running.bin")};
}

// Returns whether the phone reports the revision of the entry that it took; also if it took none.
bool TellRunning(const Running& running, const Package& package, const Decision& decision,
                 Report& report) {
    const bool isSent = IsSent(package, decision, running.image);
    const Entry* entry = decision.sent != nullptr ? decision.sent : decision.PreCheck();
    report.json["revision"] = Escaped(running.revision);
    report.json["downloaded_bytes"] = running.image.size();
    report.json["is_entry"] = isSent;
    report.Say("After a restart the phone runs {}, from {} bytes that were downloaded: {}{}.\n",
               Quoted(running.revision), running.image.size(), isSent ? "" : "NOT ",
               entry == nullptr ? "an entry for it" : Title(*entry));
    const std::string own = isSent ? Get(entry->identity, package.layout->revision) : "";
    const bool isReported = !isSent || running.revision == own;
    report.json["reports_revision_of_entry"] = isReported;
    if (!isReported) {
        report.Say("Its revision is the description's [firmware] revision, but the entry has {}. "
                   "If the image reports that, correct the description.\n",
                   Quoted(own));
    }
    return isReported;
}

// Whether another run, without the faults of the first, leaves the phone alone.
bool FindsNothingToDo(const Phone& phone, Report& report) {
    const std::string& directory = phone.directory;
    const std::string record = Content(directory + RESULT_FILE);
    report.Say("\nThe second run:\n");
    (void)Run({}, phone, report); // what it leaves is looked at below
    const bool isQuiet = Content(directory + RESULT_FILE) == record &&
                         fs::exists(directory + END_FLAG) && !fs::exists(directory + BEGIN_FLAG);
    report.json["second_run_is_quiet"] = isQuiet;
    report.Say("The second run {} nothing to do.\n", isQuiet ? "found" : "did NOT find");
    return isQuiet;
}

// The faults of each run before the restart.
using Faults = std::vector<std::vector<Fault>>;

Fault ParsedFault(const std::string& text) {
    Fault fault;
    std::string error;
    if (!ParseFault(text, fault, error)) {
        throw Stop{2, error};
    }
    return fault;
}

Faults ParsedFaults(const RehearseOptions& options) {
    Faults faults(1 + options.then.size());
    for (const std::string& text : options.faults) {
        faults[0].push_back(ParsedFault(text));
    }
    for (size_t i = 0; i < options.then.size(); i++) {
        if (!options.then[i].empty()) {
            faults[i + 1].push_back(ParsedFault(options.then[i]));
        }
    }
    return faults;
}

// The runs before the restart; returns the last one.
RunResult RunAll(const Phone& phone, const Faults& faults, const RehearseOptions& options,
                 Report& report) {
    RunResult run = {};
    for (size_t i = 0; i < faults.size(); i++) {
        if (i > 0) {
            report.Say("\nRun {}, without a restart:\n", i + 1);
        }
        run = Run(faults[i], phone, report);
        TellViolations(run, faults[i], phone, options, report);
    }
    return run;
}

// Makes the phone in an empty or missing folder, runs the tool on it and tells what becomes of it.
// Returns the exit status.
int RehearseIn(const Phone& phone, const RehearseOptions& options, const Faults& faults,
               const Package& package, Report& report) {
    std::string error;
    if (!MakePhone(phone.description, phone.directory, error) ||
        !PutPackage(phone, options.package, error)) {
        throw Stop{2, error};
    }
    const StateDirectory before = options.state.value_or(StateDirectory{});
    PutState(phone, before);
    const Decision decision = Decide(package, DeviceOf(phone.description), before);
    const auto judge = [&](const Running& running) {
        return Judge(package, decision, running.image, before, ReadStateDirectory(phone.directory));
    };
    report.Say("{}\n", ShowPhone(phone));
    const RunResult run = RunAll(phone, faults, options, report);
    Reboot(phone);
    const Running running = ReadRunning(phone.directory, *package.layout);
    const bool isReported = TellRunning(running, package, decision, report);
    bool isQuiet = true;
    Verdict verdict = judge(running);
    if (options.runAgain) {
        isQuiet = FindsNothingToDo(phone, report);
        Reboot(phone);
        verdict = Judge(verdict, judge(ReadRunning(phone.directory, *package.layout)));
    }
    const bool isUpdated = verdict == Verdict::UPDATED;
    report.json["answer"] = WordOf(verdict);
    report.json["updated"] = isUpdated;
    report.Say("The phone is {}updated{}.\n", isUpdated ? "" : "NOT ",
               !isUpdated    ? fmt::format(": {}: {}", WordOf(verdict), SentenceOf(verdict))
               : !isReported ? ", but it reports another revision than the entry's"
               : !isQuiet    ? ", but the second run did not find nothing to do"
               : run.signal != 0 || run.exitStatus != 0
                   ? fmt::format(", though the {} run ended with {}",
                                 faults.size() > 1 ? "last" : "first", EndOf(run))
                   : "");
    const bool isFine = isReported && isQuiet && report.json["violations"].empty();
    return isUpdated && isFine ? 0 : 1;
}

} // namespace

int Rehearse(const RehearseOptions& options, bool asJson) {
    const Faults faults = ParsedFaults(options); // before anything is made
    Phone phone = {"", ReadPhone(options.phone, options.settings)};
    const Device device = DeviceOf(phone.description);
    const Package package = OpenPackage(options.package, device.identity.layout);
    Report report = {
        asJson, options.quiet, {{"runs", Json::array()}, {"violations", Json::array()}}};
    int status = 0;
    const auto rehearse = [&](const std::string& directory) {
        phone.directory = directory;
        status = RehearseIn(phone, options, faults, package, report);
    };
    if (options.keep.empty()) {
        const WorkFolder folder;
        rehearse(folder.path + "/phone");
    } else {
        MakeFolder(options.keep, rehearse);
    }
    if (asJson) {
        fmt::print("{}\n", report.json.dump(2));
    }
    return status;
}
