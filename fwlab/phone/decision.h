// What a phone would do with a package, and what has become of one that did it. The phone's own
// routines decide it. Every command that says what a phone does calls this.
#pragma once

#include "fwlab/package/manifest.h"
#include "fwlab/phone/device.h"
#include "fwlab/phone/record.h"
#include "fwlab/phone/verdict.h"
#include "simphone/power_loss.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>

// Why a step ends or goes on. `entry` is the one that it is about.
struct Reason {
    enum Kind {
        NONE,
        // Of the pre-check: no entry is selected
        NO_PACKAGE, // of the device's technology
        EMPTY_PACKAGE,
        OTHER_TECHNOLOGY, // the package has entries of the other one
        NO_NAME,          // no entry has the product name
        SIMILAR_NAME,     // `entry` has one that differs in blanks, zero bytes or case
        BODY_BEYOND,      // `entry` has the name, but no body inside the package
        // Of the pre-check: an entry is selected
        NEW_REVISION,
        SAME_REVISION,
        NO_BASE, // the running revision is not among its base revisions
        // Of the record
        LAST_ATTEMPT, // from `from` to `to`
        UNREADABLE_RECORD,
        // Of the update: no entry is selected
        OTHER_FIELD, // `entry`, which has the name, differs from the device in `field`
        OTHER_NAME,  // the update uses another name for the device, which no entry has
        // Of the update: an entry is selected
        RUNS_ALREADY,
        NOT_NEWER,
        OLD_EMMC,
        EMPTY_BODY,
        LARGE_EMMC_BODY,
        LARGE_UFS_BODY,
        HOST_LIMIT, // `limit` KiB in one request
        // Of both together
        INSIDE,            // `entry` lies inside the image of `other`
        OTHER_SELECTED,    // the pre-check selects `entry`, the update `other`
        UNREADABLE_ATTEMPT // the phone cannot read the record that it writes of this attempt
    };
    Kind kind = NONE;
    const Entry* entry = nullptr;
    const Entry* other = nullptr;
    const Field* field = nullptr;
    uint32_t limit = 0;
    std::string from = {}, to = {};
};
// For people, without a stop at the end; empty for NONE.
std::string Sentence(const Reason& reason, const Identity& device);

struct Step {
    const char* name;
    bool goesOn;        // to the next step, or to the download
    const Entry* entry; // the one that it selects; null for none
    Reason reason;
    Texts messages; // what the phone would log
};

// The verdict is one of UPDATED to RECORD_UNREADABLE. It is RECORD_UNREADABLE, too, if no run can
// read the record that the attempt leaves (`recorded` has a value), even if the device gets the
// entry.
struct Decision {
    Verdict verdict;
    Identity device;
    Reason reason;           // for the verdict
    std::vector<Step> steps; // in order, as far as the phone gets; none without a package
    std::optional<std::string> recorded; // the revision that goes on record, as text
    const Entry* sent;                   // the entry whose body the device gets; null for none
    size_t sentSize;                     // bytes of that body
    const Entry* PreCheck() const {      // the one that it selects; null for none
        return steps.empty() ? nullptr : steps.front().entry;
    }
};
std::string WhyOf(const Decision& decision); // the sentence of its reason

// record: the phone's record of attempts; null if it has made none. Assumes that the device accepts
// what it gets.
Decision Decide(const Package& package, const Device& device, const Record* record = nullptr);

// The same for a phone with this state directory.
Decision Decide(const Package& package, const Device& device, const StateDirectory& state);

// The content of its record; null if there is none.
const std::string* RecordIn(const StateDirectory& state);

// For a phone without a package of its technology.
Decision DecideWithoutPackage(const Device& device);

// What has become of the phone, for which `decision` was made, by runs with the package. taken: the
// firmware that the device took and will run or runs after a restart; empty for none. before,
// after: the state directory.
Verdict Judge(const Package& package, const Decision& decision, const std::string& taken,
              const StateDirectory& before, const StateDirectory& after);

// As much of the body as the device gets; empty if it gets none.
std::string_view SentBody(const Package& package, const Decision& decision);

// Whether `taken` is, to its last byte, what the decision says that the device gets.
bool IsSent(const Package& package, const Decision& decision, const std::string& taken);

// "answer" (see WordOf), "why", the entries by their numbers (null for none), the revision that
// goes on record, the number of bytes that the device gets, and the steps.
nlohmann::ordered_json ReportOf(const Decision& decision);

// What is wrong with the entry. A device that it describes must get exactly its body, from each of
// its base revisions. A device that the update knows under another name may get the entry with that
// name and the same revision instead. Not checked: whether the entry lies inside another one.
Texts FindingsOf(const Package& package, const Entry& entry);

// Stop with 1 if an entry has a finding, or needs GKI mode where that is not said.
void RequireFlawless(const Built& built, bool withLargeEmmc);

// Hints for the user, such as what some phones do not accept; forAnyPhone: and what depends on the
// running revision.
Texts NotesOf(const Entry& entry, bool forAnyPhone = false);
bool NeedsGkiMode(const Entry& entry);
