// What phone.toml says: the device, its answers, the clock and the calls that fail. Read by the
// library at the start of a run and by the workstation side; emmc.toml and ufs.toml explain every
// key.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

// What becomes of a file of /data/vendor/fw in a power cut, where not all survives that was done to
// it: what was not synced is lost; or it is there without a byte; or it is gone, as its removal
// survives and its new making does not.
enum class Loss { kLost, kEmpty, kGone };
using Losses = std::map<std::string, Loss>; // by name; "." is the directory

// A call that fails. `seen` counts the matching calls of the run; `met` once it had its effect.
struct Fault {
    enum Effect { kErrno, kNull, kReturns, kShort, kTorn, kEnd, kEndAfter };
    std::string call; // a function, a device request, or "any"
    std::string path; // empty: on any path
    long first, last; // numbers among the matching calls, from 1
    Effect effect;
    long value;    // the error number, the count of bytes or the result
    Losses losses; // of a power cut
    std::string text;
    long seen;
    bool met;
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

// The words of a fault, such as "lost=fw_result,ffu.bgn empty=ffu.ok".
std::string LossText(const Losses& losses);

// True if the call can have the effect; `any` can have every one.
[[nodiscard]] bool CanHave(const std::string& call, Fault::Effect effect);
