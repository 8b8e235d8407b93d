// Runs the unmodified tool on a simulated phone with a package and checks the result. The phone is
// a directory, which is removed unless the user keeps it.
#include "emmc/emmc_command.h"
#include "emmc/emmc_device.h"
#include "emmc/emmc_register.h"
#include "fwlab/base/json.h"
#include "fwlab/base/work_folder.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/device.h"
#include "fwlab/phone/state_directory.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "simphone/files.h"
#include "simphone/phone.h"
#include "simphone/tool_run.h"

#include <cstring>
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

void TellPhone(const std::string& phone, const Report& report) {
    std::string shown;
    std::string error;
    if (!ShowPhone(phone, shown, error)) {
        throw Stop{2, error};
    }
    report.Say("{}", shown);
}

// Returns whether the state that the run has left is fine.
bool Run(const Texts& faults, const std::string& phone, Report& report) {
    RunOptions options;
    options.faults = faults;
    const RunResult run = RunTool(phone, Companion("ffu"), options);
    StopIfInterrupted();
    if (!run.error.empty()) {
        throw Stop{2, run.error};
    }
    report.json["runs"].push_back({{"faults", faults},
                                   {"exit_status", run.exitStatus},
                                   {"signal", run.signal},
                                   {"timed_out", run.timedOut}});
    TellTimeLine(run, report);
    if (!run.unmetFaults.empty()) {
        throw Stop{2, fmt::format("{} met no call of the run: {}",
                                  run.unmetFaults.size() == 1 ? "this fault" : "these faults",
                                  fmt::join(run.unmetFaults, "; "))};
    }
    report.Say("\nThe run ended with {} {}{}.\n", run.signal != 0 ? "signal" : "exit status",
               run.signal != 0 ? run.signal : run.exitStatus,
               run.timedOut ? ": it took too long" : "");
    TellPhone(phone, report);
    const StateReport state = DescribeState(phone + STATE_DIR);
    report.Say("{}\n", state.text);
    report.json["runs"].back()["state"] = NameOf(state.state);
    return state.isFine;
}

// Whether the phone, which has restarted, runs the revision and exactly the body of entry; null:
// none is right. An eMMC request carries whole blocks.
bool Runs(const std::string& phone, const Package& package, const Entry* entry, Report& report) {
    const Field& field = package.layout->revision;
    const bool isUfs = package.layout == &UFS;
    const std::string revision =
        isUfs ? Content(phone + "/proc/bootdevice/rev").substr(0, field.size)
              : Content(phone + "/device/ext_csd.bin").substr(EXT_CSD_FIRMWARE_VERSION, field.size);
    const std::string taken = Content(phone + "/device/running.bin");
    const size_t size = entry == nullptr ? 0 : entry->bodySize;
    const size_t padded = size_t{DownloadBlocks(static_cast<uint32_t>(size))} * MMC_BLOCK_SIZE;
    const bool isWhole = taken.size() == size || (!isUfs && taken.size() == padded);
    const bool isMeant = size > 0 && isWhole && revision == Get(entry->identity, field) &&
                         memcmp(taken.data(), package.bytes.get() + entry->body, size) == 0;
    report.json["revision"] = Escaped(revision);
    report.json["downloaded_bytes"] = taken.size();
    report.json["is_entry"] = isMeant;
    report.Say("After a restart the phone runs {}, from {} bytes that were downloaded: {}{}.\n",
               Quoted(revision), taken.size(), isMeant ? "" : "NOT ",
               entry == nullptr ? "an entry for it" : Title(*entry));
    return isMeant;
}

// Whether another run, without the faults of the first, leaves the phone alone.
bool FindsNothingToDo(const std::string& phone, Report& report) {
    const std::string record = Content(phone + RESULT_FILE);
    report.Say("\nThe second run:\n");
    (void)Run({}, phone, report); // the first one was judged
    const bool isQuiet = Content(phone + RESULT_FILE) == record && fs::exists(phone + END_FLAG) &&
                         !fs::exists(phone + BEGIN_FLAG);
    report.json["second_run_is_quiet"] = isQuiet;
    report.Say("The second run {} nothing to do.\n", isQuiet ? "found" : "did NOT find");
    return isQuiet;
}

} // namespace

int Rehearse(const RehearseOptions& options, bool asJson) {
    std::string error;
    Fault fault;
    for (const std::string& text : options.faults) { // before anything is made
        if (!ParseFault(text, fault, error)) {
            throw Stop{2, error};
        }
    }
    const Device device = DeviceOf(ReadPhone(options.phone, options.settings));
    const Package package = OpenPackage(options.package, device.identity.layout);
    const Decision decision = Decide(package, device);
    // The phone is to get what the pre-check selected, or the entry that Decide accepts in its
    // place.
    const Entry* entry = decision.verdict == Verdict::UPDATED ? decision.sent : decision.PreCheck();

    const WorkFolder folder;
    const std::string phone = options.keep.empty() ? folder.path + "/phone" : options.keep;
    if (!MakePhone(options.phone, options.settings, phone, error) ||
        !PutPackage(options.package, phone, error)) {
        throw Stop{2, error};
    }
    Report report = {asJson, options.quiet, {{"runs", Json::array()}}};
    TellPhone(phone, report);
    report.Say("\n");
    bool isUpdated = Run(options.faults, phone, report);
    if (!RebootPhone(phone, error)) {
        throw Stop{2, error};
    }
    isUpdated = Runs(phone, package, entry, report) && isUpdated;
    if (options.runAgain) {
        isUpdated = FindsNothingToDo(phone, report) && isUpdated;
    }
    report.json["updated"] = isUpdated;
    report.Say("The phone is {}updated.\n", isUpdated ? "" : "NOT ");
    if (asJson) {
        fmt::print("{}\n", report.json.dump(2));
    }
    return isUpdated ? 0 : 1;
}
