// Every call of a run fails, and the power fails at every call: whole runs by the thousand on
// simulated phones, shared out to processes. Called by `fwlab sweep` and by the test of the tool.
// Everything happens in a temporary directory that is removed, after an interruption too.
#pragma once

#include "fwlab/text.h"
#include "simphone/power_loss.h"
#include "simphone/tool_run.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

struct SweepScenario {
    std::string name, phone, package; // the files of the description and of the package
    StateDirectory before;            // what an earlier run has left
};

// A fault that a run meets at a call of the base run, the run of its scenario without the fault.
struct SweepJob {
    size_t scenario;
    size_t call;     // in the calls of the base run, from 0
    std::string way; // "EIO", "short=1", "end", ...
    std::string fault;
    bool isPowerCut;
};

// What a phone is left with; the worst one last.
enum class Fate {
    UPDATED,      // the device has taken the firmware whole
    UPDATED_NEXT, // it will, from the next run
    UNTOUCHED,    // nothing was attempted, and the next run attempts nothing
    USED_UP,      // the attempt is on record, the device is not updated, and no run tries again
    STUCK,        // later runs stop as they cannot read the record
    OTHER_IMAGE   // the device has taken other bytes than in the run without a fault
};

// One run, for whoever looks at each of them. Without a job it is the base run.
struct SweepRun {
    enum Kind { BASE, FAILING_CALL, POWER_CUT, NEXT }; // NEXT: a normal run on what was left
    Kind kind;
    const SweepScenario* scenario;
    const RunResult* base; // of the scenario; for the base run itself that run
    const SweepJob* job;
    RunResult run;
    StateDirectory before, after;
    std::string phone; // its directory
};
// Returns what is wrong about the run. Called in the process that made it.
using SweepCheck = std::function<Texts(const SweepRun& run)>;

struct SweepOptions {
    std::string tool, phoneLibrary; // the latter empty: beside the tool
    unsigned processes = 0;         // 0: one for each processor
    bool skipsRepeats = false;      // runs that would hardly differ from others, see JobsOf
    bool cutsEverywhere = false;    // also at calls that change nothing
    size_t everyNth = 1;            // only each Nth job
    bool stopsAtFirst = false;      // violation
    bool keepsTimeLines = false;
    SweepCheck check = {};
    std::function<void(size_t done, size_t all)> progress = {}; // of the jobs
};

// What is left after a job, by what a power cut may lose; nothing where the job was not done. Time
// lines by their keys in SweepResult.
struct SweepLeft {
    std::string losses; // the words behind the fault
    Fate fate;
    std::string nextTimeLine; // of the run that followed
};
struct SweepJobResult {
    std::vector<SweepLeft> left;
    std::string timeLine;
};
struct SweepViolation {
    size_t scenario;
    size_t call;             // in the calls of the base run, from 0
    std::string fault, text; // the fault is empty for the base run
};
struct SweepResult {
    int interruptedBy = 0; // the signal that ended it early
    std::vector<RunResult> bases;
    std::vector<Fate> baseFates;
    std::vector<std::string> baseImages; // what the device has taken
    std::vector<SweepJob> jobs;
    std::vector<SweepJobResult> results; // of each job
    std::vector<SweepViolation> violations;
    size_t runs = 0, states = 0; // all runs made; distinct states that a normal run followed
    std::map<std::string, std::string> timeLines; // distinct ones, see TimeLineText; if kept
};

// Throws Stop if a phone cannot be made or run. SIGINT, SIGTERM and SIGHUP end it early.
SweepResult RunSweep(const std::vector<SweepScenario>& scenarios, const SweepOptions& options);

// Both logs and the device's requests, "source\ttext\n" a line; printable.
std::string TimeLineText(const RunResult& run);

// The requests of a run that change the device, or those up to a call, as a letter each, a capital
// one if the device took it: G for a write to the GKI node (s: a part was taken), D and I for the
// download and install requests, B for WRITE BUFFER, r for a reset.
std::string Updates(const RunResult& run, long last = -1);
bool IsComplete(char update); // by it the device has the firmware whole

bool HasFailed(const CallEntry& call);

// Whether a run may go on to its download after this failure of a call.
bool MayGoOn(const CallEntry& call, const std::string& way);
