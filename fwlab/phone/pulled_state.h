// A state directory that was pulled from a phone, for runs that start from it.
#pragma once

#include "simphone/power_loss.h"

// The files of runs in the directory; others are left out. Stop with 2 if one of them is not a
// regular file or cannot be read, or if there is none.
StateDirectory ReadPulledState(const std::string& directory);
