// Judges a run of a sweep: whether what must hold for every package holds, and what the run leaves.
#pragma once

#include "fwlab/sweep/engine.h"

std::string RecordOf(const StateDirectory& state); // the record's content; empty without one

// Whether these requests (see Updates) asked the device to take a firmware; a reset does not.
bool IsAttempt(const std::string& updates);

// The image that the device has taken and will run after a restart; empty: none.
std::string TakenImage(const std::string& phone);

// What must hold and does not, a text each.
Texts Violated(const SweepRun& made);

// Whether the run ended between the record's opening and its sync.
bool IsRecordOpen(const RunResult& run);

// What a run leaves the phone with. The run made the requests `updates` and left the device with
// the image `taken`. `next` is the normal run after it. `wanted` is the image that the device takes
// without a fault.
Fate FateOf(const std::string& updates, const std::string& taken, const SweepRun& next,
            const std::string& wanted);
