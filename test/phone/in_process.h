// The product's routines called by the test program itself, on a phone that is attached to it: what
// no run of the tool reaches. Some of their calls to libraries come here first, by the linker.
#pragma once

#include "test/phone/phone.h"

#include <functional>

// Attaches the phone in `directory` while `calls` calls routines. `refused` names calls of bounded
// functions that fail, as if a size were wrong: "memset_s 2,strncpy_s 1" is the second of the one
// and the first of the other. All must be given back, as after a run; there is no exit status.
RunResult RunInProcess(const std::string& directory, const std::function<void()>& calls,
                       const std::string& refused = "");

// What the last run did with pass-through objects of the SCSI library: "construct", "process_resp"
// and "destruct".
extern Texts passThroughCalls;
