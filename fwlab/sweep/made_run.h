// One run of the tool on a simulated phone, for a sweep and for the rehearsal that shows what a
// sweep has found.
#pragma once

#include "simphone/phone.h"
#include "simphone/tool_run.h"

#include <string>
#include <vector>

// Throws if the run could not be kept. Faults that met no call are left to the caller.
RunResult MakeRun(const Phone& phone, const std::string& tool, const std::string& phoneLibrary,
                  const std::vector<Fault>& faults);

// The image that the device has taken and will run after a restart; empty: none. Throws if it
// cannot be read.
std::string TakenImage(const Phone& phone);
