// The journal of a run: a line for each call that the tool made, with what it logged or asked the
// device by it, and a line for each fault, before the first call that it has met. Written by the
// library, read by the workstation side.
//   12 open /data/vendor/fw/ffu.bgn flags=0x42 mode=0770 = 3
//   fault 0 SG_IO #1 EIO
//   13 ioctl /dev/block/sdc fd=3 request=SG_IO = -1 EIO fault @214 SCSI_WRITE_BUFFER NOTHING ...
#pragma once

#include "simphone/fault.h"

#include <optional>
#include <string>
#include <vector>

constexpr char JOURNAL_FILE[] = "/journal.log"; // in the phone's directory
constexpr char LOG_FUNCTION[] = "__android_log_print";
// In the phone's directory: the files that runs have removed from /data/vendor/fw, as they were
// then. Their names end with a word, so that the folder does not pass for a phone's state
// directory.
constexpr char REMOVED_FOLDER[] = "/removed/", REMOVED_SUFFIX[] = ".removed";
// The exit status of a tool that the library ends, as it has no phone or no place for the journal.
constexpr int EXIT_NO_PHONE = 125;

// What a call asks of the storage device. GKI_WRITE is a write to the node of GKI mode.
enum class RequestKind {
    SEND_EXT_CSD,
    FFU_DOWNLOAD,
    FFU_INSTALL,
    OTHER_MMC,
    GKI_WRITE,
    SCSI_WRITE_BUFFER,
    OTHER_SCSI,
    SCSI_RESET
};
// How much of the request the device has accepted and carried out.
enum class Taken { NOTHING, PART, WHOLE };

struct Request {
    RequestKind kind;
    Taken taken;
    // With the answer: "SG_IO WRITE BUFFER cdb=3b0e... data=1024 timeout=300000ms -> GOOD".
    std::string text;
};
// The kind as the journal has it. Of SEND_EXT_CSD, FFU_DOWNLOAD and FFU_INSTALL it is also the name
// by which a fault can meet the request.
const char* KindName(RequestKind kind);

// A call that the tool (or libsgutils2 for it) made.
struct CallEntry {
    std::string function; // plain name: "open" for open, open64 and their checked variants
    // As the tool named it (a Word in its line); for a descriptor or stream, as it was opened; "-"
    // without one.
    std::string path;
    std::string arguments;    // "fd=3 count=512"
    std::string message = {}; // what LOG_FUNCTION was given
    long number = 0;          // 1 for the first call of the run
    std::string result = {};  // decimal, or 0x... for a pointer
    std::string error = {};   // "ENOENT" where the call failed, else empty
    bool replaced = false;    // by a fault: nothing was done
    // With a message or a request: bytes on the standard output before it.
    long long consoleBytes = 0;
    std::optional<Request> request = {};

    bool IsMessage() const {
        return function == LOG_FUNCTION;
    }
};

// The value of name=value among the arguments of a call; empty without one.
std::string Argument(const CallEntry& call, const std::string& name);

// The flags of an open or creat; 0 for other calls.
unsigned long OpenFlags(const CallEntry& call);

struct Journal {
    std::vector<CallEntry> calls;
    std::vector<size_t> faults; // those that the run met, in order, by their place in the run's
    bool isWhole;               // false if it ends in the middle of a line
};

// The lines of a journal, each with its line feed.
std::string CallLine(const CallEntry& call);
std::string FaultLine(size_t place, const Fault& fault);

// The journal of the last run on the phone; throws std::system_error if it cannot be read.
Journal ReadJournal(const std::string& phone);
