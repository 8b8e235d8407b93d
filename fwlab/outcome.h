// The files that runs leave on a phone, read as the phone reads them.
#pragma once

#include "fwlab/package.h"

struct Record {
    bool isReadable;
    std::string base, target; // revisions of the last attempt
    Texts messages;           // why it cannot be read
};
Record ReadRecord(const std::string& path);

// Whether the phone takes revision for the one that the last attempt was for.
bool IsAttempted(const Record& record, const std::string& revision);

// How the last run ended and what the next one will do. isFine when a run came to its regular end
// and neither a failed update nor a damaged record is left.
struct StateReport {
    bool isFine;
    std::string text;
};
StateReport DescribeState(const std::string& directory);
