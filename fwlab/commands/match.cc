// Says what a phone would do with a package, step by step, without running anything.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/decision.h"
#include "simphone/text.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

void Print(const Step& step, const Decision& decision) {
    const std::string reason = Sentence(step.reason, decision);
    const std::string taken =
        step.entry == nullptr
            ? ""
            : fmt::format("selects {}, revision {}{}", Title(*step.entry),
                          Quoted(RevisionOf(step.entry->identity)), reason.empty() ? "" : ": ");
    fmt::print("{}: {}: {}{}\n", step.name, step.GoesOn() ? "goes on" : "ends here", taken, reason);
    for (const std::string& message : step.messages) {
        fmt::print("    would log: {}\n", message);
    }
}

// The answer, and what to change.
std::string AnswerOf(const Decision& decision) {
    if (decision.verdict == Verdict::UPDATED) {
        return fmt::format("An update to {}: {} bytes of {}.", Quoted(*decision.recorded),
                           decision.sentBody.size(), Title(*decision.sent));
    }
    const std::string answer = InWords(decision.verdict, WhyOf(decision)) + ". ";
    if (decision.verdict == Verdict::RECORD_UNREADABLE) {
        return answer + "Every run that has an update stops.";
    }
    return decision.recorded
               ? answer + fmt::format("The phone puts the attempt for {} on record and never makes "
                                      "another one for it. Correct the package before phones get "
                                      "it; afterwards only another revision reaches them.",
                                      Quoted(*decision.recorded))
               : answer + "No update.";
}

// The keys of the description that the decision does not know.
Texts NotLookedAt(const Description& phone) {
    Texts keys;
    const auto isOther = [](const DeviceAnswer& answer) {
        return answer.kind != DeviceAnswer::Kind::ACCEPTED;
    };
    if (std::any_of(phone.answers.begin(), phone.answers.end(), isOther)) {
        keys.emplace_back("write_buffer");
    }
    if (!phone.faults.empty()) {
        keys.emplace_back("faults");
    }
    return keys;
}

} // namespace

int Match(const std::string& packageFile, const Description& phone, const std::string& recordFile,
          bool asJson) {
    const Device device = DeviceOf(phone);
    const Package package = OpenPackage(packageFile, device.identity.layout);
    const std::optional<Record> record =
        recordFile.empty() ? std::nullopt : std::optional(ReadRecord(recordFile));
    const Decision decision = Decide(package, device, record);
    Json report = ReportOf(decision);
    report["not_looked_at"] = NotLookedAt(phone);
    Show(asJson, report, [&] {
        fmt::print("device: {}, runs {}\n", Title(device.identity),
                   Quoted(RevisionOf(device.identity)));
        for (const Step& step : decision.steps) {
            Print(step, decision);
        }
        fmt::print("{}\n", AnswerOf(decision));
        for (const std::string& note :
             decision.sent == nullptr ? Texts() : NotesOf(*decision.sent)) {
            fmt::print("Note: {}.\n", note);
        }
        for (const std::string& key : NotLookedAt(phone)) {
            fmt::print("Note: {} in the description is not looked at: rehearse does.\n", key);
        }
    });
    return decision.verdict == Verdict::UPDATED ? 0 : 1;
}
