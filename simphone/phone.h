// The simulated phone as the workstation sees it: a directory that is made, run, restarted and
// read. Called by the simphone command, by fwlab and by the tests. A failure leaves the directory
// as far as it got; nothing outside of it is written.
#pragma once

#include "files.h"

#include <string>
#include <vector>

// One line of calls.log: a call that the tool (or libsgutils2 for it) made.
struct CallEntry {
    long number;           // 1 for the first call of the run; the clock of all three logs
    std::string function;  // plain name: "open" for open, open64 and their checked variants
    std::string path;      // as the tool named it; for a descriptor, as it was opened; "-" without
    std::string arguments; // "fd=3 count=512"; "pointer=0x..." for free and munmap
    std::string result;    // decimal, or 0x... for a pointer
    std::string error;     // "ENOENT" where the call failed, else empty
    bool replaced;         // by a fault: nothing was done
};

// One message to the system log.
struct SystemLogEntry {
    long number;            // the call's number
    long long consoleBytes; // bytes on the standard output before it
    int priority;
    std::string tag; // "-" for a null tag
    std::string text;
};

// One request to the storage device and its answer, as requests.log has it:
// "SG_IO WRITE BUFFER cdb=3b0e... data=1024 timeout=300000ms -> GOOD".
struct DeviceRequest {
    long number;
    long long consoleBytes;
    std::string text;
};

struct RunOptions {
    std::vector<std::string> faults; // before those of phone.toml; the same syntax
    // Words before the tool, such as {"qemu-aarch64"}; the launcher must take `-E NAME=VALUE` for
    // the environment of what it starts, as qemu's user emulation and strace do.
    std::vector<std::string> launcher;
    std::string libsimphone; // its path; empty: beside the tool, else this program's companion
    unsigned secondsLimit = 60;
};

struct RunResult {
    // Why the tool could not be started, or why a power cut cannot have left what its fault says;
    // empty if it ran.
    std::string error;
    int exitStatus; // -1 when a signal ended it
    int signal;     // 0 when it ended by itself; 9 for a power cut
    bool timedOut;  // ended because secondsLimit had passed
    std::string console;
    std::string errors; // its standard error
    std::vector<SystemLogEntry> systemLog;
    std::vector<DeviceRequest> requests; // of this run only
    std::vector<CallEntry> calls;
    std::vector<std::string> unmetFaults; // of the options: no call of the run had their effect
};

// Makes a phone in `directory`, which must be missing or empty, after the description (see
// emmc.toml and ufs.toml). The description is copied to phone.toml there and may be edited between
// runs.
[[nodiscard]] bool MakePhone(const std::string& descriptionFile, const std::string& directory,
                             std::string& error);

// Copies a firmware package to the place where the phone's technology has it.
[[nodiscard]] bool PutPackage(const std::string& packageFile, const std::string& directory,
                              std::string& error);

// The path of a file that comes with this program: beside it, where a build leaves it, else in
// ../libexec/ffu from there, where an installation has it (whether it is there or not).
std::string Companion(const std::string& name);

// Runs an unmodified tool on the phone until it ends; after a power cut, /data/vendor/fw is as the
// fault says. Its output is kept in console.log and errors.log of the phone's directory, beside
// calls.log, system.log, faults.log (the faults that were met; these start afresh) and requests.log
// (which grows, one line "run" before each run).
[[nodiscard]] RunResult RunTool(const std::string& directory, const std::string& tool,
                                const RunOptions& options);

// Both logs and the device's requests, in the order in which they came: "log", "console" or
// "device", and one line, printable.
struct TimeLineEntry {
    const char* source;
    std::string text;
};
[[nodiscard]] std::vector<TimeLineEntry> TimeLine(const RunResult& run);

// Restarts the phone: a firmware that is pending becomes the running one, what was downloaded but
// not installed is lost, and nothing below data/ changes.
[[nodiscard]] bool RebootPhone(const std::string& directory, std::string& error);

// What `simphone show` prints: identity nodes, running and pending revision, the state directory.
[[nodiscard]] bool ShowPhone(const std::string& directory, std::string& text, std::string& error);
