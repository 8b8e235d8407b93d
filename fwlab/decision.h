// What a phone would do with a package: the decisions of its own routines, put together. Every
// command that says something about a phone asks here.
#pragma once

#include "fwlab/device.h"
#include "fwlab/package.h"
#include "fwlab/record.h"

#include <optional>

// The base revisions of an entry, without free slots and what no device can have; nothing if it
// applies to any revision.
std::optional<Texts> BaseRevisionsOf(const Identity& identity);

enum class Verdict {
    UPDATE,      // the device is sent the entry that the pre-check saw
    NOTHING,     // nothing to do, nothing on record
    REFUSED,     // the same, as the running revision is none of the entry's base revisions
    ATTEMPTED,   // the revision is on record already
    STOPS,       // the record cannot be read back: the run stops, as will all later ones
    USED_UP,     // the attempt goes on record, and the device does not get the entry
    WRONG_IMAGE, // the attempt goes on record, and the device gets another entry's image
    STUCK,       // the update is made, but its record could never be read back
};
const char* NameOf(Verdict verdict); // in lower case, for programs: "used-up"

struct Step {
    const char* name;
    bool goesOn;
    const Entry* entry; // that it takes; null without one
    std::string reason;
    Texts messages; // what the phone would log
};

struct Decision {
    Verdict verdict;
    std::string why;         // the answer, for people, with what to change
    std::vector<Step> steps; // in their order, as far as the phone gets; the first always is
    std::string recorded;    // the revision that goes on record, as text; else empty
    const Entry* sent;       // the entry whose body the device is sent; null for none
    size_t sentSize;         // bytes of that body
    const Entry* PreCheck() const {
        return steps.front().entry;
    }
};
// The phone has made the attempts of record, if there is one. The device is taken to accept what it
// is sent.
Decision Decide(const Package& package, const Device& device, const Record* record = nullptr);

// What is wrong with the entry. Devices that it describes must be sent exactly its body from each
// of its base revisions; one that the update knows by another name may be sent the entry of that
// name, with the same revision. Not asked: whether the entry lies inside another one.
Texts FindingsOf(const Package& package, const Entry& entry);

// What some phones do not take: for the user to know.
Texts NotesOf(const Entry& entry);
Texts NotesForAnyPhone(const Entry& entry); // with what depends on the revision that runs
bool NeedsGkiMode(const Entry& entry);
