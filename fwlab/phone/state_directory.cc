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
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr size_t TAIL_SIZE = 65536; // of a file, as much as is looked at: hundreds of records
constexpr int DEPTH_MAX = 6;        // REGION/DAY/SERIAL/data/vendor/fw

// The files that are there, by name: of each as much of its end as was asked for; none if it is not
// a regular file.
using StateFiles = std::map<std::string, std::optional<std::string>>;

const char* FileName(const char* phonePath) {
    return strrchr(phonePath, '/') + 1;
}

// What runs leave in their state directory.
const Texts NAMES = {FileName(BEGIN_FLAG), FileName(END_FLAG),    FileName(OK_FLAG),
                     FileName(FAIL_FLAG),  FileName(RESULT_FILE), FileName(UfsFwBodyPath(1))};

// A file from the begin of a line on.
std::string ReadTail(const std::string& path, size_t most) {
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    const off_t size = fd < 0 ? -1 : lseek(fd, 0, SEEK_END);
    std::string tail(std::min(static_cast<size_t>(std::max<off_t>(size, 0)), most), '\0');
    const off_t from = size - static_cast<off_t>(tail.size());
    const ssize_t count = size < 0 ? -1 : pread(fd, tail.data(), tail.size(), from);
    const int reason = count < 0 ? errno : EIO; // or it has become shorter
    close(fd);
    if (count != static_cast<ssize_t>(tail.size())) {
        throw FailureAt(path, reason);
    }
    if (from > 0) {
        tail.erase(0, tail.find('\n'));
        tail.erase(0, 1);
    }
    return tail;
}

StateFiles ReadStateFiles(const std::string& directory, size_t most) {
    StateFiles files;
    for (const std::string& name : NAMES) {
        const std::string path = fs::path(directory) / name;
        std::error_code error;
        const fs::file_status status = fs::symlink_status(path, error);
        Require(fs::status_known(status), 2, path + ": " + error.message());
        if (fs::is_regular_file(status)) {
            files[name] = ReadTail(path, most);
        } else if (fs::exists(status)) {
            files[name] = std::nullopt;
        }
    }
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
std::string TimeIn(std::string text) {
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

// What becomes of a phone, and why: a format, see Sentence.
struct Answer {
    Verdict verdict;
    const char* why;
};

Answer AnswerWithoutRecord(const StateReport& report, const std::string& directory) {
    if (report.flag != OutcomeFlag::NONE || report.hasBody) {
        return {Verdict::UNKNOWN, "an attempt has left files, but no attempt is on record. {next}"};
    }
    if (report.lastRun == LastRun::NO_FLAG && HoldsFiles(directory)) {
        return {Verdict::FOREIGN,
                "{meaning}, or the tool never ran there, or it could not create its flags"};
    }
    if (report.lastRun == LastRun::NO_FLAG) {
        return {Verdict::NOT_PULLED, "{meaning}"};
    }
    return {report.lastRun == LastRun::REGULAR   ? Verdict::NOTHING_TO_DO
            : report.lastRun == LastRun::STOPPED ? Verdict::STOPPED
                                                 : Verdict::UNKNOWN,
            "no attempt is on record, and {lastRun}. {next}"};
}

Answer AnswerOfAttempt(const StateReport& report) {
    const LastRun lastRun = report.lastRun;
    switch (report.flag) {
    case OutcomeFlag::BOTH:
        return {Verdict::UNKNOWN,
                "both outcome flags are there: whether {attempt} passed cannot be told. {next}"};
    case OutcomeFlag::UNTOLD:
        return {Verdict::UNKNOWN, "the times contradict each other, are missing or fit an earlier "
                                  "attempt as well: whether {flag} is the outcome of {attempt} "
                                  "cannot be told. {next}"};
    case OutcomeFlag::LAST:
        if (report.isOk) {
            return {lastRun == LastRun::REGULAR      ? Verdict::UPDATED
                    : lastRun == LastRun::BOTH_FLAGS ? Verdict::UNKNOWN
                                                     : Verdict::STOPPED,
                    "{attempt} passed: {flag}; {lastRun}. {next}"};
        }
        return {Verdict::FAILED, lastRun == LastRun::STOPPED // as is usual
                                     ? "{attempt} failed: {flag}. {next}"
                                     : "{attempt} failed: {flag}; {lastRun}. {next}"};
    default:
        break;
    }
    if (lastRun == LastRun::STOPPED) {
        return {Verdict::INTERRUPTED,
                "{attempt} has no outcome, and the begin flag is there: the power failed during "
                "its update, or the run is under way, or it could not leave ffu.fail, or it ended "
                "without a download and a later run stopped early. {revision}. {next}"};
    }
    return {Verdict::UNKNOWN,
            "{attempt} has no outcome: nothing was downloaded (the update found nothing to do, or "
            "lacked memory, space or a node), or the power failed and a later run removed the "
            "traces, or the outcome could not be written. {revision}. {next}"};
}

Answer AnswerOf(const StateReport& report, const std::string& directory) {
    if (report.hasRecord && !report.record.isReadable) {
        return {Verdict::RECORD_UNREADABLE,
                "fw_result cannot be read back: {messages}. Every later run that has an update to "
                "attempt stops there. Keep this directory. Restart the phone, so that no download "
                "is pending, and see which revision it runs. Remove fw_result, ffu.ok and ffu.fail "
                "only if it runs the package's revision, or if that may be attempted once more: "
                "without the record the next run attempts it."};
    }
    if (!report.irregular.empty()) {
        return {Verdict::UNKNOWN,
                "{irregular} is not a regular file; runs leave only regular files. {next}"};
    }
    return report.hasRecord ? AnswerOfAttempt(report) : AnswerWithoutRecord(report, directory);
}

// In the order of the enumerators.
constexpr const char* LAST_RUNS[] = {
    "the last run came to its regular end",
    ("the last run stopped before its regular end (or is under way): the power failed, or it "
     "could not use the device's nodes, the package or the record, or there is no storage device"),
    "both run flags are there, as one could not be removed: how the last run ended is unknown",
    "the last run could not create its begin flag or its end flag"};

// Adds the state directories that are at directory or below it to found, in the order of their
// names, and each folder that cannot be read. Returns whether there is any. Links are not followed.
bool Search(const std::string& directory, int depth, Texts& found) {
    Texts folders;
    bool isState = false;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        isState |= std::count(NAMES.begin(), NAMES.end(), entry->path().filename()) > 0;
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

StateDirectory ReadPulledState(const std::string& directory) {
    StateDirectory state = {true, {}};
    for (const auto& [name, content] : ReadStateFiles(directory, SIZE_MAX)) {
        Require(content.has_value(), 2, fmt::format("{}/{}: is no regular file", directory, name));
        state.files[name] = *content;
    }
    Require(!state.files.empty(), 2,
            directory + ": has no file of a run: it is no state directory");
    return state;
}

StateReport ReadState(const std::string& directory) {
    StateReport report = {};
    try {
        std::error_code error;
        (void)fs::directory_iterator(directory, error);
        Require(!error, 2, directory + ": " + error.message());
        const StateFiles files = ReadStateFiles(directory, TAIL_SIZE);
        const auto isThere = [&](const char* path) { return files.count(FileName(path)) > 0; };
        const auto content = [&](const char* path) {
            return isThere(path) ? files.at(FileName(path)) : std::nullopt;
        };
        const bool begins = isThere(BEGIN_FLAG), ends = isThere(END_FLAG);
        const bool isOk = isThere(OK_FLAG), isFail = isThere(FAIL_FLAG);
        const std::optional<std::string> record = content(RESULT_FILE);
        report.lastRun = begins && ends ? LastRun::BOTH_FLAGS
                         : begins       ? LastRun::STOPPED
                         : ends         ? LastRun::REGULAR
                                        : LastRun::NO_FLAG;
        report.isOk = isOk;
        report.flagTime = TimeIn(content(isOk ? OK_FLAG : FAIL_FLAG).value_or(""));
        report.hasBody = isThere(UfsFwBodyPath(1));
        report.hasRecord = isThere(RESULT_FILE);
        report.record = record ? ParseRecord(*record) : Record{};
        for (const auto& [name, bytes] : files) {
            report.irregular = bytes ? report.irregular : name;
        }
        report.flag = isOk && isFail   ? OutcomeFlag::BOTH
                      : isOk || isFail ? WhoseIs(report.flagTime, report.record)
                                       : OutcomeFlag::NONE;
        const Answer answer = AnswerOf(report, directory);
        report.verdict = answer.verdict;
        report.why = answer.why;
    } catch (const Stop& stop) {
        report.verdict = Verdict::UNREADABLE;
        report.why = "{failure}";
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
    const Record& record = report.record;
    const std::string target = Quoted(record.target);
    const std::string attempt =
        fmt::format("the last attempt, from {} to {} ({}),", Quoted(record.base), target,
                    record.time.empty() ? "no time" : Escaped(record.time));
    const std::string flag =
        fmt::format("{} ({})", report.isOk ? "ffu.ok" : "ffu.fail", Quoted(report.flagTime));
    std::string revision = "Whether the device was sent a firmware cannot be told from here: see "
                           "the revision that it runs after a restart";
    if (report.flag == OutcomeFlag::EARLIER) {
        revision += "; " + flag + " is of an earlier attempt, if the clock is right";
    }
    const std::string messages = record.messages.empty()
                                     ? "it is not a regular file"
                                     : fmt::format("{}", fmt::join(record.messages, "; "));
    const std::string next =
        report.hasRecord
            ? fmt::format("The next run will not attempt {} again; it will attempt any other that "
                          "its package has for the device, unless that revision is a prefix of {}.",
                          target, target)
            : "The next run will attempt the update that its package has for the device, if any.";
    const std::string why = fmt::format(
        fmt::runtime(report.why), fmt::arg("failure", Escaped(report.failure)),
        fmt::arg("meaning", SentenceOf(report.verdict)), fmt::arg("irregular", report.irregular),
        fmt::arg("lastRun", LAST_RUNS[static_cast<int>(report.lastRun)]),
        fmt::arg("messages", messages), fmt::arg("attempt", attempt), fmt::arg("flag", flag),
        fmt::arg("revision", revision), fmt::arg("next", next));
    return fmt::format("{}: {}", WordOf(report.verdict), why);
}

Texts StateDirectoriesIn(const Texts& directories) {
    Texts all;
    for (const std::string& directory : directories) {
        if (!Search(directory, 0, all)) {
            all.push_back(directory);
        }
    }
    std::set<std::pair<dev_t, ino_t>> seen;
    const auto isAgain = [&](const std::string& directory) {
        struct stat status = {};
        return stat(directory.c_str(), &status) == 0 &&
               !seen.emplace(status.st_dev, status.st_ino).second;
    };
    if (directories.size() > 1) {
        all.erase(std::remove_if(all.begin(), all.end(), isAgain), all.end());
    }
    return all;
}
