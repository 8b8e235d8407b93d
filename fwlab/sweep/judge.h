// Judges runs of the tool on a phone: what must hold for every package. Called by the sweep and by
// the rehearsal that shows what a sweep has found.
#pragma once

#include "fwlab/phone/verdict.h"
#include "simphone/tool_run.h"

#include <vector>

// What must not happen.
enum class Wrong {
    NO_END,              // the tool runs on and on
    BAD_END,             // a signal ends it
    RECORD_SHRINKS,      // the record loses what it had
    ASKED_UNRECORDED,    // the device is asked for the update before the attempt is on record
    TAKEN_TWICE,         // the device takes the firmware twice in one run
    ASKED_AFTER_FAILURE, // the device is asked after a failure that must stop the run
    ASKED_AGAIN,         // a later run, without a restart, asks the device for the update again
    RECORD_LOST,         // later runs cannot read the record, though it was synced
    UNEXPECTED           // the caller's own check, see SweepCheck
};
const char* NameOf(Wrong wrong);     // for programs: "asked-again"
const char* SentenceOf(Wrong wrong); // for people, without a full stop

// What is known of the runs so far on a phone, without a restart.
struct Course {
    bool isAsked = false;    // the device was asked for the update
    bool mayBeStuck = false; // it may be that no run can read the record
};

// The course before the first run. `base` is that run without faults.
Course CourseBefore(const RunResult& base);

// What is wrong with the next run of the course, to which it is added. faults: those that the run
// has met. base: the same run without the faults that make calls fail; it may be null for a run
// without such faults.
std::vector<Wrong> WrongsOf(const RunResult& run, const std::vector<Fault>& faults,
                            const RunResult* base, Course& course);

// Whether the run asked the device to take a firmware; a reset does not.
bool IsAttempt(const RunResult& run);

bool HasFailed(const CallEntry& call);

// Whether a run may still download after this call was made to fail.
bool MayGoOn(const CallEntry& call);

// Whether the run could not read the record.
bool IsStuck(const RunResult& run);

// What becomes of a phone, from what two runs in a row leave.
Verdict Judge(Verdict first, Verdict next);
