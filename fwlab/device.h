// The device that a package is for.
#pragma once

#include "fwlab/layout.h"
#include "fwlab/text.h"
#include "simphone/description.h"

// A device, with what decides whether it takes an image.
struct Device {
    Identity identity;       // as its nodes and registers show it
    bool gki;                // eMMC: updated by the kernel, without a limit
    uint32_t maxHwSectorsKb; // UFS: the most KiB that its host takes in one request; 0: not known
};
// Stop if no run can read its revision.
Device DeviceOf(const Description& phone);

// The device by what an update knows it by: "0x13 "SIM064" EXT_CSD_REV 8".
std::string Title(const Identity& device);

// A phone by its description: "eMMC (GKI mode) "SIM064", runs "FW000001"".
std::string Title(const Description& phone);

// The settings (KEY=VALUE, see SetKey in keys.h) replace keys of the description. Stop if the file
// cannot be read or is no description of a phone with them.
Description ReadPhone(const std::string& descriptionFile, const Texts& settings = {});
