// Makes every call of a run fail, and the power fail at every call: thousands of runs on simulated
// phones, in several processes. Called by `fwlab sweep` and by the test of the tool. The phones are
// in a temporary folder, which is removed at the end, after an interruption too.
#pragma once

#include "fwlab/base/text.h"
#include "simphone/power_loss.h"
#include "simphone/tool_run.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

struct SweepScenario {
    std::string name;
    Description phone;
    std::string package;   // the file
    StateDirectory before; // what an earlier run has left
};

// A fault that a run meets at a call of the base run, the run of its scenario without the fault.
struct SweepJob {
    size_t scenario;
    size_t call;     // in the calls of the base run, from 0
    std::string way; // "EIO", "short=1", "end", ...
    Fault fault;
    bool isPowerCut;
};

// What a phone is left with; the worst one last.
enum class Fate {
    UPDATED,      // the device has taken the firmware whole
    UPDATED_NEXT, // the next run updates it
    UNTOUCHED,    // nothing was attempted, and the next run attempts nothing
    USED_UP,      // the attempt is on record, the device is not updated, and no run tries again
    STUCK,        // later runs stop: they cannot read the record
    OTHER_IMAGE   // the device has taken other bytes than in the run without a fault
};

// One run, for a check of all runs.
struct SweepRun {
    enum Kind { BASE, FAILING_CALL, POWER_CUT, NEXT }; // NEXT: the normal run after the job's
    Kind kind;
    const SweepScenario* scenario;
    const RunResult* base; // the scenario's base run; may be this one
    const SweepJob* job;   // null for the base run
    RunResult run;
    StateDirectory before, after;
    std::string phone; // its directory
};
// Returns what is wrong with the run. Called in the process that made the run.
using SweepCheck = std::function<Texts(const SweepRun& run)>;

struct SweepOptions {
    std::string tool, phoneLibrary; // phoneLibrary empty: beside the tool
    unsigned processes = 0;         // 0: one for each processor
    bool skipsRepeats = false;      // leave out runs much like others, see JobsOf
    bool cutsEverywhere = false;    // also at calls that change nothing
    size_t everyNth = 1;            // only each Nth job
    bool stopsAtFirst = false;      // stop at the first violation
    bool keepsTimeLines = false;
    SweepCheck check = {};
    std::function<void(size_t done, size_t all)> progress = {}; // of the jobs
};

// What a job leaves: one SweepLeft for each loss that its power cut may cause; none if the job was
// not done. A time line is given by its key in SweepResult.
struct SweepLeft {
    std::string losses; // the words after the fault, such as "lost=ffu.bgn"
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
    int interruptedBy = 0;           // the signal that ended it early
    std::vector<Description> phones; // of the scenarios
    std::vector<RunResult> bases;
    std::vector<Fate> baseFates;
    std::vector<std::string> baseImages; // what the device has taken in each base run
    std::vector<SweepJob> jobs;
    std::vector<SweepJobResult> results; // of each job
    std::vector<SweepViolation> violations;
    size_t runs = 0, states = 0; // all runs; distinct states from which a normal run started
    std::map<std::string, std::string> timeLines; // by key, each once (TimeLineText); if kept
};

// Throws Stop if a phone cannot be made or run. SIGINT, SIGTERM and SIGHUP end it early.
SweepResult RunSweep(const std::vector<SweepScenario>& scenarios, const SweepOptions& options);

// Both logs and the device's requests, "source\ttext\n" a line; printable.
std::string TimeLineText(const RunResult& run);

// The requests of a run that change the device, up to the call `last` if it is given. A letter
// each, a capital letter if the device took it: G for a write to the GKI node (s: it took a part),
// D and I for the download and install requests, B for WRITE BUFFER, r for a reset.
std::string Updates(const RunResult& run, long last = -1);
bool IsComplete(char update); // whether it gave the device the whole firmware

bool HasFailed(const CallEntry& call);

// Whether a run may still download after the call has failed in this way.
bool MayGoOn(const CallEntry& call, const std::string& way);
