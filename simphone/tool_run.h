// One run of an unmodified tool on a simulated phone. Called by the simphone command, by fwlab and
// by the tests.
#pragma once

#include "simphone/journal.h"
#include "simphone/phone.h"
#include "simphone/power_loss.h"

#include <string>
#include <vector>

struct RunOptions {
    std::vector<Fault> faults; // before those of the phone
    // Words before the tool, such as {"qemu-aarch64"}; the launcher must take `-E NAME=VALUE` for
    // the environment of what it starts, as qemu's user emulation and strace do.
    std::vector<std::string> launcher;
    std::string libsimphone;    // its path; empty: beside the tool, else this program's companion
    unsigned secondsLimit = 60; // 0: none
};

struct RunResult {
    int exitStatus; // -1 when a signal ended it
    int signal;     // 0 when it ended by itself; 9 for a power cut
    bool timedOut;  // ended because secondsLimit had passed
    std::string console;
    std::string errors; // its standard error
    std::vector<CallEntry> calls;
    StateDirectory before, after;   // after: before a power cut loses anything
    std::vector<Fault> unmetFaults; // of the options: no call of the run had their effect
};

// The path of a file that comes with this program: beside it, where a build leaves it, else in
// ../libexec/ffu from there, where an installation has it (whether it is there or not).
std::string Companion(const std::string& name);

// Runs the tool on the phone until it ends, alone: a second run on the phone is refused. After a
// power cut, /data/vendor/fw is as the fault says. Its outputs and the journal of its calls stay in
// console.log, errors.log and journal.log of the phone's directory. May be called by several
// threads at once. The tool ends with the thread that called, and gets no signal that this program
// holds back. Throws std::runtime_error for the user, if the tool could not be started or its run
// not be kept, or if a power cut cannot have left what its fault says.
[[nodiscard]] RunResult RunTool(const Phone& phone, const std::string& tool,
                                const RunOptions& options);

// The system log, the device's requests and the console in the order in which they came: "log",
// "device" or "console", and one line, printable.
struct TimeLineEntry {
    const char* source;
    std::string text;
};
[[nodiscard]] std::vector<TimeLineEntry> TimeLine(const RunResult& run);
