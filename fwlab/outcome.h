// The files that runs leave on a phone, read as the phone reads them.
#pragma once

#include "fwlab/package.h"

// How the last run ended and what the next one will do. isFine when a run came to its regular end
// and neither a failed update nor a damaged record is left.
struct StateReport {
    bool isFine;
    std::string text;
};
StateReport DescribeState(const std::string& directory);
