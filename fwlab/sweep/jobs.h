// The plan of a sweep: at which calls of a run the call or the power fails, and how.
#pragma once

#include "simphone/description.h"
#include "simphone/tool_run.h"

#include <string>
#include <vector>

struct SweepScenario {
    Description phone;
    std::string package;   // its file
    StateDirectory before; // what earlier runs have left
    // For the commands that show what was found:
    std::string phoneFile = {};             // its description
    std::vector<std::string> settings = {}; // KEY=VALUE, with which the description was read
    std::string stateFolder = {};           // from which `before` is; empty: none
};

// A fault that a run meets at a call of the base run, the run of its scenario without the fault.
struct SweepJob {
    size_t scenario;
    size_t call; // in the calls of the base run, from 0
    Fault fault;
};

bool ChangesThePhone(const CallEntry& call);
std::vector<size_t> ChangingCalls(const RunResult& run); // those calls, by their place in the run

// At each call: it fails alone, it and all later ones like it fail, the power fails.
std::vector<SweepJob> JobsOf(const RunResult& base, size_t scenario);
