// What becomes of a phone: one vocabulary for every command, its JSON and the documents.
#pragma once

#include <string>

enum class Verdict {
    UPDATED,
    NOTHING_TO_DO,
    REFUSED,
    ALREADY_ATTEMPTED,
    USED_UP,
    WRONG_IMAGE,
    RECORD_UNREADABLE,
    // What only runs that were made can show:
    INTERRUPTED,
    FAILED,
    STOPPED,
    UPDATED_NEXT,
    UNKNOWN,
    // Of a folder, perhaps no phone's:
    NOT_PULLED,
    FOREIGN,
    UNREADABLE,
};

const char* WordOf(Verdict verdict);     // one word for tables and programs: "used-up"
const char* SentenceOf(Verdict verdict); // what it means, without a stop at its end

// Whether a phone is as it should be: updated, or rightly without an update.
bool IsCalm(Verdict verdict);

// For a line of a table: the word and the reason, as "used up: ...", in capital letters unless the
// verdict is calm.
std::string InWords(Verdict verdict, const std::string& why);
