// The record of attempts, read as the phone reads it.
#pragma once

#include "fwlab/text.h"

struct Record {
    bool isReadable;
    std::string base, target; // revisions of the last attempt, as text
    std::string time;         // of the last attempt, as the record has it; empty without one
    std::string product;      // of the last attempt
    Texts messages;           // why it cannot be read
    bool isOnly;              // it is the first attempt on record
    std::string timeBefore;   // of the attempt before it
};
// content may be the end of a long record, from the begin of a line on.
Record ParseRecord(const std::string& content);
Record ReadRecord(const std::string& path); // of a regular file; Stop if it cannot be read

// Whether the phone takes the last attempt on record for one at this revision.
bool IsOnRecord(const Record& record, const std::string& revision);

// The record that a run makes of this attempt, behind a time. Values end at a zero byte.
std::string RecordText(const std::string& product, const std::string& base,
                       const std::string& target);

// What the phone's routines said since the last call, oldest first, without line ends. Neither of
// the phone's logs is there on a desk: fwlab keeps both.
Texts TakePhoneMessages();
