// Judges runs by their calls, requests, logs and files.
#include "fwlab/sweep/judge.h"

#include "fwlab/phone/decision.h"
#include "fwlab/sweep/jobs.h"
#include "run/result_record.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <iterator>

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

// A function, and how the path ends.
struct CallKind {
    const char *function, *path;
};

// Calls whose failure does not keep a run from its download.
constexpr CallKind GOES_ON[] = {
    {"close", ""},
    {"munmap", ""},
    {"fclose", ""},
    {"time", ""},
    {"ctime", ""},
    {"localtime", ""},
    {"gettimeofday", ""}, // their result is of no use
    {"remove", ""},
    {"unlink", ""}, // the file need not be there
    {"access", "/fw_result"},
    {"access", "/ffu.ok"},
    {"access", "/ffu.fail"},       // no record, flag,
    {"access", "/bootdevice/ffu"}, // GKI mode
    {"fsync", "/fw_result"},       // the write decides
    {"fopen", "/proc/devices"},
    {"fgets", "/proc/devices"}, // by libsgutils2 for the node's kind
};

// The same for those that moved fewer bytes.
constexpr CallKind GOES_ON_SHORT[] = {
    {"read", "/bootdevice/product_name"},
    {"read", "/bootdevice/rev"},  // the rest: blanks
    {"read", "/ufs_fw_body.bin"}, // what could be read is sent
};

template <size_t count> bool IsAmong(const CallKind (&kinds)[count], const CallEntry& call) {
    return std::any_of(std::begin(kinds), std::end(kinds), [&](const CallKind& kind) {
        const size_t size = strlen(kind.path), whole = call.path.size();
        return call.function == kind.function && whole >= size &&
               call.path.compare(whole - size, size, kind.path) == 0;
    });
}

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
    const std::string *before = RecordIn(run.before), *after = RecordIn(run.after);
    const std::string old = before == nullptr ? "" : *before;
    const std::string record = after == nullptr ? "" : *after;
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
    const bool isShort = !call.replaced;
    const bool isRecorded = call.function == "write" && call.path == RESULT_FILE &&
                            call.result != "0"; // one byte on record is enough
    return IsAmong(GOES_ON, call) || (isShort && (isRecorded || IsAmong(GOES_ON_SHORT, call)));
}

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

bool IsStuck(const RunResult& run) {
    return std::any_of(run.calls.begin(), run.calls.end(), [](const CallEntry& call) {
        return call.message.find("CheckResultFile: ParseResultFile error") != std::string::npos;
    });
}

Verdict Judge(Verdict first, Verdict next) {
    const bool isLater = first != Verdict::UPDATED && next == Verdict::UPDATED;
    return isLater ? Verdict::UPDATED_NEXT : next;
}
