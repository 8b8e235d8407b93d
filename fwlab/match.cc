// Says what a phone would do with a package, step by step, without running anything.
#include "fwlab/commands.h"
#include "fwlab/outcome.h"
#include "fwlab/selection.h"

#include <fmt/format.h>

namespace {

void Print(const std::string& step, bool goesOn, const std::string& reason,
           const std::vector<std::string>& messages) {
    fmt::print("{}: {}: {}\n", step, goesOn ? "goes on" : "nothing to do", reason);
    for (const std::string& message : messages) {
        fmt::print("    would log: {}\n", message);
    }
}

void Print(const std::string& step, const Choice& choice) {
    std::string taken;
    if (choice.entry != nullptr) {
        const Identity& identity = choice.entry->identity;
        taken = fmt::format("takes {}, revision {}: ", Title(*choice.entry),
                            Quoted(Get(identity, identity.layout->revision)));
    }
    Print(step, choice.goesOn, taken + choice.reason, choice.messages);
}

// Whether the record lets the revision be attempted.
bool PrintRecord(const std::string& recordFile, const std::string& revision) {
    const Record record = ReadRecord(recordFile);
    const bool goesOn = record.isReadable && !IsAttempted(record, revision);
    Print("record", goesOn,
          record.isReadable ? fmt::format("the last attempt was from {} to {}", Quoted(record.base),
                                          Quoted(record.target))
                            : "it cannot be read back, the run stops",
          record.messages);
    return goesOn;
}

} // namespace

int Match(const std::string& packageFile, const Identity& device, const std::string& recordFile) {
    const Package package = OpenPackage(packageFile, device.layout);
    if (!package.flaw.empty()) {
        fmt::print("{} {}\n", packageFile, package.flaw);
        return 1;
    }
    const Field& revision = device.layout->revision;
    fmt::print("device: {} {}, runs {}\n", Quoted(Get(device, device.layout->manufacturer)),
               Quoted(Get(device, device.layout->name)), Quoted(Get(device, revision)));
    const Choice preCheck = PreCheck(package, device);
    Print("pre-check", preCheck);
    const bool isReached =
        preCheck.goesOn &&
        (recordFile.empty() || PrintRecord(recordFile, Get(preCheck.entry->identity, revision)));
    const Choice update = SelectForUpdate(package, device);
    Print(isReached ? "update" : "update (not reached)", update);
    if (preCheck.entry != update.entry || preCheck.goesOn != update.goesOn) {
        fmt::print("The pre-check and the update differ.\n");
    }
    if (!isReached || !update.goesOn) {
        fmt::print("No update.\n");
        return 1;
    }
    const bool isSame =
        Get(preCheck.entry->identity, revision) == Get(update.entry->identity, revision);
    fmt::print("An update to {}{}.\n", Quoted(Get(update.entry->identity, revision)),
               isSame ? "" : ", while the record will name another revision");
    return isSame ? 0 : 1;
}
