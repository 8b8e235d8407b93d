// Explains a phone's state directory, from the flags and the record that a run can leave there, and
// from their times. Called for `outcome`, `plan` and after a rehearsal; only reads.
#include "fwlab/phone/state_directory.h"

#include "fwlab/base/stop.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "simphone/text.h"
#include "ufs/ufs_selection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr size_t TAIL_SIZE = 65536; // of a file, as much as is looked at: hundreds of records
constexpr int DEPTH_MAX = 6;        // REGION/DAY/SERIAL/data/vendor/fw

struct StateFile {
    const char* name;
    bool isThere, isRegular;
    std::string content; // its end
};

struct StateFiles {
    StateFile begin, end, ok, fail, record, body;
};

const char* FileName(const char* phonePath) {
    return strrchr(phonePath, '/') + 1;
}

std::string ReadTail(const std::string& path, size_t size) {
    std::string tail(std::min(size, TAIL_SIZE), '\0');
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    const auto from = static_cast<off_t>(size - tail.size());
    const ssize_t count = fd < 0 ? -1 : pread(fd, tail.data(), tail.size(), from);
    const int reason = errno;
    close(fd);
    if (count < 0) {
        throw FailureAt(path, reason);
    }
    if (static_cast<size_t>(count) != tail.size()) {
        throw Stop{2, path + ": becomes shorter while it is read"};
    }
    if (size > TAIL_SIZE) { // from the begin of a line on
        tail.erase(0, tail.find('\n'));
        tail.erase(0, 1);
    }
    return tail;
}

StateFile Look(const fs::path& folder, const char* name, bool isRead) {
    const std::string path = folder / name;
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            throw FailureAt(path, errno);
        }
        return {name, false, false, ""};
    }
    const bool isRegular = S_ISREG(status.st_mode);
    return {name, true, isRegular,
            isRead && isRegular ? ReadTail(path, static_cast<size_t>(status.st_size)) : ""};
}

StateFiles ReadStateFiles(const std::string& directory) {
    std::error_code error;
    if (fs::directory_iterator(directory, error); error) {
        throw Stop{2, directory + ": " + error.message()};
    }
    const auto look = [&](const char* phonePath, bool isRead) {
        return Look(directory, FileName(phonePath), isRead);
    };
    return {look(BEGIN_FLAG, false), look(END_FLAG, false),   look(OK_FLAG, true),
            look(FAIL_FLAG, true),   look(RESULT_FILE, true), look(UfsFwBodyPath(1), false)};
}

// The seconds of a text that ctime made, without its line end; nothing for any other text. They are
// local time: good for differences only.
std::optional<time_t> SecondsOf(const std::string& text) {
    constexpr char CTIME_FORMAT[] = "%a %b %e %H:%M:%S %Y";
    tm parts = {};
    if (strptime(text.c_str(), CTIME_FORMAT, &parts) == nullptr) {
        return {};
    }
    const time_t seconds = timegm(&parts);
    char again[64] = {};
    (void)strftime(again, sizeof(again), CTIME_FORMAT, &parts);
    return again == text ? std::optional(seconds) : std::nullopt;
}

// The last line: where a flag could not be removed, the next time stands behind the old one.
std::string TimeIn(const StateFile& flag) {
    std::string text = flag.content;
    text.resize(text.size() - (!text.empty() && text.back() == '\n' ? 1 : 0));
    const size_t lineEnd = text.rfind('\n');
    return lineEnd == std::string::npos ? text : text.substr(lineEnd + 1);
}

// Whose the outcome flag is. It is the last attempt's if it was written during its update and
// cannot have been during an earlier one: a power cut may bring back any old flag, and clocks
// restart, stand still and go back. One case cannot be told from a good one, and is not: the clock
// was set during an earlier update, and has since gone back to just before the time of its flag.
OutcomeFlag WhoseIs(const std::string& flagTime, const Record& record) {
    constexpr time_t LONGEST_UPDATE = 900; // far above a download's time limit of 300 seconds
    // A clock that starts at the same date each time does not read the same in each run.
    constexpr time_t APART = 2 * LONGEST_UPDATE;
    const auto ended = SecondsOf(flagTime), began = SecondsOf(record.time);
    if (!ended || !began) {
        return OutcomeFlag::UNTOLD;
    }
    if (record.earlierTimes.empty()) { // there is no earlier attempt, though the clock may be set
        return *ended >= *began ? OutcomeFlag::LAST : OutcomeFlag::UNTOLD;
    }
    std::optional<time_t> before, later = began; // the attempt's before the last one
    for (const std::string& time : record.earlierTimes) {
        const auto earlier = SecondsOf(time);
        if (!earlier || *earlier > *later || *earlier > *ended) {
            return OutcomeFlag::UNTOLD;
        }
        before = before ? before : earlier;
        later = earlier;
    }
    if (*ended < *began) {
        return OutcomeFlag::EARLIER;
    }
    return *ended - *before > APART && *ended - *began <= LONGEST_UPDATE ? OutcomeFlag::LAST
                                                                         : OutcomeFlag::UNTOLD;
}

LastRun LastRunOf(const StateFiles& files) {
    return files.begin.isThere ? (files.end.isThere ? LastRun::BOTH_FLAGS : LastRun::STOPPED)
                               : (files.end.isThere ? LastRun::REGULAR : LastRun::NO_FLAG);
}

OutcomeFlag FlagOf(const StateFiles& files, const StateReport& report) {
    if (files.ok.isThere && files.fail.isThere) {
        return OutcomeFlag::BOTH;
    }
    return files.ok.isThere || files.fail.isThere ? WhoseIs(report.flagTime, report.record)
                                                  : OutcomeFlag::NONE;
}

// The name of the first of them that is there and not a regular file; empty for none.
std::string Irregular(const StateFiles& files) {
    for (const StateFile* file :
         {&files.record, &files.begin, &files.end, &files.ok, &files.fail}) {
        if (file->isThere && !file->isRegular) {
            return file->name;
        }
    }
    return "";
}

// Whether there is anything but folders.
bool HoldsFiles(const std::string& directory) {
    std::error_code error;
    fs::recursive_directory_iterator entry(directory, error), end;
    while (!error && entry != end &&
           entry->symlink_status(error).type() == fs::file_type::directory) {
        entry.increment(error);
    }
    return error || entry != end;
}

Verdict JudgeWithoutRecord(const StateReport& report, const std::string& directory) {
    const LastRun lastRun = report.lastRun;
    if (report.flag != OutcomeFlag::NONE || report.hasBody || lastRun == LastRun::BOTH_FLAGS) {
        return Verdict::UNKNOWN;
    }
    return lastRun == LastRun::REGULAR   ? Verdict::NOTHING_TO_DO
           : lastRun == LastRun::STOPPED ? Verdict::STOPPED
           : HoldsFiles(directory)       ? Verdict::FOREIGN
                                         : Verdict::NOT_PULLED;
}

Verdict JudgeAttempt(const StateReport& report) {
    const LastRun lastRun = report.lastRun;
    if (report.flag == OutcomeFlag::LAST && !report.isOk) {
        return Verdict::FAILED;
    }
    if (report.flag == OutcomeFlag::LAST && lastRun != LastRun::BOTH_FLAGS) {
        return lastRun == LastRun::REGULAR ? Verdict::UPDATED : Verdict::STOPPED;
    }
    const bool hasNone = report.flag == OutcomeFlag::NONE || report.flag == OutcomeFlag::EARLIER;
    return hasNone && lastRun == LastRun::STOPPED ? Verdict::INTERRUPTED : Verdict::UNKNOWN;
}

Verdict Judge(const StateReport& report, const std::string& directory) {
    if (report.hasRecord && !report.record.isReadable) {
        return Verdict::RECORD_UNREADABLE;
    }
    if (!report.irregular.empty()) {
        return Verdict::UNKNOWN;
    }
    return report.hasRecord ? JudgeAttempt(report) : JudgeWithoutRecord(report, directory);
}

std::string Words(LastRun lastRun) {
    constexpr const char* WORDS[] = {
        "the last run came to its regular end",
        "the last run stopped before its regular end (or is under way): the power failed, or it "
        "could not use the device's nodes, the package or the record",
        "both run flags are there, as one could not be removed: how the last run ended cannot be "
        "told",
        "the last run could not create its begin flag or its end flag"};
    return WORDS[static_cast<size_t>(lastRun)];
}

std::string WhyWithoutRecord(const StateReport& report) {
    const std::string lastRun = Words(report.lastRun);
    switch (report.verdict) {
    case Verdict::NOT_PULLED:
        return "there is no file here: nothing was pulled from the phone";
    case Verdict::FOREIGN:
        return "no file of a run is here: this is no state directory, or the tool never ran there, "
               "or it could not create its flags";
    case Verdict::NOTHING_TO_DO:
        return "no attempt is on record, and " + lastRun;
    case Verdict::STOPPED:
        return "no attempt is on record; " + lastRun + ", or there is no storage device";
    default:
        return report.flag != OutcomeFlag::NONE || report.hasBody
                   ? "an attempt has left files, but no attempt is on record"
                   : lastRun + "; no attempt is on record";
    }
}

std::string WhyNoOutcome(const StateReport& report, const std::string& attempt,
                         const std::string& flag) {
    const char* courses = report.verdict == Verdict::INTERRUPTED
                              ? ", and the begin flag is there: the power failed during its "
                                "update, or the run is under way, or it could not leave ffu.fail, "
                                "or it ended without a download and a later run stopped early"
                              : ": nothing was downloaded (the update found nothing to do, or "
                                "lacked memory, space or a node), or the power failed and a later "
                                "run removed the traces, or the outcome could not be written";
    return attempt + " has no outcome" + courses +
           ". Whether the device was sent a firmware cannot be told from here: see the revision "
           "that it runs after a restart" +
           (flag.empty() ? ""
                         : "; " + flag + " is older: of an earlier attempt, if the clock is right");
}

std::string WhyAttempt(const StateReport& report) {
    const Record& record = report.record;
    const std::string attempt =
        fmt::format("the last attempt, from {} to {} ({}),", Quoted(record.base),
                    Quoted(record.target), record.time.empty() ? "no time" : Escaped(record.time));
    const std::string flag =
        fmt::format("{} (\"{}\")", report.isOk ? "ffu.ok" : "ffu.fail", Escaped(report.flagTime));
    switch (report.flag) {
    case OutcomeFlag::NONE:
        return WhyNoOutcome(report, attempt, "");
    case OutcomeFlag::EARLIER:
        return WhyNoOutcome(report, attempt, flag);
    case OutcomeFlag::BOTH:
        return "both outcome flags are there: whether " + attempt + " passed cannot be told";
    case OutcomeFlag::UNTOLD:
        return "the times contradict each other, are missing or fit an earlier attempt as well: "
               "whether " +
               flag + " is the outcome of " + attempt + " cannot be told";
    default: // a run whose update fails leaves its begin flag
        return attempt + (report.isOk ? " passed: " : " failed: ") + flag +
               (!report.isOk && report.lastRun == LastRun::STOPPED ? ""
                                                                   : "; " + Words(report.lastRun));
    }
}

std::string WhyDamaged(const StateReport& report) {
    return fmt::format(
        "fw_result cannot be read back: {}. Every later run that has an update to attempt stops "
        "there. Keep this directory. Restart the phone, so that no download is pending, and see "
        "which revision it runs. Remove fw_result, ffu.ok and ffu.fail from it only if it runs the "
        "package's revision, or if that may be attempted once more: without the record the next "
        "run attempts it.",
        report.irregular.empty() ? fmt::format("{}", fmt::join(report.record.messages, "; "))
                                 : "it is not a regular file");
}

std::string NextRun(const StateReport& report) {
    if (!report.hasRecord) {
        return ". The next run will attempt the update that its package has for the device, if "
               "any.";
    }
    const std::string target = Quoted(report.record.target);
    return fmt::format(". The next run will not attempt {} again; it will attempt any other that "
                       "its package has for the device, unless that revision is a prefix of {}.",
                       target, target);
}

std::string Why(const StateReport& report) {
    switch (report.verdict) {
    case Verdict::UNREADABLE:
        return Escaped(report.failure);
    case Verdict::RECORD_UNREADABLE:
        return WhyDamaged(report);
    case Verdict::NOT_PULLED:
    case Verdict::FOREIGN:
        return WhyWithoutRecord(report);
    default:
        return (!report.irregular.empty()
                    ? report.irregular + " is not a regular file; runs leave only regular files"
                : report.hasRecord ? WhyAttempt(report)
                                   : WhyWithoutRecord(report)) +
               NextRun(report);
    }
}

// Adds the state directories that are at directory or below it to found, in the order of their
// names, and each folder that cannot be read. Returns whether there is any. Links are not followed.
bool Search(const std::string& directory, int depth, Texts& found) {
    const Texts& names = StateFileNames();
    Texts folders;
    bool isState = false;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        isState |= std::count(names.begin(), names.end(), entry->path().filename()) > 0;
        std::error_code gone;
        if (depth < DEPTH_MAX && entry->symlink_status(gone).type() == fs::file_type::directory) {
            folders.push_back(entry->path());
        }
    }
    const size_t foundBefore = found.size();
    if (isState || error) {
        found.push_back(directory);
    }
    std::sort(folders.begin(), folders.end());
    Texts others;
    bool isWholePhone = false; // pulled from its root on: data is one of many folders
    for (const std::string& folder : folders) {
        const bool isFound = Search(folder, depth + 1, found);
        isWholePhone |= fs::path(folder).filename() == "data";
        if (!isFound) {
            others.push_back(folder);
        }
    }
    if (depth == 0 && !isState && !isWholePhone) { // phones from which nothing was pulled
        found.insert(found.end(), others.begin(), others.end());
    }
    return found.size() > foundBefore;
}

} // namespace

const Texts& StateFileNames() {
    static const Texts names = {FileName(BEGIN_FLAG),  FileName(END_FLAG),
                                FileName(OK_FLAG),     FileName(FAIL_FLAG),
                                FileName(RESULT_FILE), FileName(UfsFwBodyPath(1))};
    return names;
}

StateReport ReadState(const std::string& directory) {
    StateReport report = {};
    try {
        const StateFiles files = ReadStateFiles(directory);
        report.lastRun = LastRunOf(files);
        report.isOk = files.ok.isThere;
        report.flagTime = TimeIn(report.isOk ? files.ok : files.fail);
        report.hasBody = files.body.isThere;
        report.hasRecord = files.record.isThere;
        report.irregular = Irregular(files);
        if (files.record.isRegular) {
            report.record = ParseRecord(files.record.content);
        }
        report.flag = FlagOf(files, report);
        report.verdict = Judge(report, directory);
    } catch (const Stop& stop) {
        report.verdict = Verdict::UNREADABLE;
        report.failure = stop.text;
    }
    return report;
}

bool IsNoPhone(Verdict verdict) {
    return verdict == Verdict::FOREIGN || verdict == Verdict::NOT_PULLED ||
           verdict == Verdict::UNREADABLE;
}

bool HasPassed(const StateReport& report) {
    return report.flag == OutcomeFlag::LAST && report.isOk && report.irregular.empty();
}

std::string Sentence(const StateReport& report) {
    return fmt::format("{}: {}", WordOf(report.verdict), Why(report));
}

Texts StateDirectoriesIn(const Texts& directories) {
    Texts all;
    for (const std::string& directory : directories) {
        if (!Search(directory, 0, all)) {
            all.push_back(directory);
        }
    }
    if (directories.size() == 1) {
        return all;
    }
    std::set<std::tuple<dev_t, ino_t, std::string>> seen; // by name if it cannot be looked at
    Texts found;
    for (const std::string& directory : all) {
        struct stat status = {};
        const bool isThere = stat(directory.c_str(), &status) == 0;
        if (seen.emplace(status.st_dev, status.st_ino, isThere ? "" : directory).second) {
            found.push_back(directory);
        }
    }
    return found;
}
