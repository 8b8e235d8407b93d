// Makes the report of a sweep from its result, and prints it for people.
#include "fwlab/sweep/report.h"

#include "fwlab/base/text.h"
#include "fwlab/package/digest.h"
#include "simphone/text.h"
#include "version.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <iterator>
#include <map>
#include <numeric>

namespace {

using Counts = std::array<size_t, std::size(LEFT)>; // by rank

Json Describe(const Counts& counts) {
    Json shown;
    for (const Verdict verdict : LEFT) {
        shown[WordOf(verdict)] = counts[RankOf(verdict)];
    }
    return shown;
}

// Of one phone.
struct Summary {
    Counts failingCalls = {}; // jobs
    Counts powerCuts = {};    // each counted once, by the worst state that it can leave
    Counts states = {};       // all states that the cuts can leave
};

Summary Summarize(const SweepResult& result, size_t scenario) {
    Summary sum;
    std::map<size_t, size_t> cuts; // the worst rank, by the call before which the power fails
    for (size_t i = 0; i < result.jobs.size(); i++) {
        const SweepJob& job = result.jobs[i];
        if (job.scenario != scenario) {
            continue;
        }
        for (const SweepLeft& left : result.results[i].left) {
            const size_t rank = RankOf(result.states[left.state].verdict);
            if (!IsPowerCut(job.fault)) {
                sum.failingCalls[rank]++;
                continue;
            }
            sum.states[rank]++;
            size_t& worst = cuts[job.call];
            worst = std::max(worst, rank);
        }
    }
    for (const auto& [call, rank] : cuts) {
        sum.powerCuts[rank]++;
    }
    return sum;
}

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

// The calls of the run without a fault, each with what its faults leave.
Json DescribeCourse(const SweepResult& result, size_t scenario) {
    Json course = Json::array();
    for (const CallEntry& call : result.bases[scenario].run.calls) {
        course.push_back(Describe(call));
    }
    for (size_t i = 0; i < result.jobs.size(); i++) {
        const SweepJob& job = result.jobs[i];
        for (const SweepLeft& left : result.results[i].left) {
            if (job.scenario != scenario) {
                continue;
            }
            Fault fault = job.fault;
            fault.losses = left.losses;
            const SweepState& state = result.states[left.state];
            const bool isTorn = fault.effect == Effect::TORN;
            course[job.call]["left"].push_back(
                {{"fault", Escaped(FaultText(fault))},
                 {"label", Escaped(Label(job.fault, left.losses))},
                 {"is_power_cut", IsPowerCut(fault)},
                 {"answer", WordOf(state.verdict)},
                 {"violates", result.results[i].isWrong || state.isWrong},
                 {"job", i},
                 {"state", left.state},
                 {"torn", isTorn ? Json(fault.value) : Json()}});
        }
    }
    return course;
}

// The shell command that rehearses the update on the phone, without a fault.
std::string RehearseCommand(const std::string& package, const std::string& stateFolder,
                            const SweepPhone& phone) {
    std::string line = "fwlab rehearse " + ShellWord(package);
    line += stateFolder.empty() ? "" : " --state " + ShellWord(stateFolder);
    line += " --phone " + ShellWord(phone.file);
    for (const std::string& setting : phone.settings) {
        line += " --set " + ShellWord(setting);
    }
    return line;
}

// The options with which it shows the violation.
std::string RunsOf(const SweepViolation& wrong) {
    std::string line;
    const std::vector<std::optional<Fault>>& course = wrong.course;
    if (course.front()) {
        line += " --fault " + ShellWord(FaultText(*course.front()));
    }
    for (size_t i = 1; i < course.size(); i++) {
        line += " --then " + ShellWord(course[i] ? FaultText(*course[i]) : "");
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

Json SweepReport(const std::string& package, const std::string& stateFolder,
                 const std::vector<SweepPhone>& phones, const SweepResult& result) {
    Json described = Json::array(), violations = Json::array();
    for (size_t i = 0; i < result.bases.size(); i++) {
        const Summary sum = Summarize(result, i);
        const SweepBase& base = result.bases[i];
        const bool isExpected = base.verdict == base.decision.verdict;
        const bool isUpdated = base.verdict == Verdict::UPDATED;
        described.push_back(
            {{"phone", Escaped(phones[i].file)},
             {"title", phones[i].title},
             {"answer", WordOf(base.verdict)},
             {"updated", isUpdated},
             {"why", isExpected && !isUpdated ? WhyOf(base.decision) : SentenceOf(base.verdict)},
             {"rehearse", RehearseCommand(package, stateFolder, phones[i])},
             {"calls", base.run.calls.size()},
             {"failing_calls", Describe(sum.failingCalls)},
             {"power_cuts", Describe(sum.powerCuts)},
             {"states_after_cuts", Describe(sum.states)},
             {"course", DescribeCourse(result, i)}});
    }
    for (const SweepViolation& wrong : result.violations) {
        const std::string rehearse = described[wrong.scenario]["rehearse"];
        violations.push_back(Describe(rehearse + RunsOf(wrong), wrong));
    }
    const std::string_view bytes = BytesOf(result.bases.front().package);
    Json report = {{"package", Escaped(package)}, {"size", bytes.size()},
                   {"sha256", Sha256(bytes)},     {"program", std::string("fwlab ") + FFU_VERSION},
                   {"date", DateText()},          {"runs", result.runs},
                   {"phones", described},         {"violations", violations}};
    report["fine"] = IsFine(report);
    return report;
}

size_t RankOf(Verdict verdict) {
    return static_cast<size_t>(std::find(std::begin(LEFT), std::end(LEFT), verdict) -
                               std::begin(LEFT));
}

bool IsFine(const Json& report) {
    return report["violations"].empty() &&
           std::all_of(report["phones"].begin(), report["phones"].end(),
                       [](const Json& phone) { return phone["updated"].get<bool>(); });
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
