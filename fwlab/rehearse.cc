// Runs the unmodified tool on a simulated phone with a package and judges what came of it. All that
// happens lies in the phone's directory, which is removed unless it is to be kept.
#include "emmc/emmc_register.h"
#include "fwlab/commands.h"
#include "fwlab/manifest.h"
#include "fwlab/outcome.h"
#include "fwlab/selection.h"
#include "run/run_values.h"
#include "simphone/phone.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <sstream>

namespace fs = std::filesystem;

namespace {

void Check(bool isDone, const std::string& error) {
    if (!isDone) {
        throw Stop{2, error};
    }
}

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
        long number;
        size_t consoleBytes; // before it
        const char* source;
        std::string text;
    };
    std::vector<Event> events;
    for (const SystemLogEntry& log : run.systemLog) {
        events.push_back({log.number, static_cast<size_t>(log.consoleBytes), "log", log.text});
    }
    for (const DeviceRequest& request : run.requests) {
        events.push_back(
            {request.number, static_cast<size_t>(request.consoleBytes), "device", request.text});
    }
    std::sort(events.begin(), events.end(),
              [](const Event& a, const Event& b) { return a.number < b.number; });
    // A workstation's log call writes to the standard error, too: that is shown already.
    std::istringstream lines(run.errors);
    std::string errors;
    for (std::string line; std::getline(lines, line);) {
        errors += line.empty() || line.find("FFU process ") != std::string::npos ? "" : line + "\n";
    }
    events.push_back({0, run.console.size(), "stderr", errors});
    size_t printed = 0;
    for (const Event& event : events) {
        PrintLines("console", run.console.substr(printed, event.consoleBytes - printed));
        printed = event.consoleBytes;
        PrintLines(event.source, event.text);
    }
}

void PrintPhone(const std::string& phone) {
    std::string shown;
    std::string error;
    Check(ShowPhone(phone, shown, error), error);
    fmt::print("{}", shown);
}

void Run(const std::string& tool, const std::vector<std::string>& faults,
         const std::string& phone) {
    RunOptions options;
    options.faults = faults;
    const RunResult run = RunTool(phone, tool, options);
    Check(run.error.empty(), run.error);
    PrintTimeLine(run);
    fmt::print("\nThe run ended with {} {}{}.\n", run.signal != 0 ? "signal" : "exit status",
               run.signal != 0 ? run.signal : run.exitStatus,
               run.timedOut ? ": it took too long" : "");
    PrintPhone(phone);
    fmt::print("{}\n", DescribeState(phone + STATE_DIR).text);
}

// Whether the device took exactly the body of entry (null: none is right). An eMMC request carries
// whole blocks.
bool TookBody(const std::string& phone, const Package& package, const Entry* entry) {
    const std::string file = phone + "/device/downloaded.bin";
    if (!fs::exists(file)) {
        fmt::print("The device took no firmware.\n");
        return false;
    }
    const std::string taken = Content(file);
    const size_t size = entry == nullptr ? 0 : entry->bodySize;
    const size_t blocks = (size + MMC_BLOCK_SIZE - 1) / MMC_BLOCK_SIZE * MMC_BLOCK_SIZE;
    const bool isBody =
        entry != nullptr &&
        (taken.size() == size || (package.layout == &EMMC && taken.size() == blocks)) &&
        memcmp(taken.data(), package.bytes.get() + entry->body, size) == 0;
    fmt::print("The device took {} bytes, {}the body of {}.\n", taken.size(), isBody ? "" : "NOT ",
               entry == nullptr ? "an entry for it" : Title(*entry));
    return isBody;
}

bool RunsRevision(const std::string& phone, const Package& package, const Entry* entry) {
    const Field& revision = package.layout->revision;
    const std::string running =
        package.layout == &UFS ? Content(phone + "/proc/bootdevice/rev").substr(0, revision.size)
                               : Content(phone + "/device/ext_csd.bin")
                                     .substr(EXT_CSD_FIRMWARE_VERSION, revision.size);
    const bool isMeant = entry != nullptr && running == Get(entry->identity, revision);
    fmt::print("After a restart the phone runs {}, {}the revision of {}.\n", Quoted(running),
               isMeant ? "" : "NOT ", entry == nullptr ? "an entry for it" : Title(*entry));
    return isMeant;
}

// Whether another run, without the faults of the first, leaves the phone alone.
bool FindsNothingToDo(const std::string& tool, const std::string& phone) {
    const std::string record = Content(phone + RESULT_FILE);
    fmt::print("\nThe second run:\n");
    Run(tool, {}, phone);
    const bool isQuiet = Content(phone + RESULT_FILE) == record && fs::exists(phone + END_FLAG) &&
                         !fs::exists(phone + BEGIN_FLAG);
    fmt::print("The second run {} nothing to do.\n", isQuiet ? "found" : "did NOT find");
    return isQuiet;
}

} // namespace

int Rehearse(const RehearseOptions& options) {
    const Identity device = ReadPhone(options.phone);
    const Package package = OpenPackage(options.package, device.layout);
    Check(package.size <= PACKAGE_SIZE_MAX, options.package + " " + package.flaw);
    const Entry* entry = SelectForUpdate(package, device).entry;
    std::string phone = options.keep;
    std::string error;
    std::unique_ptr<const std::string, void (*)(const std::string*)> temporary(
        nullptr, [](const std::string* directory) { fs::remove_all(*directory); });
    if (phone.empty()) {
        phone = fs::temp_directory_path() / "fwlab-XXXXXX";
        Check(mkdtemp(phone.data()) != nullptr, phone + ": " + strerror(errno));
        temporary.reset(&phone);
    }
    Check(MakePhone(options.phone, phone, error), error);
    Check(PutPackage(options.package, phone, error), error);
    PrintPhone(phone);
    fmt::print("\n");
    Run(options.tool, options.faults, phone);
    bool isUpdated = TookBody(phone, package, entry) && DescribeState(phone + STATE_DIR).isFine;
    Check(RebootPhone(phone, error), error);
    isUpdated = RunsRevision(phone, package, entry) && isUpdated;
    if (options.runAgain) {
        isUpdated = FindsNothingToDo(options.tool, phone) && isUpdated;
    }
    fmt::print("The phone is {}updated as meant.\n", isUpdated ? "" : "NOT ");
    return isUpdated ? 0 : 1;
}
