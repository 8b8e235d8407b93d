// What a phone would do with a package. The phone's own routines decide it. Every command that says
// what a phone would do calls this.
#pragma once

#include "fwlab/package/package.h"
#include "fwlab/phone/device.h"
#include "fwlab/phone/record.h"
#include "fwlab/phone/verdict.h"

#include <optional>

// The base revisions of an entry, each once, without those that no device can have. No value if the
// entry applies to any revision.
std::optional<Texts> BaseRevisionsOf(const Identity& identity);

struct Step {
    const char* name;
    bool goesOn;        // to the next step, or to the download
    const Entry* entry; // the one that it selects; null for none
    std::string reason;
    Texts messages; // what the phone would log
};

// UPDATED to RECORD_UNREADABLE. If no run can read the record that this attempt leaves, that is
// RECORD_UNREADABLE, too: the device gets the entry (`sent`), and later runs stop.
struct Decision {
    Verdict verdict;
    std::string why;         // the reason, for people, and what to change
    std::vector<Step> steps; // in order, as far as the phone gets; the pre-check at least
    std::optional<std::string> recorded; // the revision that goes on record, as text
    const Entry* sent;                   // the entry whose body the device gets; null for none
    size_t sentSize;                     // bytes of that body
    const Entry* PreCheck() const {
        return steps.front().entry;
    }
};
// record: the phone's record of attempts; null if it has made none. Assumes that the device accepts
// what it gets.
Decision Decide(const Package& package, const Device& device, const Record* record = nullptr);

// What is wrong with the entry. A device that it describes must get exactly its body, from each of
// its base revisions. A device that the update knows under another name may get the entry with that
// name and the same revision instead. Not checked: whether the entry lies inside another one.
Texts FindingsOf(const Package& package, const Entry& entry);

// Hints for the user, such as what some phones do not accept.
Texts NotesOf(const Entry& entry);
Texts NotesForAnyPhone(const Entry& entry); // and what depends on the running revision
bool NeedsGkiMode(const Entry& entry);
