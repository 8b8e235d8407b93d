// Rehearses every failing call and every power cut of a package on phones, and tells what the
// phones are left with. Called by hand and by CI systems; leaves only the files that were asked
// for.
#include "fwlab/base/json.h"
#include "fwlab/base/output.h"
#include "fwlab/package/package.h"
#include "fwlab/phone/device.h"
#include "fwlab/sweep/report.h"

#include "simphone/description.h"
#include "simphone/text.h"

#include <csignal>
#include <fmt/format.h>
#include <map>
#include <numeric>
#include <unistd.h>

namespace {

void ShowProgress(size_t done, size_t all) {
    fmt::print(stderr, "\r{} of {} faults", done, all);
    fflush(stderr);
}

size_t Sum(const FateCounts& counts) {
    return std::accumulate(counts.begin(), counts.end(), size_t{0});
}

Json Describe(const FateCounts& counts) {
    Json shown;
    for (const Fate fate : FATES) {
        shown[FateText(fate)] = counts[static_cast<size_t>(fate)];
    }
    return shown;
}

Json Describe(const SweepRequest& request, const SweepResult& result) {
    Json phones = Json::array(), violations = Json::array();
    for (size_t i = 0; i < result.bases.size(); i++) {
        const SweepSummary sum = Summarize(result, i);
        phones.push_back({{"phone", Escaped(request.phones[i])},
                          {"calls", result.bases[i].calls.size()},
                          {"without_fault", FateText(result.baseFates[i])},
                          {"failing_calls", Describe(sum.failingCalls)},
                          {"power_cuts", Describe(sum.powerCuts)},
                          {"states_after_cuts", Describe(sum.states)}});
    }
    for (const SweepViolation& wrong : result.violations) {
        violations.push_back(
            {{"text", Escaped(wrong.text)}, {"command", RehearseCommand(request, wrong)}});
    }
    return {{"runs", result.runs}, {"phones", phones}, {"violations", violations}};
}

void Print(const SweepRequest& request, const SweepResult& result) {
    for (size_t i = 0; i < result.bases.size(); i++) {
        const SweepSummary sum = Summarize(result, i);
        fmt::print("{}: {}\n", Escaped(request.phones[i]), Title(result.phones[i]));
        fmt::print("  without a fault: {}, in {} calls\n", FateText(result.baseFates[i]),
                   result.bases[i].calls.size());
        fmt::print("  {} failing calls: {}\n", Sum(sum.failingCalls),
                   FateCountsText(sum.failingCalls));
        fmt::print("  {} power cuts: {}\n", Sum(sum.powerCuts), FateCountsText(sum.powerCuts));
        fmt::print("    {} possible states after these cuts: {}\n", Sum(sum.states),
                   FateCountsText(sum.states));
    }
    for (const SweepViolation& wrong : result.violations) {
        fmt::print("VIOLATION: {}:\n    {}\n", Escaped(wrong.text),
                   RehearseCommand(request, wrong));
    }
    fmt::print("{} runs, {} violations{}\n", result.runs, result.violations.size(),
               result.violations.empty()
                   ? ": the device got an update request for each revision in one run at most, "
                     "never after a failure that must stop the run, and never before the attempt "
                     "was on record; the record only grew; a power cut in the first run left the "
                     "phone stuck only before the record was synced. A phone that a failing call "
                     "left stuck is counted, but is no violation."
                   : ".");
}

} // namespace

const char* FateText(Fate fate) {
    static const char* const texts[] = {"updated",        "updated by the next run",
                                        "left as it was", "attempted and used up",
                                        "stuck",          "left with another image"};
    return texts[static_cast<size_t>(fate)];
}

std::string FateCountsText(const FateCounts& counts) {
    std::string text;
    for (const Fate fate : FATES) {
        const size_t count = counts[static_cast<size_t>(fate)];
        if (count > 0) {
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, FateText(fate));
        }
    }
    return text;
}

SweepSummary Summarize(const SweepResult& result, size_t scenario) {
    SweepSummary sum = {};
    std::map<size_t, Fate> cuts; // by the call before which the power fails
    for (size_t i = 0; i < result.jobs.size(); i++) {
        const SweepJob& job = result.jobs[i];
        if (job.scenario != scenario) {
            continue;
        }
        for (const SweepLeft& left : result.results[i].left) {
            const auto fate = static_cast<size_t>(left.fate);
            if (!job.isPowerCut) {
                sum.failingCalls[fate]++;
                continue;
            }
            sum.states[fate]++;
            Fate& worst = cuts[job.call];
            worst = std::max(worst, left.fate);
        }
    }
    for (const auto& [call, fate] : cuts) {
        sum.powerCuts[static_cast<size_t>(fate)]++;
    }
    return sum;
}

std::string RehearseCommand(const SweepRequest& request, const SweepViolation& wrong) {
    return fmt::format("fwlab rehearse {} --phone {}{}{} --reboot-and-run-again",
                       ShellWord(request.package), ShellWord(request.phones[wrong.scenario]),
                       wrong.fault.empty() ? "" : " --fault ",
                       wrong.fault.empty() ? "" : ShellWord(wrong.fault));
}

int Sweep(const SweepRequest& request, bool asJson) {
    std::vector<SweepScenario> scenarios;
    for (const std::string& phone : request.phones) {
        scenarios.push_back({phone, ReadPhone(phone), request.package, {false, {}}});
    }
    (void)OpenPackage(request.package); // Stop if it cannot be read
    for (const std::string& output : {request.junit, request.html}) {
        if (!output.empty()) {
            CheckOutput(output); // before it takes long
            RequireOther(output, request.package);
            for (const std::string& phone : request.phones) {
                RequireOther(output, phone);
            }
        }
    }

    SweepOptions options;
    options.tool = Companion("ffu");
    options.processes = request.jobs;
    options.keepsTimeLines = !request.html.empty();
    const bool isSeen = isatty(STDERR_FILENO) != 0;
    if (isSeen) {
        options.progress = ShowProgress;
    }
    const SweepResult result = RunSweep(scenarios, options);
    fmt::print(stderr, "{}", isSeen ? "\r\x1b[K" : "");
    if (result.interruptedBy != 0) {
        throw Stop{128 + result.interruptedBy, "interrupted"};
    }
    Show(asJson, Describe(request, result), [&] { Print(request, result); });
    if (!request.junit.empty()) {
        WriteOutput(request.junit, SweepJunit(request, result));
    }
    if (!request.html.empty()) {
        WriteOutput(request.html, SweepPage(request, result));
    }
    return result.violations.empty() ? 0 : 1;
}
