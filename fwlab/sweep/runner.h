// Makes every call of a run fail, and the power fail at every call: thousands of runs on simulated
// phones, in several threads. Called by `fwlab sweep` and by the test of the tool. The phones are
// in a temporary folder, which is removed at the end, after an interruption too.
#pragma once

#include "fwlab/base/text.h"
#include "fwlab/phone/decision.h"
#include "fwlab/sweep/jobs.h"
#include "fwlab/sweep/judge.h"

#include <functional>
#include <optional>
#include <unordered_set>

// One run, for a check of all runs.
struct SweepRun {
    // NEXT: a normal run after the job's; LATER_CUT: the power fails in such a run.
    enum Kind { BASE, FAILING_CALL, POWER_CUT, NEXT, LATER_CUT };
    Kind kind;
    size_t scenario;
    const RunResult* base; // the scenario's base run; may be this one
    const SweepJob* job;   // null for the base run and for normal runs after it
    std::string phone;     // its directory
    const RunResult* run;
};
// Returns what is wrong with the run. Called in several threads at once.
using SweepCheck = std::function<Texts(const SweepRun& run)>;

struct SweepOptions {
    std::string tool, phoneLibrary; // phoneLibrary empty: beside the tool
    unsigned threads = 0;           // 0: one for each processor
    bool keepsTimeLines = false;
    // Called with the jobs of each scenario, in their order: may leave some out.
    std::function<void(const RunResult& base, std::vector<SweepJob>& jobs)> select = {};
    SweepCheck check = {};
};

// Both logs and the device's requests of a run, in their order: each line is its source (log,
// device or console), a blank and the text. The lines are among SweepResult.texts. Empty if not
// kept.
using SweepTimeLine = std::vector<const std::string*>;

// A phone that a job has left, and what the normal run on it came to.
struct SweepState {
    Verdict verdict;
    bool isWrong;           // a run that followed violates what must hold
    SweepTimeLine timeLine; // of the normal run
};

// What a job leaves: a state for each loss that its power cut may cause.
struct SweepLeft {
    Losses losses;
    size_t state; // in SweepResult.states
};
struct SweepJobResult {
    std::vector<SweepLeft> left; // one at least
    bool isWrong;                // its own run violates what must hold
    SweepTimeLine timeLine;
};

struct SweepViolation {
    Wrong wrong;
    size_t scenario, call; // the call as in SweepJob; 0 for the base run
    // The fault of each run of the course that shows it, the last one's too; none: a normal run.
    std::vector<std::optional<Fault>> course;
    std::string detail; // of the caller's check
    size_t order;       // of the work that has found it
};

// The run of a scenario without a fault.
struct SweepBase {
    Package package = {};
    Decision decision = {}; // what was to be expected; points into the package
    RunResult run = {};
    SweepTimeLine timeLine = {};
    Verdict verdict = {};
};

struct SweepResult {
    std::vector<SweepBase> bases;
    std::vector<SweepJob> jobs;          // by scenario and call
    std::vector<SweepJobResult> results; // of each job
    std::vector<SweepState> states;      // each distinct phone once
    std::vector<SweepViolation> violations;
    size_t runs = 0;
    std::unordered_set<std::string> texts; // to which time lines point
};

// The result is the same for any number of threads. Stop if a phone cannot be made or run, if a
// single run could not be kept, and if a signal interrupts it (see WorkFolder).
SweepResult RunSweep(const std::vector<SweepScenario>& scenarios, const SweepOptions& options);
