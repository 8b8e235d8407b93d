// Explains a phone's state directory, from the flags and the record that a run can leave there, and
// from their times. Called for `outcome` and after a rehearsal; only reads.
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
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr off_t TAIL_SIZE = 65536; // of a file, as much as is looked at: hundreds of records

struct StateFile {
    bool isThere, isRegular;
    std::string content; // its end
};

struct StateFiles {
    StateFile begin, end, ok, fail, record, body;
};

std::string FileName(const char* phonePath) {
    return std::filesystem::path(phonePath).filename();
}

std::string ReadTail(int fd, off_t size) {
    std::string tail(static_cast<size_t>(std::min(size, TAIL_SIZE)), '\0');
    size_t done = 0;
    ssize_t count = 1;
    while (done < tail.size() && count > 0) {
        const off_t from = size - static_cast<off_t>(tail.size() - done);
        count = pread(fd, &tail[done], tail.size() - done, from);
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    const int reason = errno;
    close(fd);
    if (count < 0) {
        throw Stop{2, strerror(reason)};
    }
    tail.resize(done);
    if (size > TAIL_SIZE) { // from the begin of a line on
        const size_t lineEnd = tail.find('\n');
        tail.erase(0, lineEnd == std::string::npos ? lineEnd : lineEnd + 1);
    }
    return tail;
}

StateFile ReadStateFile(int directory, const char* phonePath) {
    const std::string name = FileName(phonePath);
    struct stat status = {};
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) {
            throw FailureAt(name, errno);
        }
        return {};
    }
    StateFile file = {true, S_ISREG(status.st_mode), ""};
    if (file.isRegular && status.st_size > 0) {
        const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        const int fd = openat(directory, name.c_str(), flags);
        if (fd < 0) {
            throw FailureAt(name, errno);
        }
        file.content = ReadTail(fd, status.st_size);
    }
    return file;
}

StateFiles ReadStateFiles(const std::string& directory) {
    const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(directory.c_str()), closedir);
    if (opened == nullptr) {
        throw Stop{2, strerror(errno)};
    }
    const auto read = [&](const char* path) { return ReadStateFile(dirfd(opened.get()), path); };
    StateFiles files = {read(BEGIN_FLAG), read(END_FLAG),    read(OK_FLAG),
                        read(FAIL_FLAG),  read(RESULT_FILE), {}};
    struct stat status = {};
    files.body.isThere = fstatat(dirfd(opened.get()), FileName(UfsFwBodyPath(1)).c_str(), &status,
                                 AT_SYMLINK_NOFOLLOW) == 0;
    return files;
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

enum class Whose { LAST, EARLIER, UNTOLD };

// Which attempt an outcome flag belongs to. An update clears the flags right after it has written
// its record, so a flag that is older than the record belongs to an earlier attempt, unless the
// clock went back in between.
Whose WhoseIs(const StateFile& flag, const Record& record) {
    constexpr time_t LONGEST_UPDATE = 3600; // far above a download's time limit of 300 seconds
    constexpr time_t FIRST_YEAR_END = 365 * 86400; // of 1970: the clock had not been set
    const auto ended = SecondsOf(TimeIn(flag)), began = SecondsOf(record.time);
    if (!ended || !began) {
        return Whose::UNTOLD;
    }
    if (record.isOnly) { // it cannot belong to an earlier attempt
        return *ended >= *began ? Whose::LAST : Whose::UNTOLD;
    }
    const auto before = SecondsOf(record.timeBefore);
    if (!before || *before > *began || *before > *ended || *began < FIRST_YEAR_END) {
        return Whose::UNTOLD;
    }
    if (*ended < *began) {
        return Whose::EARLIER;
    }
    return *ended - *began <= LONGEST_UPDATE ? Whose::LAST : Whose::UNTOLD;
}

struct Judgement {
    State state;
    std::string why;
};

std::string LastRun(const StateFiles& files) {
    if (files.begin.isThere && files.end.isThere) {
        return "both run flags are there, as one could not be removed: how the last run ended "
               "cannot be told";
    }
    if (files.begin.isThere) {
        return "the last run stopped before its regular end (or is under way): the power failed, "
               "or it could not use the device's nodes, the package or the record";
    }
    return files.end.isThere ? "the last run came to its regular end"
                             : "the last run could not create its begin flag or its end flag";
}

Judgement JudgeWithoutRecord(const StateFiles& files) {
    if (!files.begin.isThere && !files.end.isThere && !files.ok.isThere && !files.fail.isThere &&
        !files.body.isThere) {
        return {
            State::FOREIGN,
            "no file of a run is here: this is no state directory, or the tool never ran there, "
            "or it could not create its flags"};
    }
    if (files.ok.isThere || files.fail.isThere || files.body.isThere) {
        return {State::UNKNOWN, "an attempt has left files, but no attempt is on record"};
    }
    if (files.begin.isThere && files.end.isThere) {
        return {State::UNKNOWN, LastRun(files) + "; no attempt is on record"};
    }
    return files.end.isThere
               ? Judgement{State::NOTHING, "no attempt is on record, and " + LastRun(files)}
               : Judgement{State::STOPPED, "no attempt is on record; " + LastRun(files) +
                                               ", or there is no storage device"};
}

// The last attempt has left no outcome.
Judgement JudgeWithoutOutcome(const StateFiles& files, const std::string& attempt) {
    const std::string unknown =
        " Whether the device was sent a firmware cannot be told from here: see the revision that "
        "it runs after a restart";
    if (files.begin.isThere && !files.end.isThere) {
        return {State::INTERRUPTED,
                attempt +
                    " has no outcome, and the begin flag is there: the power failed during "
                    "its update, or the run is under way, or it could not leave ffu.fail, or "
                    "it ended without a download and a later run stopped early." +
                    unknown};
    }
    return {State::UNKNOWN, attempt +
                                " has no outcome: nothing was downloaded (the update found "
                                "nothing to do, or lacked memory, space or a node), or the "
                                "power failed and a later run removed the traces, or the "
                                "outcome could not be written." +
                                unknown};
}

Judgement JudgeAttempt(const StateFiles& files, const Record& record) {
    const std::string attempt =
        fmt::format("the last attempt, from {} to {} ({}),", Quoted(record.base),
                    Quoted(record.target), record.time.empty() ? "no time" : Escaped(record.time));
    if (files.ok.isThere && files.fail.isThere) {
        return {State::UNKNOWN,
                "both outcome flags are there: whether " + attempt + " passed cannot be told"};
    }
    if (!files.ok.isThere && !files.fail.isThere) {
        return JudgeWithoutOutcome(files, attempt);
    }
    const StateFile& flag = files.ok.isThere ? files.ok : files.fail;
    const std::string title =
        fmt::format("{} (\"{}\")", files.ok.isThere ? "ffu.ok" : "ffu.fail", Escaped(TimeIn(flag)));
    const Whose whose = WhoseIs(flag, record);
    if (whose == Whose::UNTOLD) {
        return {State::UNKNOWN, "the times contradict each other or are missing: whether " + title +
                                    " is the outcome of " + attempt + " cannot be told"};
    }
    if (whose == Whose::EARLIER) {
        Judgement judgement = JudgeWithoutOutcome(files, attempt);
        judgement.why += "; " + title + " is older: of an earlier attempt, if the clock is right";
        return judgement;
    }
    const bool isUntold = files.begin.isThere && files.end.isThere;
    if (files.fail.isThere) { // a run whose update fails leaves its begin flag
        const bool isOfThatRun = files.begin.isThere && !isUntold;
        return {State::FAILED,
                attempt + " failed: " + title + (isOfThatRun ? "" : "; " + LastRun(files))};
    }
    const State state = isUntold            ? State::UNKNOWN
                        : files.end.isThere ? State::UPDATED
                                            : State::STOPPED;
    return {state, attempt + " passed: " + title + "; " + LastRun(files)};
}

std::string NextRun(const Record& record) {
    if (!record.isReadable) { // there is none
        return "The next run will attempt the update that its package has for the device, if any.";
    }
    return fmt::format("The next run will not attempt {} again; it will attempt any other that its "
                       "package has for the device, unless that revision is a prefix of {}.",
                       Quoted(record.target), Quoted(record.target));
}

Judgement Damaged(const std::string& why) {
    return {State::DAMAGED,
            "fw_result cannot be read back: " + why +
                ". Every later run that has an update to attempt stops there. Keep this directory. "
                "Restart the phone, so that no download is pending, and see which revision it "
                "runs. Remove fw_result, ffu.ok and ffu.fail from it only if it runs the package's "
                "revision, or if that may be attempted once more: without the record the next run "
                "attempts it."};
}

std::string Irregular(const StateFiles& files) {
    const std::pair<const StateFile&, const char*> flags[] = {{files.begin, BEGIN_FLAG},
                                                              {files.end, END_FLAG},
                                                              {files.ok, OK_FLAG},
                                                              {files.fail, FAIL_FLAG}};
    for (const auto& [flag, path] : flags) {
        if (flag.isThere && !flag.isRegular) {
            return FileName(path);
        }
    }
    return "";
}

Judgement Judge(const StateFiles& files, Record& record) {
    const std::string irregular = Irregular(files);
    if (files.record.isThere && !files.record.isRegular) {
        return Damaged("it is not a regular file");
    }
    if (files.record.isThere) {
        record = ParseRecord(files.record.content);
        if (!record.isReadable) {
            return Damaged(fmt::format("{}", fmt::join(record.messages, "; ")));
        }
    }
    if (!irregular.empty()) {
        return {State::UNKNOWN,
                irregular + " is not a regular file; runs leave only regular files"};
    }
    return files.record.isThere ? JudgeAttempt(files, record) : JudgeWithoutRecord(files);
}

} // namespace

const char* NameOf(State state) {
    constexpr const char* NAMES[] = {"updated", "nothing", "failed",  "interrupted", "unknown",
                                     "stopped", "damaged", "foreign", "unreadable"};
    return NAMES[static_cast<size_t>(state)];
}

const Texts& StateFileNames() {
    static const Texts names = {FileName(BEGIN_FLAG),  FileName(END_FLAG),
                                FileName(OK_FLAG),     FileName(FAIL_FLAG),
                                FileName(RESULT_FILE), FileName(UfsFwBodyPath(1))};
    return names;
}

StateReport DescribeState(const std::string& directory) {
    StateReport report = {State::UNREADABLE, false, "", {}};
    std::string why;
    try {
        const StateFiles files = ReadStateFiles(directory);
        const auto judgement = Judge(files, report.record);
        report.state = judgement.state;
        why = judgement.why;
        const bool isUsable = report.record.isReadable || !files.record.isThere;
        why += isUsable && report.state != State::FOREIGN ? ". " + NextRun(report.record) : "";
    } catch (const Stop& stop) {
        why = stop.text;
    }
    report.isFine = report.state == State::UPDATED || report.state == State::NOTHING;
    report.text = fmt::format("{}: {}", NameOf(report.state), why);
    return report;
}
