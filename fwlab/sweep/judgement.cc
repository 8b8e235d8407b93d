// Judges the runs of a sweep by their calls, requests, logs and files.
#include "fwlab/sweep/judgement.h"

#include "fwlab/sweep/jobs.h"
#include "run/result_record.h"
#include "simphone/files.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <regex>

namespace {

// Failures, as "function path way", that do not keep a run from its download.
const std::regex GOES_ON(
    "(close|munmap|fclose|time|ctime|localtime|gettimeofday) .*" // their result is of no use
    "|(remove|unlink) .*"                                        // the file need not be there
    "|access .*/(fw_result|ffu.ok|ffu.fail|bootdevice/ffu) .*"   // no record, flag, GKI mode
    "|write .*/fw_result short=[1-9].*"                          // one byte on record is enough
    "|fsync .*/fw_result .*"                                     // the write decides
    "|read /proc/bootdevice/(product_name|rev) short=.*"         // the rest is taken for blanks
    "|read .*/ufs_fw_body.bin short=.*"                          // what could be read is sent
    "|(fopen|fgets) /proc/devices .*"); // by libsgutils2 for the node's kind

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

char Letter(const Request& request) {
    const bool isWhole = request.taken == Taken::WHOLE;
    switch (request.kind) {
    case RequestKind::GKI_WRITE:
        return isWhole ? 'G' : request.taken == Taken::PART ? 's' : 'g';
    case RequestKind::FFU_DOWNLOAD:
        return isWhole ? 'D' : 'd';
    case RequestKind::FFU_INSTALL:
        return isWhole ? 'I' : 'i';
    case RequestKind::SCSI_WRITE_BUFFER:
        return isWhole ? 'B' : 'b';
    case RequestKind::SCSI_RESET:
        return 'r';
    default:
        return '?';
    }
}

} // namespace

std::string Updates(const RunResult& run, long last) {
    std::string letters;
    for (const CallEntry& call : run.calls) {
        const bool isCounted = call.request && (last < 0 || call.number <= last);
        if (isCounted && call.request->kind != RequestKind::SEND_EXT_CSD) { // a register is read
            letters += Letter(*call.request);
        }
    }
    return letters;
}

bool IsComplete(char update) {
    return update == 'G' || update == 'I' || update == 'B';
}

bool IsAttempt(const std::string& updates) {
    return updates.find_first_not_of('r') != std::string::npos;
}

bool HasFailed(const CallEntry& call) {
    return !call.error.empty() || call.result == "(nil)";
}

bool MayGoOn(const CallEntry& call, const std::string& way) {
    return std::regex_match(call.function + " " + call.path + " " + way, GOES_ON);
}

std::string RecordOf(const StateDirectory& state) {
    const auto record = state.files.find(std::filesystem::path(RESULT_FILE).filename());
    return record == state.files.end() ? "" : record->second;
}

std::string TakenImage(const std::string& phone) {
    std::string image;
    const bool isPending = std::filesystem::exists(phone + "/device/pending");
    return isPending && ReadWholeFile(phone + "/device/downloaded.bin", image) ? image : "";
}

Texts Violated(const SweepRun& made) {
    const RunResult& run = made.run;
    Texts wrong;
    const auto expect = [&](bool isSo, const char* text) {
        wrong.insert(wrong.end(), isSo ? 0 : 1, text);
    };
    const std::string updates = Updates(run);
    const std::string old = RecordOf(made.before), record = RecordOf(made.after);
    const bool isCut = made.kind == SweepRun::POWER_CUT;
    expect(run.signal == (isCut ? SIGKILL : 0),
           run.timedOut ? "the tool does not end" : "the tool does not end as it should");
    expect(run.unmetFaults.empty(), "no call of the run meets the fault");
    expect(record.rfind(old, 0) == 0, "the record loses what it had");
    expect(updates.empty() || record.size() > old.size(),
           "the device is asked before the attempt is on record");
    expect(std::count_if(updates.begin(), updates.end(), IsComplete) <= 1,
           "the device takes the firmware twice in one run");
    if (made.kind == SweepRun::FAILING_CALL) {
        const CallEntry& call = made.base->calls[made.job->call];
        const bool isBefore = Updates(*made.base, call.number).empty();
        const bool mustStop = !MayGoOn(call, made.job->way) || Updates(*made.base).empty();
        expect(HasFailed(call) || !isBefore || !mustStop || !IsAttempt(updates),
               "the device is asked after a failure that must stop the run");
    }
    return wrong;
}

bool IsRecordOpen(const RunResult& run) {
    bool isOpen = false;
    for (const CallEntry& call : run.calls) {
        const bool isDone = call.path == RESULT_FILE && call.error.empty() && !call.replaced;
        isOpen = isDone ? call.function != "fsync" && (isOpen || ChangesThePhone(call)) : isOpen;
    }
    return isOpen;
}

Fate FateOf(const std::string& updates, const std::string& taken, const SweepRun& next,
            const std::string& wanted) {
    const std::string takenNext = TakenImage(next.phone);
    const std::string image = taken.empty() ? takenNext : taken;
    if (!image.empty() && image != wanted) {
        return Fate::OTHER_IMAGE;
    }
    const auto isStuck = [](const CallEntry& call) {
        return Contains(call.message, "CheckResultFile: ParseResultFile error");
    };
    if (std::any_of(next.run.calls.begin(), next.run.calls.end(), isStuck)) {
        return Fate::STUCK;
    }
    const bool isAttempted = IsAttempt(updates + Updates(next.run)) ||
                             RecordOf(next.after).size() > RecordOf(next.scenario->before).size();
    return !taken.empty()       ? Fate::UPDATED
           : !takenNext.empty() ? Fate::UPDATED_NEXT
           : isAttempted        ? Fate::USED_UP
                                : Fate::UNTOUCHED;
}
