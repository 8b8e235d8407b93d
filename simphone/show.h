// What a phone is and what its runs have left, for people. Called by the simphone command and by
// fwlab. Needs libcrypto, and has a library of its own for that.
#pragma once

#include "simphone/phone.h"

#include <string>

// What `simphone show` prints: identity nodes, running and pending revision, the state directory;
// of what a phone that was made in part lacks, why it cannot be read. Of a file that is no flag and
// no record: size and digest.
std::string ShowPhone(const Phone& phone);
