// Makes the jobs of a sweep from the calls of a base run.
#include "fwlab/sweep/jobs.h"

#include "run/state_flags.h"
#include "ufs/ufs_write_buffer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <tuple>

namespace {

using Way = std::pair<Effect, long>; // with its value
using Ways = std::vector<Way>;

bool IsAmong(const Texts& texts, const std::string& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// How many bytes a read or write moved.
long Moved(const CallEntry& call) {
    return strtol(call.result.c_str(), nullptr, 10);
}

// The ways in which a call can fail.
Ways Failures(const CallEntry& call) {
    const Way eio = {Effect::FAILS, EIO};
    if (IsAmong({"sleep", LOG_FUNCTION}, call.function)) {
        return {};
    }
    if (IsAmong({"read", "write"}, call.function)) {
        return {eio, {Effect::SHORT, 0}, {Effect::SHORT, 1}, {Effect::SHORT, Moved(call) / 2}};
    }
    if (call.function == "ioctl") {
        Ways ways = {eio, {Effect::FAILS, EINTR}};
        ways.insert(ways.end(), call.path == UFS_BLOCK_NODE ? 0 : 1, {Effect::RETURNS, 1});
        return ways;
    }
    return {eio};
}

// The power fails before a call that changes the phone, which is also after the one before it, and
// after the last of them. In a write to a flag or the record it fails after each byte as well,
// unless a write like it was torn before.
Ways PowerCuts(const CallEntry& call, bool isAfterLast, bool hadState, const SweepOptions& options,
               Tried& tried) {
    Ways ways;
    if (options.cutsEverywhere || ChangesThePhone(call) || isAfterLast) {
        ways.emplace_back(Effect::ENDS, 0);
    }
    const std::string kind = call.path + " " + call.result + (hadState ? "+" : "");
    const bool tears = call.function == "write" &&
                       call.path.rfind(std::string(STATE_DIR) + "/f", 0) == 0 &&
                       (tried.insert(kind).second || !options.skipsRepeats);
    for (long count = 0; tears && count <= Moved(call); count++) {
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

bool IsTorn(const SweepJob& job) {
    return job.fault.effect == Effect::TORN;
}

std::vector<SweepJob> JobsOf(const RunResult& base, size_t scenario, bool hadState,
                             const SweepOptions& options, Tried& tried) {
    const std::vector<size_t> changing = ChangingCalls(base);
    std::map<std::string, long> count, rank;
    for (const CallEntry& call : base.calls) {
        count[call.function + " " + call.path]++;
    }
    std::vector<SweepJob> jobs;
    std::string begin; // a digest of the calls up to here: whole texts would slow each fork down
    for (size_t i = 0; i < base.calls.size(); i++) {
        const CallEntry& call = base.calls[i];
        const std::string kind = call.function + " " + call.path;
        const long ofFunction = ++rank[call.function], ofKind = ++rank[kind], last = count[kind];
        begin.append(" ").append(kind).append(" ").append(call.error);
        begin = std::to_string(std::hash<std::string>()(begin));
        const bool isOneOfThree = ofKind == 1 || ofKind == last / 2 || ofKind == last;
        const bool isRepeat = !tried.insert(begin).second || (last > 8 && !isOneOfThree);
        if (isRepeat && options.skipsRepeats) {
            continue;
        }
        const Fault alone = {"any", "", call.number, call.number};
        std::vector<Fault> places = {alone, {call.function, "", ofFunction}};
        if (call.path != "-" && ofKind < last) {
            places.push_back({call.function, call.path, ofKind});
        }
        const auto add = [&](Fault fault, const Way& way, bool isPowerCut) {
            std::tie(fault.effect, fault.value) = way;
            jobs.push_back({scenario, i, EffectText(fault), fault, isPowerCut});
        };
        for (const Way& way : Failures(call)) {
            for (const Fault& place : places) {
                add(place, way, false);
            }
        }
        const bool isAfterLast = !changing.empty() && i == changing.back() + 1;
        for (const Way& way : PowerCuts(call, isAfterLast, hadState, options, tried)) {
            add(alone, way, true);
        }
    }
    return jobs;
}
