// Explains a phone's state directory, from the flags and the record that a run can leave there.
// Called by hand and after a rehearsal; only reads.
#include "fwlab/outcome.h"

#include "fwlab/commands.h"
#include "fwlab/record.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "simphone/files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

struct State {
    bool begun, ended, passed, failed, recorded;
};

std::string LastRun(const State& state) {
    if (state.begun && state.ended) {
        return "The last run left both run flags, as one could not be removed.";
    }
    if (state.ended) {
        return std::string("The last run came to its regular end: it ") +
               (state.passed ? "updated the device, or found nothing to do after a run that had."
                             : "found nothing to do.");
    }
    if (!state.begun) {
        return "The last run could not create its begin flag or its end flag.";
    }
    const std::string when = state.passed     ? "the power failed after its update"
                             : state.failed   ? "its update failed"
                             : state.recorded ? "the power failed during its update"
                                              : "it found no storage device";
    return "The last run stopped before its regular end (or is under way): " + when +
           ", or it could not use the device's nodes, the package or the record.";
}

std::string LastUpdate(const State& state, const std::string& time) {
    if (state.passed && state.failed) {
        return "It cannot be told whether the last update passed: both outcome flags are there.";
    }
    if (state.passed || state.failed) {
        return fmt::format("The last update that was started {} ({}).",
                           state.passed ? "passed" : "failed", time);
    }
    return state.recorded ? "The last update that was started has no outcome."
                          : "No update was started.";
}

std::string NextRun(const State& state, const Record& record) {
    if (!state.recorded) {
        return "The next run will attempt the update that its package has for the device, if any.";
    }
    if (!record.isReadable) {
        return fmt::format("The next run that has an update to attempt will stop without it, as "
                           "will all later ones: fw_result cannot be read back ({}).",
                           fmt::join(record.messages, "; "));
    }
    return fmt::format(
        "The next run will not attempt {} (again), which was attempted from {}; it "
        "will attempt any other that its package has for the device, unless {} begins with "
        "it.",
        Quoted(record.target), Quoted(record.base), Quoted(record.target));
}

} // namespace

StateReport DescribeState(const std::string& directory) {
    const auto file = [&](const char* phonePath) {
        return directory / fs::path(phonePath).filename();
    };
    const auto has = [&](const char* phonePath) { return fs::exists(file(phonePath)); };
    const State state = {has(BEGIN_FLAG), has(END_FLAG), has(OK_FLAG), has(FAIL_FLAG),
                         has(RESULT_FILE)};
    const Record record =
        state.recorded ? ReadRecord(file(RESULT_FILE)) : Record{true, "", "", "", "", {}};
    const std::string next = NextRun(state, record);
    if (!state.begun && !state.ended && !state.passed && !state.failed && !state.recorded) {
        return {false, "No run has left a trace: the tool never ran here, or could not create its "
                       "begin flag. " +
                           next};
    }
    std::string time;
    (void)ReadWholeFile(file(state.passed ? OK_FLAG : FAIL_FLAG), time); // there may be none
    time = Escaped(time.substr(0, time.find('\n')));
    return {state.ended && !state.begun && !state.failed && record.isReadable,
            LastRun(state) + " " + LastUpdate(state, time) + " " + next};
}

int Outcome(const std::string& directory) {
    Require(fs::is_directory(directory), 2, directory + ": not a directory");
    const StateReport report = DescribeState(directory);
    fmt::print("{}\n", report.text);
    return report.isFine ? 0 : 1;
}
