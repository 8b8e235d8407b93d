// The device that a package is for.
#pragma once

#include "fwlab/base/text.h"
#include "fwlab/package/layout.h"
#include "simphone/description.h"

// A device, and what limits the images that it takes.
struct Device {
    Identity identity;       // from its nodes and registers
    bool gki;                // eMMC: GKI mode, without a limit
    uint32_t maxHwSectorsKb; // UFS: the most KiB that its host takes in one request; 0: unknown
};
// Stop if no run can read its revision.
Device DeviceOf(const Description& phone);

// The fields by which an update selects its entry: "0x13 "SIM064" EXT_CSD_REV 8".
std::string Title(const Identity& device);

// A phone with its running revision: "eMMC (GKI mode) "SIM064", runs "FW000001"".
std::string Title(const Description& phone);

// The settings (KEY=VALUE, see SetKey in keys.h) replace keys of the description. Throws if the
// file cannot be read or, with the settings, does not describe a phone.
Description ReadPhone(const std::string& descriptionFile, const Texts& settings = {});
