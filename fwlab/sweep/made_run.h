// One run of the tool on a simulated phone, and what lay there before and after it. A sweep makes
// its runs so, and so does the rehearsal that shows what a sweep has found.
#pragma once

#include "simphone/phone.h"
#include "simphone/power_loss.h"
#include "simphone/tool_run.h"

#include <string>
#include <vector>

struct MadeRun {
    std::vector<Fault> faults;
    RunResult run;
    StateDirectory before, after; // the state directory; after: before a power cut loses anything
};

// The losses of the faults are left to the caller, and so are faults that met no call. Stop if the
// run could not be kept, or if it was this machine that ended the tool.
MadeRun MakeRun(const Phone& phone, const std::string& tool, const std::string& phoneLibrary,
                const std::vector<Fault>& faults);

// After a power cut: the state directory loses what the fault says. Stop if the cut cannot leave
// that.
void LoseUnsynced(const Phone& phone, const MadeRun& made);

bool IsPowerCut(const Fault& fault);

// The image that the device has taken and will run after a restart; empty: none. Stop if it cannot
// be read.
std::string TakenImage(const Phone& phone);

// The state directory becomes so. Stop if it cannot be written.
void PutState(const Phone& phone, const StateDirectory& state);
