#include "fwlab/phone/verdict.h"

#include <algorithm>
#include <iterator>

namespace {

struct Words {
    const char *word, *sentence;
};

// In the order of the enumerators.
constexpr Words WORDS[] = {
    {"updated", "the device takes the entry that is for it"},
    {"nothing-to-do", "the package has no other revision for it, and nothing is attempted"},
    {"refused", "the running revision is not among the entry's base revisions"},
    {"already-attempted", "the last attempt on record was for the entry's revision"},
    {"used-up",
     "the attempt is on record, the device does not take the entry, and no run tries again"},
    {"wrong-image", "the device takes an image that is not for it"},
    {"record-unreadable", "no run can read the record, so every run that has an update stops"},
    {"interrupted", "an attempt was begun, and its run did not end"},
    {"failed", "the last attempt failed"},
    {"stopped", "a run ended early, outside of an attempt"},
    {"updated-next", "the first run does not update it, the next one does"},
    {"unknown", "more than one course of events is possible"},
    {"not-pulled", "there is no file: nothing was pulled from the phone"},
    {"foreign", "there are files, but none of a run: it is no state directory"},
    {"unreadable", "the files cannot be read from here"},
};
static_assert(std::size(WORDS) == static_cast<size_t>(Verdict::UNREADABLE) + 1);

} // namespace

const char* WordOf(Verdict verdict) {
    return WORDS[static_cast<size_t>(verdict)].word;
}

const char* SentenceOf(Verdict verdict) {
    return WORDS[static_cast<size_t>(verdict)].sentence;
}

bool IsCalm(Verdict verdict) {
    return verdict == Verdict::UPDATED || verdict == Verdict::NOTHING_TO_DO ||
           verdict == Verdict::REFUSED || verdict == Verdict::ALREADY_ATTEMPTED;
}

std::string InWords(Verdict verdict, const std::string& why) {
    std::string word = WordOf(verdict);
    std::transform(word.begin(), word.end(), word.begin(), [&](unsigned char c) {
        return c == '-' ? ' ' : static_cast<char>(IsCalm(verdict) ? c : toupper(c));
    });
    return word + ": " + why;
}
