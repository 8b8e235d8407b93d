// Runs the unmodified tool on a simulated phone with a package and checks the result. The phone is
// a directory, which is removed unless the user keeps it.
#include "emmc/emmc_register.h"
#include "fwlab/base/json.h"
#include "fwlab/base/output.h"
#include "fwlab/base/work_folder.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/decision.h"
#include "fwlab/phone/state_directory.h"
#include "fwlab/sweep/judge.h"
#include "fwlab/sweep/made_run.h"
#include "run/state_flags.h"
#include "simphone/files.h"
#include "simphone/phone.h"
#include "simphone/show.h"
#include "simphone/text.h"
#include "simphone/tool_run.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

// A console line of one character of an identity, or of one byte of a command.
bool IsOfOneCharacter(const TimeLineEntry& entry) {
    const char* const messages[] = {
        "PrintCid,line=154:", "PrintChar,line=65:", "sg_ll_write_buffer_v2,line=159:"};
    return std::any_of(std::begin(messages), std::end(messages), [&](const char* message) {
        return entry.text.find(message) != std::string::npos;
    });
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

RunResult Run(const std::vector<Fault>& faults, const Phone& phone, Report& report) {
    RunResult run = MakeRun(phone, Companion("ffu"), "", faults);
    StopIfInterrupted();
    report.json["runs"].push_back({{"faults", TextsOf(faults)},
                                   {"exit_status", run.exitStatus},
                                   {"signal", run.signal},
                                   {"timed_out", run.timedOut}});
    TellTimeLine(run, report);
    Require(run.unmetFaults.empty(), 2,
            fmt::format("faults that met no call of the run: {}",
                        fmt::join(TextsOf(run.unmetFaults), "; ")));
    report.Say("\nThe run ended with {}.\n", EndOf(run));
    report.Say("{}", ShowPhone(phone));
    const StateReport state = ReadState(phone.directory + STATE_DIR);
    report.Say("{}\n", Sentence(state));
    report.json["runs"].back()["state"] = WordOf(state.verdict);
    return run;
}

// Makes the phone in an empty or missing folder, with the package and what runs have left.
void Make(const Phone& phone, const std::string& package, const StateDirectory& state) {
    MakePhone(phone);
    PutPackage(phone, package);
    WriteStateDirectory(phone.directory, state);
}

// The same run without any fault, on a phone of its own.
RunResult RunWithoutFaults(const StateDirectory& before, const RehearseOptions& options) {
    Texts settings = options.settings;
    settings.emplace_back("faults=[]");
    const WorkFolder folder;
    const Phone phone = {folder.path + "/phone", ReadDescription(options.phone, settings)};
    Make(phone, options.package, before);
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

// Restarts the phone, which then runs `image` or, if it is empty, what it was made with. Returns
// whether the phone reports the revision of the entry that it took; also if it took none.
bool TellRestart(const Phone& phone, const std::string& image, const Package& package,
                 const Decision& decision, Report& report) {
    RebootPhone(phone);
    const size_t size = package.layout->revision.size;
    const std::string revision =
        phone.description.ufs ? WholeFile(phone.directory + "/proc/bootdevice/rev").substr(0, size)
                              : WholeFile(phone.directory + "/device/ext_csd.bin")
                                    .substr(EXT_CSD_FIRMWARE_VERSION, size);
    const bool isSent = IsSent(decision, image);
    const Entry* entry = decision.sent != nullptr ? decision.sent : decision.PreCheck();
    report.json["revision"] = Escaped(revision);
    report.json["downloaded_bytes"] = image.size();
    report.json["is_entry"] = isSent;
    report.Say("After a restart the phone runs {}, from {} bytes that were downloaded: {}{}.\n",
               Quoted(revision), image.size(), isSent ? "" : "NOT ",
               entry == nullptr ? "an entry for it" : Title(*entry));
    const std::string own = isSent ? Get(entry->identity, package.layout->revision) : "";
    const bool isReported = !isSent || revision == own;
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
    report.Say("\nThe second run:\n");
    const RunResult run = Run({}, phone, report);
    const bool isQuiet = RecordIn(run.before) == RecordIn(run.after) &&
                         ReadState(phone.directory + STATE_DIR).lastRun == LastRun::REGULAR;
    report.json["second_run_is_quiet"] = isQuiet;
    report.Say("The second run {} nothing to do.\n", isQuiet ? "found" : "did NOT find");
    return isQuiet;
}

// Makes the phone in an empty or missing folder, runs the tool on it and tells what becomes of it.
// Returns the exit status.
int RehearseIn(const Phone& phone, const RehearseOptions& options, const Package& package,
               Report& report) {
    const auto& faults = options.faults;
    const StateDirectory before = options.state.value_or(StateDirectory{});
    Make(phone, options.package, before);
    const Decision decision = Decide(package, DeviceOf(phone.description), before);
    report.Say("{}\n", ShowPhone(phone));
    RunResult last;
    for (size_t i = 0; i < faults.size(); i++) {
        if (i > 0) {
            report.Say("\nRun {}, without a restart:\n", i + 1);
        }
        last = Run(faults[i], phone, report);
        TellViolations(last, faults[i], phone, options, report);
    }
    std::string image = TakenImage(phone);
    const auto judge = [&] {
        return Judge(decision, image, before, ReadStateDirectory(phone.directory));
    };
    Verdict verdict = judge();
    const bool isReported = TellRestart(phone, image, package, decision, report);
    bool isQuiet = true;
    if (options.runAgain) {
        isQuiet = FindsNothingToDo(phone, report);
        const std::string next = TakenImage(phone);
        image = next.empty() ? image : next;
        RebootPhone(phone);
        verdict = Judge(verdict, judge());
    }
    const bool isUpdated = verdict == Verdict::UPDATED;
    report.json["answer"] = WordOf(verdict);
    report.json["updated"] = isUpdated;
    report.Say("The phone is {}updated{}.\n", isUpdated ? "" : "NOT ",
               !isUpdated    ? fmt::format(": {}: {}", WordOf(verdict), SentenceOf(verdict))
               : !isReported ? ", but it reports another revision than the entry's"
               : !isQuiet    ? ", but the second run did not find nothing to do"
               : last.signal != 0 || last.exitStatus != 0
                   ? fmt::format(", though the {} run ended with {}",
                                 faults.size() > 1 ? "last" : "first", EndOf(last))
                   : "");
    const bool isFine = isReported && isQuiet && report.json["violations"].empty();
    return isUpdated && isFine ? 0 : 1;
}

} // namespace

int Rehearse(const RehearseOptions& options, bool asJson) {
    Phone phone = {"", ReadDescription(options.phone, options.settings)};
    const Device device = DeviceOf(phone.description);
    const Package package = OpenPackage(options.package, device.identity.layout);
    Report report = {
        asJson, options.quiet, {{"runs", Json::array()}, {"violations", Json::array()}}};
    int status = 0;
    const auto rehearse = [&](const std::string& directory) {
        phone.directory = directory;
        status = RehearseIn(phone, options, package, report);
    };
    if (options.keep.empty()) {
        const WorkFolder folder;
        rehearse(folder.path + "/phone");
    } else {
        MakeFolder(options.keep, rehearse);
    }
    Show(asJson, report.json, [] {}); // people have read it
    return status;
}
