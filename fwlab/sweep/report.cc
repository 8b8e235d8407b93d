// Makes the report of a sweep from its result, and prints it for people.
#include "fwlab/sweep/report.h"

#include "fwlab/base/text.h"
#include "simphone/text.h"
#include "version.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <iterator>
#include <map>
#include <numeric>
#include <utility>

namespace {

// How far the fault reaches, for a failing call; what is lost, for a power cut.
std::string Label(const Fault& fault, const Losses& losses) {
    if (fault.effect == Effect::ENDS) {
        return losses.empty() ? "all survives" : LossText(losses);
    }
    const bool isAlone = fault.first == fault.last;
    return EffectText(fault) + (isAlone              ? ""
                                : fault.path.empty() ? ", all later ones"
                                                     : ", later ones on the path");
}

std::string ResultText(const CallEntry& call) {
    return call.result.rfind("0x", 0) == 0
               ? "a pointer"
               : call.result + (call.error.empty() ? "" : " ") + call.error;
}

Json Describe(const CallEntry& call) {
    const bool asks = call.request && call.request->kind != RequestKind::SEND_EXT_CSD;
    return {{"number", call.number},
            {"function", call.function},
            {"path", call.path == "-" ? "" : Escaped(call.path)},
            {"result", ResultText(call)},
            {"asks_for_change", asks},
            {"syncs", call.function == "fsync"},
            {"left", Json::array()}};
}

// The shell command that rehearses the update on the phone, without a fault.
std::string RehearseCommand(const SweepScenario& scenario) {
    std::string line = "fwlab rehearse " + ShellWord(scenario.package);
    line += scenario.stateFolder.empty() ? "" : " --state " + ShellWord(scenario.stateFolder);
    line += " --phone " + ShellWord(scenario.phoneFile);
    for (const std::string& setting : scenario.settings) {
        line += " --set " + ShellWord(setting);
    }
    return line;
}

// Of one phone, without what its faults leave.
Json Describe(const SweepScenario& scenario, const SweepBase& base) {
    Json counts, course = Json::array();
    for (const Verdict verdict : LEFT) {
        counts[WordOf(verdict)] = 0;
    }
    for (const CallEntry& call : base.run.calls) {
        course.push_back(Describe(call));
    }
    const bool isUpdated = base.verdict == Verdict::UPDATED;
    const bool isExpected = base.verdict == base.decision.verdict && !isUpdated;
    return {{"phone", Escaped(scenario.phoneFile)},
            {"title", Title(scenario.phone)},
            {"answer", WordOf(base.verdict)},
            {"updated", isUpdated},
            {"why", isExpected ? WhyOf(base.decision) : SentenceOf(base.verdict)},
            {"rehearse", RehearseCommand(scenario)},
            {"calls", course.size()},
            {"failing_calls", counts},
            {"power_cuts", counts},
            {"states_after_cuts", counts},
            {"course", course}};
}

void Count(Json& counts, Verdict verdict) {
    Json& count = counts[WordOf(verdict)];
    count = count.get<size_t>() + 1;
}

// What each fault leaves, at its call, and how often which is left. The cuts before a call count
// once, by the worst state that they can leave.
void AddLeft(const SweepResult& result, Json& phones) {
    std::map<std::pair<size_t, size_t>, size_t> cuts; // the worst rank, by phone and call
    for (size_t i = 0; i < result.jobs.size(); i++) {
        const SweepJob& job = result.jobs[i];
        Json& phone = phones[job.scenario];
        const bool isCut = IsPowerCut(job.fault), isTorn = job.fault.effect == Effect::TORN;
        for (const auto& [losses, place] : result.results[i].left) {
            const SweepState& state = result.states[place];
            Fault fault = job.fault;
            fault.losses = losses;
            phone["course"][job.call]["left"].push_back(
                {{"fault", Escaped(FaultText(fault))},
                 {"label", Escaped(Label(job.fault, losses))},
                 {"is_power_cut", isCut},
                 {"answer", WordOf(state.verdict)},
                 {"violates", result.results[i].isWrong || state.isWrong},
                 {"job", i},
                 {"state", place},
                 {"torn", isTorn ? Json(fault.value) : Json()}});
            Count(phone[isCut ? "states_after_cuts" : "failing_calls"], state.verdict);
            if (isCut) {
                size_t& worst = cuts[{job.scenario, job.call}];
                const auto rank = std::find(std::begin(LEFT), std::end(LEFT), state.verdict);
                worst = std::max(worst, static_cast<size_t>(rank - std::begin(LEFT)));
            }
        }
    }
    for (const auto& [place, rank] : cuts) {
        Count(phones[place.first]["power_cuts"], LEFT[rank]);
    }
}

// The options with which it shows the violation.
std::string RunsOf(const SweepViolation& wrong) {
    std::string line;
    for (size_t i = 0; i < wrong.course.size(); i++) {
        const std::optional<Fault>& fault = wrong.course[i];
        if (i > 0 || fault) {
            line += i == 0 ? " --fault " : " --then ";
            line += ShellWord(fault ? FaultText(*fault) : "");
        }
    }
    return line;
}

Json Describe(const std::string& command, const SweepViolation& wrong) {
    std::string text = SentenceOf(wrong.wrong);
    text += (wrong.detail.empty() ? "" : ": ") + Escaped(wrong.detail);
    return {{"kind", NameOf(wrong.wrong)},
            {"text", text},
            {"phone", wrong.scenario},
            {"call", wrong.call},
            {"command", command}};
}

std::string DateText() {
    const char* fixed = getenv("SOURCE_DATE_EPOCH");
    const time_t now = fixed == nullptr ? time(nullptr) : strtoll(fixed, nullptr, 10);
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(now));
}

size_t Sum(const Json& counts) {
    return std::accumulate(counts.begin(), counts.end(), size_t{0},
                           [](size_t sum, const Json& count) { return sum + count.get<size_t>(); });
}

} // namespace

Json SweepReport(const std::vector<SweepScenario>& scenarios, const SweepResult& result) {
    Json described = Json::array(), violations = Json::array();
    for (size_t i = 0; i < scenarios.size(); i++) {
        described.push_back(Describe(scenarios[i], result.bases[i]));
    }
    AddLeft(result, described);
    for (const SweepViolation& wrong : result.violations) {
        const std::string rehearse = described[wrong.scenario]["rehearse"];
        violations.push_back(Describe(rehearse + RunsOf(wrong), wrong));
    }
    const SweepBase& base = result.bases.front();
    const bool areUpdated =
        std::all_of(result.bases.begin(), result.bases.end(),
                    [](const SweepBase& one) { return one.verdict == Verdict::UPDATED; });
    return {{"package", Escaped(base.package.path)},
            {"size", base.package.size},
            {"sha256", base.digest},
            {"program", std::string("fwlab ") + FFU_VERSION},
            {"date", DateText()},
            {"runs", result.runs},
            {"phones", described},
            {"violations", violations},
            {"fine", violations.empty() && areUpdated}};
}

std::string CountsText(const Json& counts) {
    std::string text;
    for (const auto& [word, count] : counts.items()) {
        if (count > 0) {
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count.get<size_t>(), word);
        }
    }
    return text;
}

void PrintReport(const Json& report) {
    const auto text = [](const Json& value) { return value.get<std::string>(); };
    for (const Json& phone : report["phones"]) {
        fmt::print("{}: {}\n", text(phone["phone"]), text(phone["title"]));
        fmt::print("  without a fault: {}, in {} calls\n", text(phone["answer"]),
                   phone["calls"].get<size_t>());
        if (!phone["updated"]) {
            fmt::print("  NOT UPDATED without a fault: {}: {}\n", text(phone["answer"]),
                       text(phone["why"]));
        }
        for (const auto& [key, what] :
             {std::pair("failing_calls", "  {} failing calls: {}\n"),
              {"power_cuts", "  {} power cuts: {}\n"},
              {"states_after_cuts", "    {} possible states after these cuts: {}\n"}}) {
            fmt::print(fmt::runtime(what), Sum(phone[key]), CountsText(phone[key]));
        }
    }
    for (const Json& wrong : report["violations"]) {
        fmt::print("VIOLATION: {}:\n    {}\n", text(wrong["text"]), text(wrong["command"]));
    }
    fmt::print("{} runs, {} violations{}\n", report["runs"].get<size_t>(),
               report["violations"].size(),
               report["violations"].empty()
                   ? ": the device got an update request for each revision in one run at most, "
                     "never after a failure that must stop the run, and never before the attempt "
                     "was on record; the record only grew; a power cut in the first run left the "
                     "record unreadable only before it was synced. A record that a failing call "
                     "left unreadable is counted, but is no violation."
                   : ".");
}
