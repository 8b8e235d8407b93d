// Judges runs by their calls, requests, logs and files.
#include "fwlab/sweep/judge.h"

#include "emmc/emmc_device.h"
#include "fwlab/phone/decision.h"
#include "fwlab/sweep/jobs.h"
#include "run/result_record.h"
#include "run/state_flags.h"

#include <algorithm>
#include <csignal>
#include <set>
#include <utility>

namespace {

struct Words {
    const char *name, *sentence;
};

// In the order of the enumerators.
constexpr Words WORDS[] = {
    {"no-end", "the tool does not end"},
    {"bad-end", "the tool does not end as it should"},
    {"record-shrinks", "the record loses what it had"},
    {"asked-unrecorded", "the device is asked before the attempt is on record"},
    {"taken-twice", "the device takes the firmware twice in one run"},
    {"asked-after-failure", "the device is asked after a failure that must stop the run"},
    {"asked-again", "a later run, without a restart, asks the device for the update again"},
    {"record-lost", "later runs cannot read the record, though it was synced"},
    {"unexpected", "not what the scenario is to do"},
};

// Calls whose failure does not keep a run from its download: their result is of no use, or the file
// need not be there.
const std::set<std::string> GOES_ON = {"close",     "munmap",       "fclose", "time",  "ctime",
                                       "localtime", "gettimeofday", "remove", "unlink"};

// The same for some paths: no record, flag, GKI mode; a sync, as the write decides; what
// libsgutils2 asks for the kind of a node.
using CallKinds = std::set<std::pair<std::string, std::string>>;
const CallKinds GOES_ON_AT = {{"access", RESULT_FILE},   {"access", OK_FLAG},
                              {"access", FAIL_FLAG},     {"access", EMMC_FFU_NODE},
                              {"fsync", RESULT_FILE},    {"fopen", "/proc/devices"},
                              {"fgets", "/proc/devices"}};

// The same for those that moved fewer bytes: the rest is blanks, or what could be read is sent.
const CallKinds GOES_ON_SHORT = {{"read", "/proc/bootdevice/product_name"},
                                 {"read", "/proc/bootdevice/rev"},
                                 {"read", std::string(STATE_DIR) + "/ufs_fw_body.bin"}};

bool IsUpdate(const CallEntry& call) {
    return call.request && call.request->kind != RequestKind::SEND_EXT_CSD &&
           call.request->kind != RequestKind::SCSI_RESET;
}

// Whether the call gave the device the whole firmware.
bool IsComplete(const CallEntry& call) {
    return call.request && call.request->taken == Taken::WHOLE &&
           (call.request->kind == RequestKind::GKI_WRITE ||
            call.request->kind == RequestKind::FFU_INSTALL ||
            call.request->kind == RequestKind::SCSI_WRITE_BUFFER);
}

// Whether the run ended between the record's opening and its sync.
bool IsRecordOpen(const RunResult& run) {
    bool isOpen = false;
    for (const CallEntry& call : run.calls) {
        const bool isDone = call.path == RESULT_FILE && call.error.empty() && !call.replaced;
        isOpen = isDone ? call.function != "fsync" && (isOpen || ChangesThePhone(call)) : isOpen;
    }
    return isOpen;
}

// The place of the first call that the faults have changed; the number of calls if there is none.
size_t FirstFailure(const RunResult& run, const RunResult& base) {
    const size_t none = run.calls.size();
    for (size_t i = 0; i < none && i < base.calls.size(); i++) {
        const CallEntry &call = run.calls[i], &like = base.calls[i];
        if (call.function != like.function || call.path != like.path) {
            return none; // what failed before has failed without the faults, too
        }
        const bool isShort =
            (call.function == "read" || call.function == "write") && call.result != like.result;
        if (isShort || (call.replaced && !like.replaced)) {
            return i;
        }
    }
    return none;
}

// Whether the device was asked though a call before that had failed.
bool IsAskedAfterFailure(const RunResult& run, const RunResult& base) {
    const size_t failure = FirstFailure(run, base);
    if (failure == run.calls.size() || !IsAttempt(run)) {
        return false;
    }
    const auto end = base.calls.begin() + static_cast<long>(failure) + 1;
    const bool isBefore = std::none_of(base.calls.begin(), end, IsUpdate);
    const bool mustStop = !MayGoOn(run.calls[failure]) || !IsAttempt(base);
    return isBefore && mustStop && !HasFailed(base.calls[failure]);
}

} // namespace

const char* NameOf(Wrong wrong) {
    return WORDS[static_cast<size_t>(wrong)].name;
}

const char* SentenceOf(Wrong wrong) {
    return WORDS[static_cast<size_t>(wrong)].sentence;
}

Course CourseBefore(const RunResult& base) {
    return {false, IsStuck(base)};
}

std::vector<Wrong> WrongsOf(const RunResult& run, const std::vector<Fault>& faults,
                            const RunResult* base, Course& course) {
    std::vector<Wrong> found;
    const auto find = [&](bool isSo, Wrong wrong) {
        found.insert(found.end(), isSo ? 1 : 0, wrong);
    };
    const std::string old = RecordIn(run.before).value_or(""),
                      record = RecordIn(run.after).value_or("");
    const bool isAttempt = IsAttempt(run), isStuck = IsStuck(run);
    const auto cuts = std::count_if(faults.begin(), faults.end(), IsPowerCut);
    const bool hasFailingCall = faults.size() > static_cast<size_t>(cuts);
    find(run.timedOut, Wrong::NO_END);
    find(!run.timedOut && run.signal != (cuts > 0 ? SIGKILL : 0), Wrong::BAD_END);
    find(record.rfind(old, 0) != 0, Wrong::RECORD_SHRINKS);
    find(isAttempt && record.size() <= old.size(), Wrong::ASKED_UNRECORDED);
    find(std::count_if(run.calls.begin(), run.calls.end(), IsComplete) > 1, Wrong::TAKEN_TWICE);
    find(hasFailingCall && IsAskedAfterFailure(run, *base), Wrong::ASKED_AFTER_FAILURE);
    find(course.isAsked && isAttempt, Wrong::ASKED_AGAIN);
    find(!course.mayBeStuck && isStuck && !hasFailingCall, Wrong::RECORD_LOST);
    course.isAsked = course.isAsked || isAttempt;
    course.mayBeStuck =
        course.mayBeStuck || hasFailingCall || isStuck || (cuts > 0 && IsRecordOpen(run));
    return found;
}

bool IsAttempt(const RunResult& run) {
    return std::any_of(run.calls.begin(), run.calls.end(), IsUpdate);
}

bool HasFailed(const CallEntry& call) {
    return !call.error.empty() || call.result == "(nil)";
}

bool MayGoOn(const CallEntry& call) {
    const std::pair kind(call.function, call.path);
    const bool isRecorded = call.function == "write" && call.path == RESULT_FILE &&
                            call.result != "0"; // one byte on record is enough
    return GOES_ON.count(call.function) > 0 || GOES_ON_AT.count(kind) > 0 ||
           (!call.replaced && (isRecorded || GOES_ON_SHORT.count(kind) > 0));
}

bool IsStuck(const RunResult& run) {
    return std::any_of(run.calls.begin(), run.calls.end(), [](const CallEntry& call) {
        return call.message.find("CheckResultFile: ParseResultFile error") != std::string::npos;
    });
}

Verdict Judge(Verdict first, Verdict next) {
    const bool isLater = first != Verdict::UPDATED && next == Verdict::UPDATED;
    return isLater ? Verdict::UPDATED_NEXT : next;
}
