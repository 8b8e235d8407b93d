// Rehearses every failing call and every power cut of a package on phones, and tells what the
// phones are left with. Called by hand and by CI systems; leaves only the files that were asked
// for.
#include "fwlab/base/output.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/device.h"
#include "fwlab/sweep/page.h"
#include "fwlab/sweep/report.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

// Of a phone that has none: the clock stands still, so that equal runs leave equal files.
constexpr char CLOCK[] = "clock=2026-03-07T09:05:02.041";

SweepScenario ScenarioOf(const std::string& phoneFile, const SweepRequest& request) {
    Texts settings = request.settings;
    Description phone = ReadDescription(phoneFile, settings);
    Require(phone.faults.empty(), 2,
            phoneFile + ": has faults, which a sweep would take for the tool's own; leave them "
                        "out, or add --set faults=[]");
    if (!phone.clock) {
        settings.emplace_back(CLOCK);
        phone = ReadDescription(phoneFile, settings);
    }
    return {phone,     request.package, request.state.value_or(StateDirectory{}),
            phoneFile, settings,        request.stateFolder};
}

// Before it takes long.
void CheckOutputs(const SweepRequest& request) {
    Texts inputs = request.phones, outputs;
    inputs.push_back(request.package);
    std::error_code error;
    for (const std::string& output : {request.junit, request.html}) {
        if (!output.empty()) {
            CheckOutput(output);
            for (const std::string& input : inputs) {
                RequireOther(output, input);
            }
            outputs.push_back(fs::weakly_canonical(fs::absolute(output), error));
        }
    }
    Require(outputs.size() < 2 || outputs[0] != outputs[1], 2,
            request.html + ": is the file of both reports");
}

} // namespace

int Sweep(const SweepRequest& request, bool asJson) {
    Require(!request.package.empty(), 2, "PACKAGE is required; --help tells more");
    std::vector<SweepScenario> scenarios;
    for (const std::string& phoneFile : request.phones) {
        scenarios.push_back(ScenarioOf(phoneFile, request));
    }
    CheckOutputs(request);
    SweepOptions options;
    options.tool = Companion("ffu");
    options.threads = request.jobs;
    options.keepsTimeLines = !request.html.empty();
    const SweepResult result = RunSweep(scenarios, options);
    const Json report = SweepReport(scenarios, result);
    Show(asJson, report, [&] { PrintReport(report); });
    if (!request.junit.empty()) {
        WriteOutput(request.junit, SweepJunit(report));
    }
    if (!request.html.empty()) {
        WriteOutput(request.html, SweepPage(report, result));
    }
    return report["fine"] ? 0 : 1;
}
