// What the workstation tool tells of the files that runs left on phones: one phone, a fleet, and
// files that no run leaves. It may never say more than they tell.
#include "test/fwlab/fwlab.h"

#include "simphone/power_loss.h"

#include <ctime>
#include <fstream>
#include <iomanip>
#include <random>
#include <regex>
#include <sys/stat.h>

namespace {

// An earlier attempt's time and outcome, then the last one's.
const std::string BEFORE = "Mon Nov 16 13:00:00 2026\n", BEFORE_END = "Mon Nov 16 13:00:09 2026\n";
const std::string LAST = "Mon Nov 16 13:36:10 2026\n", LAST_END = "Mon Nov 16 13:36:19 2026\n";

std::string Attempt(const std::string& time, const std::string& target,
                    const std::string& product = "SIM064") {
    return time + "product name:" + product +
           ", current fw version:A, upgrading to version:" + target + "\n";
}

const std::string FIRST = Attempt(LAST, "B");
const std::string SECOND = Attempt(BEFORE, "A") + FIRST;
const Files END = {{"ffu.end", ""}}, BEGIN = {{"ffu.bgn", ""}};
const Files BOTH = {{"ffu.end", ""}, {"ffu.bgn", ""}};

Files operator+(Files files, const Files& more) {
    files.insert(more.begin(), more.end());
    return files;
}
Files Ok(const std::string& time) {
    return {{"ffu.ok", time}};
}
Files Fail(const std::string& time) {
    return {{"ffu.fail", time}};
}
Files Recorded(const std::string& record) {
    return {{"fw_result", record}};
}

class OutcomeTest : public FwlabTest {
protected:
    void PutState(const std::string& folder, const Files& files) const {
        fs::create_directories(Path(folder));
        for (const auto& [name, content] : files) {
            Put(folder + "/" + name, content);
        }
    }
};

unsigned FromEnvironment(const char* name, unsigned otherwise) {
    const char* text = getenv(name);
    return text == nullptr ? otherwise : static_cast<unsigned>(std::stoul(text));
}

void ExpectPrintable(const std::string& text) {
    for (const char c : text) {
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~')) << static_cast<int>(c);
    }
}

} // namespace

TEST_F(OutcomeTest, SaysNoMoreThanTheFilesTell) {
    const std::string unset = "Thu Jan  1 00:00:20 1970\n", unsetEnd = "Thu Jan  1 00:00:22 1970\n";
    const std::string zeros(25, '\0');
    const struct {
        int status;
        std::string texts; // the state first
        Files files;
    } rows[] = {
        {0, "nothing-to-do: no attempt*regular end*will attempt", END},
        {0, "updated: *\"A\" to \"B\" (Mon Nov 16 13:36:10 2026), passed*13:36:19*attempt \"B\" a",
         END + Ok(LAST_END) + Recorded(FIRST)},
        {0, "updated: *\"A\" to \"B\"", END + Ok(LAST_END) + Recorded(SECOND)},
        {0, "updated: ", END + Ok(LAST) + Recorded(SECOND)}, // within a second
        {0, "updated: *13:36:19", END + Ok(BEFORE_END + LAST_END) + Recorded(SECOND)},
        {0, "updated: *Mon Nov 16 13:36:10",
         END + Ok(LAST_END) + Recorded(Attempt(BEFORE, "A", "S\n") + Attempt(LAST, "B", "S\nX\n"))},
        {0, "updated: ", END + Ok(LAST) + Recorded(Attempt(unset, "B"))}, // the clock was set
        {1, "failed: *2026\"). The next run will not", BEGIN + Fail(LAST_END) + Recorded(FIRST)},
        {1, "failed: *regular end", END + Fail(LAST_END) + Recorded(SECOND)},
        {1, "interrupted: *the power failed", BEGIN + Recorded(FIRST)},
        {1, "interrupted: *ffu.ok (*13:00:09*earlier", BEGIN + Ok(BEFORE_END) + Recorded(SECOND)},
        // The next start hides what happened.
        {1, "unknown: *nothing was downloaded*will not attempt \"B\"", END + Recorded(FIRST)},
        {1, "unknown: *earlier attempt", END + Ok(BEFORE_END) + Recorded(SECOND)},
        {1, "unknown: *earlier attempt", END + Fail(BEFORE_END) + Recorded(SECOND)},
        {1, "unknown: *both outcome flags", END + Ok(LAST_END) + Fail(LAST_END) + Recorded(FIRST)},
        {1, "unknown: no attempt*both run flags", BOTH},
        {1, "unknown: *both run flags", BOTH + Ok(LAST_END) + Recorded(FIRST)},
        {1, "unknown: *no attempt is on record", END + Ok(LAST_END)},
        {1, "unknown: *no attempt is on record", END + Files{{"ufs_fw_body.bin", "x"}}},
        // Clocks jump, and times are lost.
        {1, "unknown: the times", END + Ok(BEFORE_END) + Recorded(FIRST)},
        {1, "unknown: the times", END + Ok("Tue Nov 17 13:36:10 2026\n") + Recorded(SECOND)},
        {1, "unknown: the times",
         END + Ok(unsetEnd) + Recorded(Attempt(unset, "A") + Attempt(unset, "B"))},
        {1, "unknown: the times*fit an earlier",
         END + Ok(LAST_END) + Recorded(Attempt(LAST, "A") + Attempt(LAST, "B"))},
        {1, "unknown: the times", // the first flag came back twice
         END + Ok(LAST_END) +
             Recorded(Attempt(LAST, "A") + Attempt(BEFORE, "B") + Attempt(LAST, "C"))},
        {1, "unknown: the times",
         END + Ok("Mon Nov 16 13:30:00 2026\n") +
             Recorded(Attempt(BEFORE, "A") + Attempt("Mon Nov 16 13:29:59 2026\n", "B"))},
        {0, "updated: ",
         END + Ok("Mon Nov 16 13:30:01 2026\n") +
             Recorded(Attempt("Mon Nov 16 13:00:00 2026\n", "A") +
                      Attempt("Mon Nov 16 13:15:01 2026\n", "B"))},
        {1, "unknown: the times", // longer than an update takes
         END + Ok("Mon Nov 16 13:51:11 2026\n") + Recorded(SECOND)},
        {1, "unknown: the times",
         END + Ok(LAST_END) + Recorded(Attempt(LAST_END, "A") + Attempt(LAST, "B"))},
        {1, "unknown: the times",
         END + Ok(LAST_END) + Recorded(Attempt(LAST, "A") + Attempt("", "B"))},
        {1, "unknown: the times", END + Ok(LAST_END) + Recorded(Attempt("", "B"))},
        {1, "unknown: the times", END + Ok("") + Recorded(FIRST)},
        {1, "unknown: the times*\\x00", END + Ok(zeros) + Recorded(FIRST)},
        {1, "unknown: the times", END + Ok("Fri Nov 16 13:36:19 2026\n") + Recorded(FIRST)},
        {1, "unknown: the times", END + Ok("Mon Nov 16 13:36:1") + Recorded(FIRST)},
        {1, "stopped: no attempt*no storage device", BEGIN},
        {1, "stopped: *passed*the last run stopped", BEGIN + Ok(LAST_END) + Recorded(FIRST)},
        {1, "stopped: *passed*could not create", Ok(LAST_END) + Recorded(FIRST)},
        {1, "record-unreadable: *Parse base rev failed!*Every later run*Restart the phone",
         BEGIN + Recorded("")},
        {1, "record-unreadable: *Parse base rev failed!",
         END + Ok(LAST_END) + Recorded(SECOND + LAST)},
        {1,
         "record-unreadable: ", END + Ok(LAST_END) + Recorded(SECOND.substr(0, SECOND.size() - 1))},
        {1, "record-unreadable: *memcpy_s error!", END + Recorded(Attempt(LAST, "123456789"))},
        {1, "record-unreadable: ", END + Ok(LAST_END) + Recorded(zeros)},
        {2, "not-pulled: there is no file", {}},
        {2, "foreign: there are files, but none of a run", {{"ffu", "x"}, {"FW_RESULT", FIRST}}},
        {1, "*\"\\x1b[2J\"*\\x07", END + Recorded(Attempt("\a\n", "\x1b[2J"))},
    };
    for (const auto& row : rows) {
        std::string shown = row.texts;
        for (const auto& [name, content] : row.files) {
            shown.append("\n").append(name).append(": ").append(content);
        }
        SCOPED_TRACE(shown);
        fs::remove_all(Path("/state"));
        PutState("/state", row.files);
        const Answer answer = Fwlab("outcome state");
        Expect({answer.status, "\n" + answer.text}, row.status, "\n" + row.texts);
        ExpectPrintable(answer.text);
    }
    Expect(Fwlab("outcome gone"), 2, "unreadable: gone: No such file");
    Expect(Fwlab("outcome state/ffu.end"), 2, "unreadable: state/ffu.end: Not a directory");
}

TEST_F(OutcomeTest, ReadsRegularFilesOnly) {
    const struct {
        std::string name, target, texts; // without a target: a FIFO
    } rows[] = {
        {"fw_result", "", "record-unreadable: *not a regular file"},
        {"fw_result", "/dev/zero", "record-unreadable: *not a regular file"},
        {"fw_result", "../record", "record-unreadable: *not a regular file"},
        {"fw_result", ".", "record-unreadable: *not a regular file"},
        {"ffu.ok", "", "unknown: ffu.ok is not a regular file"},
        {"ffu.ok", "/dev/zero", "unknown: ffu.ok is not a regular file"},
        {"ffu.end", "gone", "unknown: ffu.end is not a regular file"},
    };
    Put("/record", FIRST);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name + " " + row.target);
        fs::remove_all(Path("/state"));
        PutState("/state", END + Ok(LAST_END) + Recorded(FIRST));
        const std::string file = Path("/state/" + row.name);
        fs::remove(file);
        if (row.target.empty()) {
            ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
        } else {
            fs::create_symlink(row.target, file);
        }
        Expect(Fwlab("outcome state"), 1, row.texts);
    }
}

TEST_F(OutcomeTest, ReadsTheEndOfLargeFiles) {
    PutState("/state", END + Ok(LAST_END) + Recorded(""));
    fs::resize_file(Path("/state/fw_result"), 1UL << 34);
    const std::string few = "ulimit -v 1000000 &&";
    Expect(Fwlab("outcome state", few), 1, "record-unreadable: ");
    std::ofstream(Path("/state/fw_result"), std::ios::app) << "\n" << SECOND;
    Expect(Fwlab("outcome state", few), 0, "updated: *\"A\" to \"B\"");
    fs::resize_file(Path("/state/ffu.ok"), 1UL << 34);
    Expect(Fwlab("outcome state", few), 1, "unknown: the times");
}

TEST_F(OutcomeTest, CountsAFleet) {
    const Files updated = END + Ok(LAST_END) + Recorded(FIRST);
    PutState("/fleet/S1/data/vendor/fw", updated);
    PutState("/fleet/S2/data/vendor/fw", updated);
    PutState("/fleet/S3", END + Fail(LAST_END) + Recorded(Attempt(LAST, "B", "\x1b[2J")));
    PutState("/fleet/S4/fw", END + Recorded("x"));
    fs::create_directories(Path("/fleet/S5/data/vendor/fw"));
    PutState("/fleet/S8", {{"log", "x"}});
    PutState("/fleet/S6\x1b[2J\n<b>\x9b", END);
    PutState("/elsewhere", BEGIN);
    fs::create_directory_symlink("../elsewhere", Path("/fleet/S7"));
    Put("/fleet/notes.txt", "x");
    const Answer table = Fwlab("outcome fleet");
    Expect(table, 1, "-  *record-unreadable  *1  fleet/S4/fw\n");
    Expect(table, 1, "-  *not-pulled  *1  fleet/S5\n");
    Expect(table, 1, "-  *foreign  *1  fleet/S8\n");
    Expect(table, 1, "-  *nothing-to-do  *1  fleet/S6\\x1b[[]2J\\n<b>\\x9b\n");
    Expect(table, 1, "\"SIM064\" *\"A\"   *\"B\" *updated *2  fleet/S1/data/vendor/fw, fleet/S2/");
    Expect(table, 1,
           "\"\\x1b[[]2J\" *failed *1  fleet/S3\n*7 directories, 2 updated, 1 nothing-to-do, 1 "
           "record-unreadable, 1 failed, 1 not-pulled, 1 foreign. Not updated: 60 % of the 5");
    Expect(Fwlab("outcome fleet --list"), 1,
           "\nfailed  fleet/S3\nrecord-unreadable  fleet/S4/fw\nnot-pulled  fleet/S5\n"
           "foreign  fleet/S8\n\n7 directories");
    Expect(Fwlab("outcome fleet fleet/S1 fleet/S5 ./fleet/S3"), 1, "\n7 directories");
    Expect(Fwlab("outcome fleet", "script -qec '" FWLAB_PATH " outcome fleet' log;"), 1,
           "\r0 of 7 directories*\r*product");
    ExpectPrintable(table.text);
    const Answer json = Fwlab("outcome --json fleet/S3 fleet gone");
    Expect(
        json, 1,
        "{\"schema\":1,\"directory\":\"fleet/S3\",\"state\":\"failed\",\"product\":"
        "\"\\\\x1b[[]2J\",\"from\":\"A\",\"to\":\"B\",\"time\":\"Mon Nov 16 13:36:10 "
        "2026\",\"text\":\"failed: *\n*/S4/fw\",\"state\":\"record-unreadable\",\"product\":null");
    EXPECT_EQ(std::count(json.text.begin(), json.text.end(), '\n'), 8);
    Expect(json, 1, "\"directory\":\"gone\",\"state\":\"unreadable\"");
    ExpectPrintable(json.text);

    Expect(Fwlab("outcome fleet --fail-above 60"), 0);
    Expect(Fwlab("outcome fleet --fail-above 59.9"), 1);
    Expect(Fwlab("outcome fleet --fail-above 101"), 2, "101");
    Expect(Fwlab("outcome fleet/S1 fleet/S6*"), 0, "2 directories");
    Expect(Fwlab("outcome elsewhere fleet/S1 --fail-above 50"), 0, "1 stopped");
    Expect(Fwlab("outcome elsewhere fleet/S1 --fail-above 49"), 1);
    Expect(Fwlab("outcome fleet/S5 gone"), 2, "1 not-pulled, 1 unreadable");
    // A phone that was pulled whole is one phone.
    PutState("/fleet/S1/proc/bootdevice", {{"rev", "0900\n"}});
    Expect(Fwlab("outcome fleet/S1"), 0, "updated: ");
}

// Courses of up to four runs of one phone: right clocks and wrong ones, firmware that the device
// takes and refuses, failing calls, and power cuts with any loss of what was not synced. What is
// said of the last attempt on record must be what the device and the tool did in its run.
class OutcomeOfCourses : public PhoneTest {
protected:
    enum Clock { RIGHT, RESTARTS, IS_SET, STANDS_STILL, JUMPS };
    static constexpr size_t FIRST_NUMBER = 10000; // of the directories below /states

    struct Course {
        bool isUfs, isPlain; // plain: without a fault
        Clock clock;
        bool isTaken, isRefused, isFailed, isLast; // the last attempt; it was made in the last run
        bool runsWhole;                            // and that was not cut
        std::string text;
    };
    std::mt19937 random{FromEnvironment("FFU_SEED", 1)};
    time_t now = 0, start = 0; // the right time; at which a wrong clock starts
    std::vector<Course> courses;

    unsigned Below(unsigned end) {
        return static_cast<unsigned>(random() % end);
    }
    static std::string In(const char* format, time_t time) {
        tm parts = {};
        std::ostringstream text;
        text << std::put_time(localtime_r(&time, &parts), format);
        return text.str();
    }
    // What a run's clock shows when it writes the record, and the outcome flag.
    std::pair<time_t, time_t> Times(Clock clock) {
        now += 2400 + (Below(2) == 0 ? Below(90) * 86400 : 0);
        const time_t lasts = Below(5) == 0 ? Below(600) : Below(20);
        const time_t jumps[] = {0, 0, 7, -7, 500, 1500, -1500, 3600, -3600, 86400, -86400};
        const time_t wrong = start + 15 + Below(30);
        switch (clock) {
        case RIGHT:
            return {now, now + lasts};
        case RESTARTS:
            return {wrong, wrong + lasts};
        case IS_SET:
            return {wrong, Below(2) == 0 ? now : wrong + lasts};
        case STANDS_STILL:
            return {start, start};
        default:
            start += jumps[Below(11)];
            return {start, start + lasts};
        }
    }
    std::string Fault() {
        const unsigned ends[] = {150, 60, 45}; // the record and the flags are among the first ones
        const std::string call = "any #" + std::to_string(1 + Below(ends[Below(3)]));
        return Below(5) < 2 ? "" : call + (Below(4) == 0 ? " EIO" : " end");
    }

    void RunOnce(Course& course, const std::string& fault) {
        const char* targets[] = {"0800", "0900", "1000", "1100", "1200"};
        const std::string target = targets[Below(5)];
        const bool refuses = Below(4) == 0;
        const auto [begins, ends] = Times(course.clock);
        Overrides keys = {{"clock", In("%Y-%m-%dT%H:%M:%S", begins)},
                          {"firmware.revision", "'" + target + "'"}};
        keys["faults"] = refuses && !course.isUfs ? "['FFU_INSTALL EIO']" : "[]";
        if (course.isUfs) {
            keys["write_buffer"] = refuses ? "'sense 5/26/00'" : "'good'";
            Put(UFS_PACKAGE, UfsEntry(target));
        } else {
            keys["firmware.revision"] = "'" + target + "0000'";
            Put(EMMC_PACKAGE, EmmcEntry(target + "0000"));
        }
        Put("/phone.toml", course.isUfs ? UfsPhone(keys) : NormalPhone(keys));
        const StateDirectory before = ReadStateDirectory(directory);
        const RunResult run = RunAnyhow({fault});
        StateDirectory after = ReadStateDirectory(directory);
        for (const CallEntry& call : run.calls) {
            const std::string name = fs::path(call.path).filename();
            if (call.function == "write" && call.error.empty() &&
                (name == "ffu.ok" || name == "ffu.fail")) {
                std::string& flag = after.files[name]; // ended later than the record was written
                flag.replace(flag.size() - 25, 25, In("%a %b %e %H:%M:%S %Y\n", ends));
            }
        }
        const bool isCut = run.signal != 0;
        const auto survivals =
            isCut ? Survivals(before, after, run.calls) : std::vector<Survival>{{{}, after}};
        const Survival& survival = survivals[Below(static_cast<unsigned>(survivals.size()))];
        ASSERT_TRUE(WriteStateDirectory(directory, survival.state));
        const auto record = [](const StateDirectory& state) {
            const auto found = state.files.find("fw_result");
            return found == state.files.end() ? 0 : found->second.size();
        };
        course.isLast = record(survival.state) > record(before);
        if (course.isLast) {
            const std::string requests = Requests(run);
            course.isTaken = std::regex_search(
                requests, std::regex(course.isUfs ? "WRITE BUFFER.*-> GOOD" : "opcode=303.*-> 0"));
            course.isRefused = !requests.empty() && !course.isTaken;
            course.isFailed = Count(Steps(run), "UpdateResultFlag: upgrade to ") > 0;
        }
        course.runsWhole = !isCut;
        course.isPlain = course.isPlain && fault.empty();
        course.text += In("\n%F %T", begins) + In(" to %F %T", ends) + " " + target +
                       (refuses ? ", refused " : " ") + fault + LossText(survival.losses);
        if (isCut || Below(2) == 0) {
            Reboot();
        }
    }

    void RunCourse() {
        const time_t starts[] = {10, 1230768000, 1772870000};
        now = 1772870000 + Below(1000000);
        start = starts[Below(3)];
        Course course = {};
        course.isUfs = Below(2) == 0;
        course.isPlain = true;
        course.clock = static_cast<Clock>(Below(5));
        Make(course.isUfs ? UfsPhone() : NormalPhone());
        for (unsigned runs = 1 + Below(4); runs > 0; runs--) {
            RunOnce(course, Fault());
        }
        const fs::path states = fs::path(directory).parent_path() / "states";
        const fs::path copy = states / std::to_string(FIRST_NUMBER + courses.size());
        fs::create_directories(copy);
        for (const auto& [name, content] : State()) {
            ASSERT_TRUE(WriteWholeFile(copy / name, content.data(), content.size()));
        }
        courses.push_back(course);
    }
};

TEST_F(OutcomeOfCourses, SaysOnlyWhatHappened) {
    const unsigned count = FromEnvironment("FFU_COURSES", 300);
    for (unsigned i = 0; i < count && !HasFailure(); i++) {
        RunCourse();
    }
    const Answer answer = FwlabIn(fs::path(directory).parent_path(), "outcome --json states");
    std::istringstream lines(answer.text);
    std::map<std::string, size_t> states;
    size_t wholes = 0, definite = 0;
    for (std::string line; std::getline(lines, line);) {
        const size_t number = line.find("states/") + 7, key = line.find("\"state\":\"") + 9;
        const Course& course = courses.at(std::stoul(line.substr(number, 5)) - FIRST_NUMBER);
        const std::string state = line.substr(key, line.find('"', key) - key);
        SCOPED_TRACE(course.text + "\n" + line);
        states[state]++;
        const bool saysPassed = Count(line, ", passed: ") > 0, saysFailed = state == "failed";
        EXPECT_TRUE(state != "updated" || saysPassed);
        EXPECT_TRUE(!saysPassed || course.isTaken);
        EXPECT_TRUE(!saysFailed || course.isFailed);
        EXPECT_FALSE(saysFailed && course.isPlain && course.isTaken);
        EXPECT_FALSE(state == "nothing-to-do" && Count(line, "\"to\":\"") > 0);
        if (course.clock != RIGHT) {
            continue;
        }
        if (course.isLast && course.runsWhole && (course.isTaken || course.isRefused)) {
            wholes++;
            definite += saysPassed || saysFailed;
        }
        if (course.isPlain && course.isLast) {
            EXPECT_EQ(state == "updated", course.isTaken);
            EXPECT_EQ(saysFailed, course.isRefused);
        }
    }
    size_t all = 0;
    for (const auto& [state, number] : states) {
        printf("%-12s %zu\n", state.c_str(), number);
        all += number;
    }
    printf("right clock, last run whole and with an attempt: %zu of %zu definite\n", definite,
           wholes);
    EXPECT_EQ(all, courses.size());
    EXPECT_GE(10 * definite, 9 * wholes);
    for (const char* state : {"updated", "nothing-to-do", "failed", "interrupted", "unknown",
                              "stopped", "record-unreadable"}) {
        EXPECT_GT(states[state], 0U) << state;
    }
}
