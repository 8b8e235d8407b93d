// What a phone would choose from a package: the decisions of its own routines, with their reasons.
#pragma once

#include "fwlab/package.h"

#include <optional>

struct Choice {
    const Entry* entry; // of the package; null if none is chosen
    bool goesOn;        // towards an update
    std::string reason;
    Texts messages = {}; // what the phone would log
};

Choice PreCheck(const Package& package, const Identity& device);

// The update's own selection, whatever the pre-check decided.
Choice SelectForUpdate(const Package& package, const Identity& device);

// None: any. Without those that no device can have: free slots.
std::optional<Texts> BaseRevisionsOf(const Identity& identity);

// What is wrong with the size of its body.
Texts SizeFindings(const Entry& entry);

// The one finding that a phone in GKI mode does not mind.
constexpr char LARGE_EMMC_BODY[] = "the body is larger than 1 MiB: only GKI mode takes it";

// What is wrong with the entry itself. A device that it describes must get exactly this entry from
// each of its base revisions; one that the update knows under another name may get an entry for
// that name, of the same revision. Not asked: whether the entry lies inside another one.
Texts FindingsOf(const Package& package, const Entry& entry);

// What the phone's routines said since the last call, oldest first, without line ends. Neither of
// the phone's logs is there on a desk: fwlab keeps both.
Texts TakePhoneMessages();
