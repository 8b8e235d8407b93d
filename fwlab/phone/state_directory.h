// The files that runs leave on a phone, read as the phone reads them.
#pragma once

#include "fwlab/phone/record.h"
#include "fwlab/phone/verdict.h"
#include "simphone/power_loss.h"

// What ffu.bgn and ffu.end tell of the last run: one of them is there, both or none.
enum class LastRun { REGULAR, STOPPED, BOTH_FLAGS, NO_FLAG };

// Whose ffu.ok or ffu.fail is: the last attempt's on record, an earlier one's, or it cannot be
// told. Of both flags it cannot be told either.
enum class OutcomeFlag { NONE, LAST, EARLIER, UNTOLD, BOTH };

// What a state directory shows, as far as its files allow only one course of events.
struct StateReport {
    Verdict verdict;
    const char* why; // the format of the sentence
    LastRun lastRun;
    OutcomeFlag flag;
    bool isOk;             // the flag is ffu.ok
    std::string flagTime;  // as the flag has it
    bool hasBody;          // a body of an update is there
    bool hasRecord;        // fw_result is there
    Record record;         // without an attempt all its texts are empty
    std::string irregular; // a file that runs leave, but not a regular one; empty for none
    std::string failure;   // why the verdict is UNREADABLE
};

// Reads regular files only, follows no link in the directory, and never waits.
StateReport ReadState(const std::string& directory);

// Whether nothing could be read of any phone: NOT_PULLED, FOREIGN or UNREADABLE.
bool IsNoPhone(Verdict verdict);

// The last attempt on record passed: its flag says so, however the last run ended.
bool HasPassed(const StateReport& report);

// Printable: the verdict's word, the reason, what the next run will do.
std::string Sentence(const StateReport& report);

// The state directories at these directories and below them, each once, in this order and sorted by
// name, with folders that are where a state directory should be; a directory itself if there are
// none in it. Links below are not followed.
Texts StateDirectoriesIn(const Texts& directories);

// A state directory that was pulled from a phone, for runs that start from it: the files of runs;
// others are left out. Stop with 2 if one of them is not a regular file or cannot be read, or if
// there is none.
StateDirectory ReadPulledState(const std::string& directory);
