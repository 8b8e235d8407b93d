// The simulated phone as the workstation sees it: a directory that is made, restarted and read.
// Called by the simphone command, by fwlab and by the tests. A failure leaves the directory as far
// as it got, and throws std::runtime_error for the user; nothing outside of it is written.
#pragma once

#include "simphone/description.h"

#include <string>

// The node of an eMMC device's CID.
constexpr char CID_NODE[] = "/sys/class/mmc_host/mmc0/mmc0:0001/cid";

struct Phone {
    std::string directory;
    Description description; // what its phone.toml says
};

// Makes the phone in its directory, which must be missing or empty, and not the root of this
// machine's files. The description's text becomes phone.toml there, which may be edited between
// runs: open the phone again then.
void MakePhone(const Phone& phone);

// The phone that is in the directory.
Phone OpenPhone(const std::string& directory);

// Copies a firmware package to the place where the phone's technology has it.
void PutPackage(const Phone& phone, const std::string& packageFile);

// Restarts the phone: a firmware that is pending becomes the running one, what was downloaded but
// not installed is lost, and nothing below data/ changes.
void RebootPhone(const Phone& phone);
