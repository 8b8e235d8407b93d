// The plan of a sweep: at which calls of a run the call or the power fails, and how.
#pragma once

#include "fwlab/sweep/engine.h"

#include <set>

bool ChangesThePhone(const CallEntry& call);
std::vector<size_t> ChangingCalls(const RunResult& run); // those calls, by their place in the run

bool IsTorn(const SweepJob& job); // a power cut in the middle of a write

using Tried = std::set<std::string>; // what was tried in this or an earlier scenario

// At each call: it fails alone, it and all later ones like it fail, the power fails.
// options.skipsRepeats leaves out the jobs at calls up to which an earlier scenario ran the same;
// of more than eight calls of a function on one path, such as those of the UFS trigger test, it
// keeps the first, a middle one and the last. hadState: whether the state directory was there
// before the base run.
std::vector<SweepJob> JobsOf(const RunResult& base, size_t scenario, bool hadState,
                             const SweepOptions& options, Tried& tried);
