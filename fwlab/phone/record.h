// The record of attempts, read as the phone reads it.
#pragma once

#include "fwlab/base/text.h"

struct Record {
    bool isReadable;
    std::string base, target; // revisions of the last attempt, as text
    std::string time;         // of the last attempt, as the record has it; empty without one
    std::string product;      // of the last attempt
    Texts messages;           // why it cannot be read
    Texts earlierTimes;       // of the attempts before the last one, the latest first
};
// content may be the end of a long record, from the beginning of a line on.
Record ParseRecord(const std::string& content);
Record ReadRecord(const std::string& path); // Stop or std::system_error if it cannot be read

// Whether the phone finds that the last attempt on record was for this revision.
bool IsOnRecord(const Record& record, const std::string& revision);

// The record that a run writes for this attempt, with a fixed time. Values end at a zero byte.
std::string RecordText(const std::string& product, const std::string& base,
                       const std::string& target);
