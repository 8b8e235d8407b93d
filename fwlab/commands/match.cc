// Says what a phone would do with a package, step by step, without running anything.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/decision.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

std::string RevisionOf(const Identity& identity) {
    return Get(identity, identity.layout->revision);
}

void Print(const Step& step, const Identity& device) {
    const std::string reason = Sentence(step.reason, device);
    const std::string taken =
        step.entry == nullptr
            ? ""
            : fmt::format("selects {}, revision {}{}", Title(*step.entry),
                          Quoted(RevisionOf(step.entry->identity)), reason.empty() ? "" : ": ");
    fmt::print("{}: {}: {}{}\n", step.name, step.goesOn ? "goes on" : "ends here", taken, reason);
    for (const std::string& message : step.messages) {
        fmt::print("    would log: {}\n", message);
    }
}

// The answer in words, and what to change.
std::string Sentence(const Decision& decision) {
    const std::string why = WhyOf(decision);
    const std::string recorded = Quoted(decision.recorded.value_or(""));
    const std::string remedy = fmt::format(
        "The phone puts the attempt for {} on record and never makes another one for it. "
        "Correct the package before phones get it; afterwards only another revision "
        "reaches them.",
        recorded);
    switch (decision.verdict) {
    case Verdict::UPDATED:
        return fmt::format("An update to {}: {} bytes of {}.",
                           Quoted(RevisionOf(decision.sent->identity)), decision.sentSize,
                           Title(*decision.sent));
    case Verdict::NOTHING_TO_DO:
    case Verdict::REFUSED:
        return "No update.";
    case Verdict::ALREADY_ATTEMPTED:
        return "No update: the phone counts this revision as attempted.";
    case Verdict::RECORD_UNREADABLE:
        if (decision.recorded) {
            return "Used up: the attempt for " + recorded + " goes on record, but " + why +
                   ". Every later run with an update stops.";
        }
        return "No update: the phone cannot parse fw_result. This run stops, and so does every "
               "later run with an update.";
    case Verdict::WRONG_IMAGE:
        return "Used up, with the WRONG IMAGE: " + why + ". " + remedy;
    default:
        return "Used up: " + why + ". " + remedy;
    }
}

// The keys of the description that the decision does not know.
Texts NotLookedAt(const Description& phone) {
    Texts keys;
    const auto isOther = [](const Answer& answer) { return answer.kind != Answer::Kind::ACCEPTED; };
    if (std::any_of(phone.answers.begin(), phone.answers.end(), isOther)) {
        keys.emplace_back("write_buffer");
    }
    if (!phone.faults.empty()) {
        keys.emplace_back("faults");
    }
    return keys;
}

void Print(const Identity& device, const Decision& decision) {
    fmt::print("device: {}, runs {}\n", Title(device), Quoted(RevisionOf(device)));
    for (const Step& step : decision.steps) {
        Print(step, device);
    }
    fmt::print("{}\n", Sentence(decision));
    for (const std::string& note : decision.sent == nullptr ? Texts() : NotesOf(*decision.sent)) {
        fmt::print("Note: {}.\n", note);
    }
}

} // namespace

int Match(const std::string& packageFile, const Description& phone, const std::string& recordFile,
          bool asJson) {
    const Device device = DeviceOf(phone);
    const Package package = OpenPackage(packageFile, device.identity.layout);
    const Record record = recordFile.empty() ? Record() : ReadRecord(recordFile);
    const Decision decision = Decide(package, device, recordFile.empty() ? nullptr : &record);
    Json report = Describe(decision);
    report["not_looked_at"] = NotLookedAt(phone);
    Show(asJson, report, [&] {
        Print(device.identity, decision);
        for (const std::string& key : NotLookedAt(phone)) {
            fmt::print("Note: {} in the description is not looked at: rehearse does.\n", key);
        }
    });
    return decision.verdict == Verdict::UPDATED ? 0 : 1;
}
