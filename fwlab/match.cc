// Says what a phone would do with a package, step by step, without running anything.
#include "fwlab/commands.h"
#include "fwlab/manifest.h"
#include "fwlab/outcome.h"
#include "fwlab/selection.h"

#include <fmt/format.h>

namespace {

void Print(const std::string& step, bool goesOn, const std::string& reason, const Texts& messages) {
    fmt::print("{}: {}: {}\n", step, goesOn ? "goes on" : "nothing to do", reason);
    for (const std::string& message : messages) {
        fmt::print("    would log: {}\n", message);
    }
}

std::string RevisionOf(const Identity& identity) {
    return Get(identity, identity.layout->revision);
}

void Print(const std::string& step, const Choice& choice) {
    std::string taken;
    if (choice.entry != nullptr) {
        taken = fmt::format("takes {}, revision {}: ", Title(*choice.entry),
                            Quoted(RevisionOf(choice.entry->identity)));
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

int Match(const std::string& packageFile, const Description& phone, const std::string& recordFile) {
    const Identity device = DeviceOf(phone);
    const Package package = OpenPackage(packageFile, device.layout);
    Require(package.flaw.empty(), 1, packageFile + " " + package.flaw);
    fmt::print("device: {} {}, runs {}\n", Quoted(Get(device, device.layout->manufacturer)),
               Quoted(Get(device, device.layout->name)), Quoted(RevisionOf(device)));
    const Choice preCheck = PreCheck(package, device);
    Print("pre-check", preCheck);
    const bool isReached =
        preCheck.goesOn &&
        (recordFile.empty() || PrintRecord(recordFile, RevisionOf(preCheck.entry->identity)));
    const Choice update = SelectForUpdate(package, device);
    Print(isReached ? "update" : "update (not reached)", update);
    if (preCheck.entry != update.entry || preCheck.goesOn != update.goesOn) {
        fmt::print("The pre-check and the update differ.\n");
    }
    if (!isReached || !update.goesOn) {
        fmt::print("No update.\n");
        return 1;
    }
    const std::string revision = RevisionOf(update.entry->identity);
    bool isMeant = revision == RevisionOf(preCheck.entry->identity);
    fmt::print("An update to {}{}.\n", Quoted(revision),
               isMeant ? "" : ", while the record will name another revision");
    for (const std::string& finding : SizeFindings(*update.entry)) {
        if (!phone.gki || finding != LARGE_EMMC_BODY) {
            fmt::print("It fails or is not whole: {}.\n", finding);
            isMeant = false;
        }
    }
    return isMeant ? 0 : 1;
}
