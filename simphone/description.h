// What phone.toml says: the device, its answers, the clock and the calls that fail. Read by the
// library at the start of a run and by the workstation side; emmc.toml and ufs.toml explain every
// key.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

// A call that fails. `seen` counts the matching calls of the run.
struct Fault {
    enum Effect { kErrno, kNull, kReturns, kShort, kTorn, kEnd, kEndAfter };
    std::string call; // a function, a device request, or "any"
    std::string path; // empty: on any path
    long first, last; // numbers among the matching calls, from 1
    Effect effect;
    long value; // the error number, the count of bytes or the result
    long seen;
};

// How the UFS device answers a WRITE BUFFER that is in order.
struct Answer {
    enum Kind { kGood, kSense, kDescriptorSense, kStatus, kHost, kDriver };
    Kind kind;
    unsigned value; // of a SCSI, host or driver status
    uint8_t key, asc, ascq;
};

struct Description {
    bool ufs;
    bool gki;                               // eMMC only
    std::string revision, firmwareRevision; // raw bytes: at most 8 for eMMC, 4 for UFS
    uint8_t extCsdRev, cid[16];             // eMMC
    std::string manfid, productName; // UFS, as the nodes read; eMMC: productName without line feed
    std::vector<Answer> answers;     // UFS; the last one stays
    uint32_t maxHwSectorsKb;         // UFS: KiB in one request of the host; 0 without a limit
    bool clockFixed;
    tm clock; // local time; tm_sec and the milliseconds below
    int clockMicroseconds;
    std::vector<Fault> faults;
};

// Both return false with a text for the user, which names the file and the key, or the fault.
[[nodiscard]] bool ReadDescription(const std::string& file, Description& description,
                                   std::string& error);
[[nodiscard]] bool ParseFault(const std::string& text, Fault& fault, std::string& error);

// True if the call can have the effect; `any` can have every one.
[[nodiscard]] bool CanHave(const std::string& call, Fault::Effect effect);
