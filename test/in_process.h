// The product's routines called by the test program itself, on a phone that is attached to it. What
// no run of the tool reaches is tested so.
#pragma once

#include "test/phone.h"

#include <functional>

// Attaches the phone in `directory` while `calls` calls the product's routines. Everything must be
// given back, as after a run of the tool; there is no exit status.
RunResult RunInProcess(const std::string& directory, const std::function<void()>& calls);

// The calls on pass-through objects of the SCSI library since it was cleared, each with a blank:
// "construct process_resp destruct ".
extern std::string passThroughCalls;
