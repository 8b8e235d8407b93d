// What phone.toml says: the device, its answers, the clock and the calls that fail. Read by the
// library at the start of a run and by the workstation side; emmc-phone.toml and ufs-phone.toml
// explain every key.
#pragma once

#include "simphone/fault.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/time.h>
#include <vector>

// How the UFS device answers a WRITE BUFFER that is in order.
struct DeviceAnswer {
    enum class Kind { ACCEPTED, SENSE, DESCRIPTOR_SENSE, STATUS, HOST_STATUS, DRIVER_STATUS };
    Kind kind;
    unsigned value; // of a SCSI, host or driver status
    uint8_t key, asc, ascq;

    bool IsSense() const {
        return kind == Kind::SENSE || kind == Kind::DESCRIPTOR_SENSE;
    }
};

struct Description {
    bool ufs;
    bool gki;                               // eMMC only
    std::string revision, firmwareRevision; // raw bytes: at most 8 for eMMC, 4 for UFS
    uint8_t extCsdRev, cid[16];             // eMMC
    std::string manfid, productName; // UFS, as the nodes read; eMMC: productName without line feed
    std::vector<DeviceAnswer> answers; // UFS; the last one stays
    uint32_t maxHwSectorsKb;           // UFS: KiB in one request of the host; 0 without a limit
    std::optional<timeval> clock;      // where it stands still
    std::vector<Fault> faults;
    std::string text; // from which ReadDescription makes the same one
};

// Reads a description, with other values for the keys that the settings name (KEY=VALUE, see SetKey
// in keys.h). Throws std::runtime_error for the user, which names the file, and the key, or the
// setting.
Description ReadDescription(const std::string& file, const std::vector<std::string>& settings = {});
