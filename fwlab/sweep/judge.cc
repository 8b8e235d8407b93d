// Judges runs by their calls, requests, logs and files.
#include "fwlab/sweep/judge.h"

#include "fwlab/phone/decision.h"
#include "fwlab/sweep/jobs.h"
#include "run/result_record.h"

#include <algorithm>
#include <csignal>
#include <regex>
#include <tuple>

namespace {

// Calls, as "function path", whose failure does not keep a run from its download.
const std::regex GOES_ON(
    "(close|munmap|fclose|time|ctime|localtime|gettimeofday) .*" // their result is of no use
    "|(remove|unlink) .*"                                        // the file need not be there
    "|access .*/(fw_result|ffu.ok|ffu.fail|bootdevice/ffu)"      // no record, flag, GKI mode
    "|fsync .*/fw_result"                                        // the write decides
    "|(fopen|fgets) /proc/devices"); // by libsgutils2 for the node's kind

// The same for those that moved fewer bytes.
const std::regex GOES_ON_SHORT("read /proc/bootdevice/(product_name|rev)" // the rest: blanks
                               "|read .*/ufs_fw_body.bin"); // what could be read is sent

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

bool HasCut(const MadeRun& made) {
    return std::any_of(made.faults.begin(), made.faults.end(), IsPowerCut);
}

bool HasFailingCall(const MadeRun& made) {
    return !std::all_of(made.faults.begin(), made.faults.end(), IsPowerCut);
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
    static const char* const names[] = {"no-end",           "bad-end",     "record-shrinks",
                                        "asked-unrecorded", "taken-twice", "asked-after-failure",
                                        "asked-again",      "record-lost", "unexpected"};
    return names[static_cast<size_t>(wrong)];
}

const char* SentenceOf(Wrong wrong) {
    static const char* const sentences[] = {
        "the tool does not end",
        "the tool does not end as it should",
        "the record loses what it had",
        "the device is asked before the attempt is on record",
        "the device takes the firmware twice in one run",
        "the device is asked after a failure that must stop the run",
        "a later run, without a restart, asks the device for the update again",
        "later runs cannot read the record, though it was synced",
        "not what the scenario is to do"};
    return sentences[static_cast<size_t>(wrong)];
}

bool operator<(const Course& one, const Course& other) {
    return std::tie(one.isAsked, one.mayBeStuck) < std::tie(other.isAsked, other.mayBeStuck);
}

Course CourseBefore(const RunResult& base) {
    return {false, IsStuck(base)};
}

std::vector<Wrong> WrongsOf(const MadeRun& made, const RunResult* base, Course& course) {
    const RunResult& run = made.run;
    std::vector<Wrong> found;
    const auto find = [&](bool isSo, Wrong wrong) {
        found.insert(found.end(), isSo ? 1 : 0, wrong);
    };
    const std::string *before = RecordIn(made.before), *after = RecordIn(made.after);
    const std::string old = before == nullptr ? "" : *before;
    const std::string record = after == nullptr ? "" : *after;
    const bool isAttempt = IsAttempt(run);
    find(run.timedOut, Wrong::NO_END);
    find(!run.timedOut && run.signal != (HasCut(made) ? SIGKILL : 0), Wrong::BAD_END);
    find(record.rfind(old, 0) != 0, Wrong::RECORD_SHRINKS);
    find(isAttempt && record.size() <= old.size(), Wrong::ASKED_UNRECORDED);
    find(std::count_if(run.calls.begin(), run.calls.end(), IsComplete) > 1, Wrong::TAKEN_TWICE);
    find(HasFailingCall(made) && IsAskedAfterFailure(run, *base), Wrong::ASKED_AFTER_FAILURE);
    find(course.isAsked && isAttempt, Wrong::ASKED_AGAIN);
    find(!course.mayBeStuck && IsStuck(run) && !HasFailingCall(made), Wrong::RECORD_LOST);
    course.isAsked = course.isAsked || isAttempt;
    course.mayBeStuck = course.mayBeStuck || HasFailingCall(made) || IsStuck(run) ||
                        (HasCut(made) && IsRecordOpen(run));
    return found;
}

bool IsAttempt(const RunResult& run) {
    return std::any_of(run.calls.begin(), run.calls.end(), IsUpdate);
}

bool HasFailed(const CallEntry& call) {
    return !call.error.empty() || call.result == "(nil)";
}

bool MayGoOn(const CallEntry& call) {
    const std::string text = call.function + " " + call.path;
    const bool isShort = !call.replaced;
    const bool isRecorded = call.function == "write" && call.path == RESULT_FILE &&
                            call.result != "0"; // one byte on record is enough
    return std::regex_match(text, GOES_ON) ||
           (isShort && (isRecorded || std::regex_match(text, GOES_ON_SHORT)));
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
