// Makes the jobs of a sweep from the calls of a base run.
#include "fwlab/sweep/jobs.h"

#include "fwlab/base/text.h"
#include "run/state_flags.h"
#include "ufs/ufs_write_buffer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <tuple>
#include <utility>

namespace {

bool IsAmong(const Texts& texts, const std::string& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// How many bytes a read or write moved.
long Moved(const CallEntry& call) {
    return strtol(call.result.c_str(), nullptr, 10);
}

using Way = std::pair<Effect, long>; // with its value

// The ways in which a call can fail.
std::vector<Way> Failures(const CallEntry& call) {
    if (IsAmong({"sleep", LOG_FUNCTION}, call.function)) {
        return {};
    }
    std::vector<Way> ways = {{Effect::FAILS, EIO}};
    if (IsAmong({"read", "write"}, call.function)) {
        for (const long count : {0L, 1L, Moved(call) / 2}) {
            ways.emplace_back(Effect::SHORT, count);
        }
    } else if (call.function == "ioctl") {
        ways.emplace_back(Effect::FAILS, EINTR);
        if (call.path != UFS_BLOCK_NODE) {
            ways.emplace_back(Effect::RETURNS, 1);
        }
    }
    return ways;
}

bool IsStateWrite(const CallEntry& call) { // to a flag or the record
    return call.function == "write" && call.path.rfind(std::string(STATE_DIR) + "/f", 0) == 0;
}

// The power fails before a call that changes the phone, which is also after the one before it, and
// after the last of them. In a write to a flag or the record it fails after each byte as well.
std::vector<Way> PowerCuts(const CallEntry& call, bool isAfterLast) {
    std::vector<Way> ways;
    if (ChangesThePhone(call) || isAfterLast) {
        ways.emplace_back(Effect::ENDS, 0);
    }
    for (long count = 0; IsStateWrite(call) && count <= Moved(call); count++) {
        ways.emplace_back(Effect::TORN, count);
    }
    return ways;
}

} // namespace

bool ChangesThePhone(const CallEntry& call) {
    return IsAmong({"creat", "fsync", "ioctl", "mkdir", "remove", "unlink", "write"},
                   call.function) ||
           (call.function == "open" && (OpenFlags(call) & O_CREAT) != 0);
}

std::vector<size_t> ChangingCalls(const RunResult& run) {
    std::vector<size_t> calls;
    for (size_t i = 0; i < run.calls.size(); i++) {
        if (ChangesThePhone(run.calls[i])) {
            calls.push_back(i);
        }
    }
    return calls;
}

std::vector<SweepJob> JobsOf(const RunResult& base, size_t scenario) {
    const std::vector<size_t> changing = ChangingCalls(base);
    std::map<std::string, long> count, rank;
    for (const CallEntry& call : base.calls) {
        count[call.function + " " + call.path]++;
    }
    std::vector<SweepJob> jobs;
    for (size_t i = 0; i < base.calls.size(); i++) {
        const CallEntry& call = base.calls[i];
        const std::string kind = call.function + " " + call.path;
        const long ofFunction = ++rank[call.function], ofKind = ++rank[kind];
        const Fault alone = {"any", "", call.number, call.number};
        std::vector<Fault> reaches = {alone, {call.function, "", ofFunction}};
        if (call.path != "-" && ofKind < count[kind]) {
            reaches.push_back({call.function, call.path, ofKind});
        }
        const auto add = [&](Fault fault, const Way& way) {
            std::tie(fault.effect, fault.value) = way;
            jobs.push_back({scenario, i, fault});
        };
        for (const Way& way : Failures(call)) {
            for (const Fault& reach : reaches) {
                add(reach, way);
            }
        }
        const bool isAfterLast = !changing.empty() && i == changing.back() + 1;
        for (const Way& way : PowerCuts(call, isAfterLast)) {
            add(alone, way);
        }
    }
    return jobs;
}
