// The files that runs leave on a phone, read as the phone reads them.
#pragma once

#include "fwlab/phone/record.h"

// What a state directory shows. UNKNOWN if its files allow more than one course of events.
enum class State {
    UPDATED,     // the last attempt on record passed, and the last run ended regularly
    NOTHING,     // the last run ended regularly; no run has made an attempt
    FAILED,      // the last attempt failed
    INTERRUPTED, // the last attempt has no outcome, and a run did not end regularly
    UNKNOWN,     // attempted, perhaps without a download; or the files contradict each other
    STOPPED,     // a run stopped early, outside of an attempt
    DAMAGED,     // no run can read the record: a run that has an update stops there
    FOREIGN,     // no run has left a file
    UNREADABLE,  // the directory or a file in it cannot be read from here
};
const char* NameOf(State state); // one word

struct StateReport {
    State state;
    bool isFine;      // UPDATED or NOTHING
    std::string text; // printable: the state, the reason, what the next run will do
    Record record;    // without an attempt all its texts are empty
};

// Reads regular files only, follows no link in the directory, and never waits.
StateReport DescribeState(const std::string& directory);

// The state directories at directory and below it, sorted by name, with folders that are where a
// state directory should be; directory itself if there are none. Links are not followed.
Texts StateDirectoriesIn(const std::string& directory);

// The names of the files that runs leave in their state directory.
const Texts& StateFileNames();
