// The plan of a sweep: at which calls of a run it lets the call or the power fail, and how.
#pragma once

#include "fwlab/sweep_engine.h"

#include <set>

bool ChangesThePhone(const CallEntry& call);
std::vector<size_t> ChangingCalls(const RunResult& run); // those calls, by their place in the run

bool IsTorn(const SweepJob& job); // a power cut in the middle of a write

using Tried = std::set<std::string>; // what was tried in this or an earlier scenario

// Each call fails alone and with all later ones like it, and the power fails there. Jobs that
// options.skipsRepeats leaves out: at calls whose run up to there was the same in an earlier
// scenario; and of more than eight calls of a function on one path, such as those of the clock or
// of the UFS trigger test, all but the first, the middle one and the last.
// hadState: whether the state directory was there before the base run.
std::vector<SweepJob> JobsOf(const RunResult& base, size_t scenario, bool hadState,
                             const SweepOptions& options, Tried& tried);
