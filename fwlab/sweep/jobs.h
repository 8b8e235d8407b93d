// The plan of a sweep: at which calls of a run the call or the power fails, and how.
#pragma once

#include "simphone/description.h"
#include "simphone/power_loss.h"
#include "simphone/tool_run.h"

#include <map>
#include <set>
#include <string>
#include <vector>

struct SweepScenario {
    Description phone;
    std::string package;   // its file
    StateDirectory before; // what earlier runs have left
};

// A fault that a run meets at a call of the base run, the run of its scenario without the fault.
struct SweepJob {
    size_t scenario;
    size_t call; // in the calls of the base run, from 0
    Fault fault;
};

bool ChangesThePhone(const CallEntry& call);
std::vector<size_t> ChangingCalls(const RunResult& run); // those calls, by their place in the run

// What was tried in the scenarios so far.
struct Tried {
    std::map<std::pair<size_t, std::string>, size_t> beginnings; // of runs: one call longer each
    std::set<std::string> tornWrites;
};

// At each call: it fails alone, it and all later ones like it fail, the power fails.
// With `tried` it leaves out the jobs at calls up to which an earlier scenario ran the same; of
// more than eight calls of a function on one path, such as those of the UFS trigger test, it keeps
// the first, a middle one and the last. cutsEverywhere: the power fails also before calls that
// change nothing. hadState: whether the state directory was there before the base run.
std::vector<SweepJob> JobsOf(const RunResult& base, size_t scenario, bool hadState,
                             bool cutsEverywhere, Tried* tried);
