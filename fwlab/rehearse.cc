// Runs the unmodified tool on a simulated phone with a package and judges what came of it. All that
// happens lies in the phone's directory, which is removed unless it is to be kept.
#include "emmc/emmc_command.h"
#include "emmc/emmc_register.h"
#include "fwlab/commands.h"
#include "fwlab/decision.h"
#include "fwlab/manifest.h"
#include "fwlab/outcome.h"
#include "fwlab/work_folder.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "simphone/phone.h"

#include <climits>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <sstream>

namespace fs = std::filesystem;

namespace {

std::string Content(const std::string& file) {
    std::string content;
    return ReadWholeFile(file, content) ? content : "";
}

void PrintLines(const char* source, const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        fmt::print("{:<8}| {}\n", source, Escaped(line));
    }
}

// Both logs and the device's requests, in the order in which they came.
void PrintTimeLine(const RunResult& run) {
    struct Event {
        long long consoleBytes; // before it
        const char* source;
        std::string text;
    };
    std::map<long, Event> events; // by the number of the call that it was
    for (const SystemLogEntry& log : run.systemLog) {
        events[log.number] = {log.consoleBytes, "log", log.text};
    }
    for (const DeviceRequest& request : run.requests) {
        events[request.number] = {request.consoleBytes, "device", request.text};
    }
    events[LONG_MAX] = {static_cast<long long>(run.console.size()), "", ""};
    size_t printed = 0;
    for (const auto& [number, event] : events) {
        const auto before = static_cast<size_t>(event.consoleBytes);
        PrintLines("console", run.console.substr(printed, before - printed));
        printed = before;
        PrintLines(event.source, event.text);
    }
}

void PrintPhone(const std::string& phone) {
    std::string shown;
    std::string error;
    Require(ShowPhone(phone, shown, error), 2, error);
    fmt::print("{}", shown);
}

// Whether the run left a state without complaint.
bool Run(const Texts& faults, const std::string& phone) {
    RunOptions options;
    options.faults = faults;
    const RunResult run = RunTool(phone, Companion("ffu"), options);
    StopIfInterrupted();
    Require(run.error.empty(), 2, run.error);
    PrintTimeLine(run);
    Require(run.unmetFaults.empty(), 2,
            fmt::format("no call of the run met: {}", fmt::join(run.unmetFaults, "; ")));
    fmt::print("\nThe run ended with {} {}{}.\n", run.signal != 0 ? "signal" : "exit status",
               run.signal != 0 ? run.signal : run.exitStatus,
               run.timedOut ? ": it took too long" : "");
    PrintPhone(phone);
    const StateReport state = DescribeState(phone + STATE_DIR);
    fmt::print("{}\n", state.text);
    return state.isFine;
}

// Whether the phone, which has restarted, runs the revision and exactly the body of entry; null:
// none is right. An eMMC request carries whole blocks.
bool Runs(const std::string& phone, const Package& package, const Entry* entry) {
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
    fmt::print("After a restart the phone runs {}, from {} bytes that were downloaded: {}{}.\n",
               Quoted(revision), taken.size(), isMeant ? "" : "NOT ",
               entry == nullptr ? "an entry for it" : Title(*entry));
    return isMeant;
}

// Whether another run, without the faults of the first, leaves the phone alone.
bool FindsNothingToDo(const std::string& phone) {
    const std::string record = Content(phone + RESULT_FILE);
    fmt::print("\nThe second run:\n");
    (void)Run({}, phone); // the first one was judged
    const bool isQuiet = Content(phone + RESULT_FILE) == record && fs::exists(phone + END_FLAG) &&
                         !fs::exists(phone + BEGIN_FLAG);
    fmt::print("The second run {} nothing to do.\n", isQuiet ? "found" : "did NOT find");
    return isQuiet;
}

} // namespace

int Rehearse(const RehearseOptions& options) {
    std::string error;
    Fault fault;
    for (const std::string& text : options.faults) { // before anything is made
        Require(ParseFault(text, fault, error), 2, error);
    }
    const Device device = DeviceOf(ReadPhone(options.phone));
    const Package package = OpenPackage(options.package, device.identity.layout);
    Require(package.size <= PACKAGE_SIZE_MAX, 1, options.package + " " + package.flaw);
    const Decision decision = Decide(package, device);
    // What the phone is to get: what the pre-check saw, or that entry's like for this very device.
    const Entry* entry = decision.verdict == Verdict::UPDATE ? decision.sent : decision.PreCheck();

    const WorkFolder folder;
    const std::string phone = options.keep.empty() ? folder.path + "/phone" : options.keep;
    Require(MakePhone(options.phone, phone, error), 2, error);
    Require(PutPackage(options.package, phone, error), 2, error);
    PrintPhone(phone);
    fmt::print("\n");
    bool isUpdated = Run(options.faults, phone);
    Require(RebootPhone(phone, error), 2, error);
    isUpdated = Runs(phone, package, entry) && isUpdated;
    if (options.runAgain) {
        isUpdated = FindsNothingToDo(phone) && isUpdated;
    }
    fmt::print("The phone is {}updated as meant.\n", isUpdated ? "" : "NOT ");
    return isUpdated ? 0 : 1;
}
