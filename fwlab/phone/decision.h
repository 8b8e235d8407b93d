// What a phone would do with a package, and what has become of one that did it. The phone's own
// routines decide it. Every command that says what a phone does calls this.
#pragma once

#include "fwlab/package/package.h"
#include "fwlab/phone/device.h"
#include "fwlab/phone/record.h"
#include "fwlab/phone/verdict.h"
#include "simphone/power_loss.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>
#include <vector>

// What a step comes to, and why. The sentence is a format for people: its names stand for what is
// known of the device, its record and these entries.
struct Reason {
    Verdict verdict; // if the run ends so; UPDATED: it goes on
    const char* sentence;
    const Entry* entry = nullptr;
    const Entry* other = nullptr;
    const Field* field = nullptr;
};

struct Step {
    const char* name;
    const Entry* entry; // the one that it selects; null for none
    Reason reason;
    Texts messages;       // what the phone would log
    bool GoesOn() const { // to the next step, or to the download
        return reason.verdict == Verdict::UPDATED;
    }
};

// The verdict is one of UPDATED to RECORD_UNREADABLE. It is RECORD_UNREADABLE, too, if no run can
// read the record that the attempt leaves (`recorded` has a value), even if the device gets the
// entry.
struct Decision {
    const Package* package;
    Device device;
    std::optional<Record> record; // that the phone has before
    Reason reason;
    Verdict verdict;                     // that of the reason
    std::vector<Step> steps;             // in order, as far as the phone gets
    std::optional<std::string> recorded; // the revision that goes on record, as text
    const Entry* sent;                   // the entry whose body the device gets; null for none
    std::string_view sentBody;           // as much of it as the device gets
    const Entry* PreCheck() const {      // the one that it selects; null for none
        return steps.front().entry;
    }
};
std::string Sentence(const Reason& reason, const Decision& decision); // without a stop at the end
std::string WhyOf(const Decision& decision);                          // that of its reason

// record: the phone's record of attempts, if it has made any. Assumes that the device accepts what
// it gets. The package must live as long as the decision.
Decision Decide(const Package& package, const Device& device,
                const std::optional<Record>& record = {});

// The same for a phone with this state directory.
Decision Decide(const Package& package, const Device& device, const StateDirectory& state);

// The content of its record; none if there is none.
std::optional<std::string> RecordIn(const StateDirectory& state);

// What has become of the phone, for which `decision` was made, by runs with the package. taken: the
// firmware that the device took and will run or runs after a restart; empty for none. before,
// after: the state directory.
Verdict Judge(const Decision& decision, const std::string& taken, const StateDirectory& before,
              const StateDirectory& after);

// Whether `taken` is, to its last byte, what the decision says that the device gets.
bool IsSent(const Decision& decision, const std::string& taken);

// "answer" (see WordOf), "why", the entries by their numbers (null for none), the revision that
// goes on record, the number of bytes that the device gets, and the steps.
nlohmann::ordered_json ReportOf(const Decision& decision);

// What is wrong with the entry. A device that it describes must get exactly its body, from each of
// its base revisions. A device that the update knows under another name may get the entry with that
// name and the same revision instead. Not checked: whether the entry lies inside another one.
Texts FindingsOf(const Package& package, const Entry& entry);

// Stop with 1 if an entry has a finding, or needs GKI mode where that is not said.
void RequireFlawless(const Package& package, bool withLargeEmmc);

// Hints for the user, such as what some phones do not accept; forAnyPhone: and what depends on the
// running revision.
Texts NotesOf(const Entry& entry, bool forAnyPhone = false);
bool NeedsGkiMode(const Entry& entry);
