// A run of the tool on a phone, from the library's side: which calls are the tool's, which of them
// fail, and the journal. Used by interpose.cc only, on the tool's one thread.
#pragma once

#include "simphone/device/device.h"
#include "simphone/journal.h"
#include "simphone/text.h"

#include <cerrno>
#include <exception>
#include <map>
#include <string>
#include <type_traits>

// A descriptor that the tool holds. `node` is set if it leads to the storage device.
enum class Node { NONE, MMC, SCSI, GKI };
struct OpenFile {
    std::string path;
    int flags;
    Node node;
};

struct ActiveFault {
    Fault fault;
    long seen; // matching calls
    bool isMet;
};

struct Session {
    Phone phone; // its directory is resolved, without a slash at the end
    std::map<int, OpenFile> descriptors;
    size_t scsiRequests;
    long calls;
    std::vector<ActiveFault> faults; // those of the command line before those of the phone
    int journal;
};

// One call of the tool, as it is matched against the faults and written down.
struct Call : CallEntry {
    const char* alias = "";       // the name of a device request
    const Reply* reply = nullptr; // of the device to the request
    size_t* count = nullptr;      // what a read or write moves; a fault may lower it
    bool releases = false;        // the resource is given back even if the call fails
    const Fault* fault = nullptr; // that it meets
};

extern Session* session; // null while no phone is attached

// Whether the return address lies in the tool or in libsgutils2, a phone is attached, and no call
// of the tool is under way (so that what this library itself calls is never counted).
bool IsOfTheTool(void* caller);

// The place of a phone's path in its directory; every other path as it is.
bool IsPhonePath(const std::string& path);
std::string HostPath(const char* path);

// Counts the call, also for every fault; the first one that it meets has its effect, if the call
// can have it, and is noted if that is for the first time. Does not return from the end of power.
void BeginCall(Call& call);

inline std::string ResultText(long long number) {
    return std::to_string(number);
}
inline std::string ResultText(const void* pointer) {
    return Text("%p", pointer);
}

// Ends a run that would pass for another one, as this machine, and not the phone, has failed.
[[noreturn]] void EndUnkept(const char* why);
// Throws if the call, which no fault has met, has failed for want of room, descriptors or memory
// here. `error` is 0 unless it failed.
void RequireKept(const Call& call, int error);

// Writes the call down; `error` is 0 unless it failed. Does not return from the end of power.
void EndCall(Call& call, const std::string& result, int error);

// The result of most calls that fail.
template <typename Result> inline constexpr auto FAILED = static_cast<Result>(-1);
template <typename Target> inline constexpr Target* FAILED<Target*> = nullptr;

// Carries out one call of the tool, or the fault that it meets. `failed` is the result of a failing
// call. errno afterwards is what the call left.
template <typename Perform, typename Result = std::invoke_result_t<Perform>>
Result Counted(Call call, Perform perform, Result failed = FAILED<Result>) try {
    const int errnoBefore = errno;
    BeginCall(call);
    Result result = failed;
    int error = 0;
    if (!call.replaced || call.releases) {
        errno = 0;
        result = perform();
        error = errno;
        RequireKept(call, result == failed ? error : 0);
    }
    if (call.replaced) {
        error = call.fault->effect == Effect::FAILS ? static_cast<int>(call.fault->value) : 0;
        result = failed;
        if constexpr (std::is_integral_v<Result>) {
            result = error == 0 ? static_cast<Result>(call.fault->value) : failed;
        }
    }
    EndCall(call, ResultText(result), result == failed ? error : 0);
    errno = error != 0 ? error : errnoBefore;
    return result;
} catch (const std::exception& wrong) { // this machine's: a phone's calls throw nothing
    EndUnkept(wrong.what());
}
