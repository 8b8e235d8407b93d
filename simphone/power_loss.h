// What a power cut leaves of what a run did in /data/vendor/fw. All that was there before the run
// is on the storage, and so is what a file had when it was synced; of later changes, each file's
// survive or not, whatever became of those of the others. Called for a fault that names what is
// lost, and by whoever wants all that a cut can leave.
#pragma once

#include "simphone/fault.h"
#include "simphone/journal.h"

#include <map>
#include <string>
#include <vector>

// /data/vendor/fw: its files, by name. A directory in it is left alone and not listed.
struct StateDirectory {
    bool isThere;
    std::map<std::string, std::string> files;
    std::map<std::string, std::string> removed = {}; // by runs, as they were then; no part of it
};
inline bool operator==(const StateDirectory& one, const StateDirectory& other) {
    return one.isThere == other.isThere && one.files == other.files;
}
// Throws std::system_error if a file of it cannot be read.
StateDirectory ReadStateDirectory(const std::string& phone);

// Makes the phone's directory so; throws std::system_error if it cannot be.
void WriteStateDirectory(const std::string& phone, const StateDirectory& state);

struct Survival {
    Losses losses;
    StateDirectory state;
};

// Every state that the cut can leave, the one that has lost nothing first; no state twice, if
// `isDistinct`. `after` is what lies there when the tool has ended,
// `calls` are those of its run.
//   - A file that was made and not synced is missing, empty or whole. So is one that was removed
//     before it was made anew, or is what it was before.
//   - A file that was appended to is whole or what it was; one that was removed is back or not. One
//     that the run itself has made and removed may be back as well: whole or empty.
//   - What was written and not synced may read as zeros: the size has survived, the bytes have not.
//   - A directory that the run has made is there for sure once a file in it was synced.
std::vector<Survival> Survivals(const StateDirectory& before, const StateDirectory& after,
                                const std::vector<CallEntry>& calls, bool isDistinct = true);
