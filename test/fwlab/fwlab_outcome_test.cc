// What the workstation tool tells of the files that runs left on phones: one phone, a fleet, and
// files that no run leaves. It may never say more than they tell.
#include "test/fwlab/fwlab.h"

#include <fstream>
#include <sys/stat.h>

namespace {

// An earlier attempt's time and outcome, then the last one's.
const std::string BEFORE = "Mon Nov 16 13:00:00 2026\n", BEFORE_END = "Mon Nov 16 13:00:09 2026\n";
const std::string LAST = "Mon Nov 16 13:36:10 2026\n", LAST_END = "Mon Nov 16 13:36:19 2026\n";

std::string Attempt(const std::string& time, const std::string& target,
                    const std::string& product = "SIM064") {
    return time + AttemptRecord("A", target, product).substr(CLOCK_TEXT.size());
}

const std::string FIRST = Attempt(LAST, "B");
const std::string SECOND = Attempt(BEFORE, "A") + FIRST;
const Files END = {{"ffu.end", ""}}, BEGIN = {{"ffu.bgn", ""}};
const Files BOTH = {{"ffu.end", ""}, {"ffu.bgn", ""}}, FAILED = {{"ffu.fail", LAST_END}};

Files Ok(const std::string& time) {
    return {{"ffu.ok", time}};
}
Files Recorded(const std::string& record) {
    return {{"fw_result", record}};
}

using OutcomeTest = FwlabTest;

} // namespace

TEST_F(OutcomeTest, SaysNoMoreThanTheFilesTell) {
    const std::string unset = "Thu Jan  1 00:00:20 1970\n";
    const std::string zeros(25, '\0');
    const struct {
        int status;
        std::string texts; // the state first
        Files files;
    } rows[] = {
        {0, "nothing-to-do: no attempt*regular end*will attempt", END},
        {0, "updated: *\"A\" to \"B\" (Mon Nov 16 13:36:10 2026), passed*13:36:19*attempt \"B\" a",
         END + Ok(LAST_END) + Recorded(FIRST)},
        {0, "updated: ", END + Ok(LAST) + Recorded(SECOND)}, // within a second
        {0, "updated: *13:36:19", END + Ok(BEFORE_END + LAST_END) + Recorded(SECOND)},
        {0, "updated: *Mon Nov 16 13:36:10",
         END + Ok(LAST_END) + Recorded(Attempt(BEFORE, "A", "S\n") + Attempt(LAST, "B", "S\nX\n"))},
        {0, "updated: ", END + Ok(LAST) + Recorded(Attempt(unset, "B"))}, // the clock was set
        {1, "failed: *2026\"). The next run will not", BEGIN + FAILED + Recorded(FIRST)},
        {1, "failed: *regular end", END + FAILED + Recorded(SECOND)},
        {1, "interrupted: *the power failed", BEGIN + Recorded(FIRST)},
        {1, "interrupted: *ffu.ok (*13:00:09*earlier", BEGIN + Ok(BEFORE_END) + Recorded(SECOND)},
        // The next start hides what happened.
        {1, "unknown: *nothing was downloaded*will not attempt \"B\"", END + Recorded(FIRST)},
        {1, "unknown: *earlier attempt", END + Ok(BEFORE_END) + Recorded(SECOND)},
        {1, "unknown: *both outcome flags", END + Ok(LAST_END) + FAILED + Recorded(FIRST)},
        {1, "unknown: no attempt*both run flags", BOTH},
        {1, "unknown: *both run flags", BOTH + Ok(LAST_END) + Recorded(FIRST)},
        {1, "unknown: *no attempt is on record", END + Ok(LAST_END)},
        {1, "unknown: *no attempt is on record", END + Files{{"ufs_fw_body.bin", "x"}}},
        // Clocks jump, and times are lost.
        {1, "unknown: the times", END + Ok(BEFORE_END) + Recorded(FIRST)},
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
             Recorded(Attempt(BEFORE, "A") + Attempt("Mon Nov 16 13:15:01 2026\n", "B"))},
        {1, "unknown: the times", // longer than an update takes
         END + Ok("Mon Nov 16 13:51:11 2026\n") + Recorded(SECOND)},
        {1, "unknown: the times",
         END + Ok(LAST_END) + Recorded(Attempt("", "A") + Attempt(LAST, "B"))},
        {1, "unknown: the times", END + Ok(LAST_END) + Recorded(Attempt("", "B"))},
        {1, "unknown: the times*\\x00", END + Ok(zeros) + Recorded(FIRST)},
        {1, "unknown: the times", END + Ok("Fri Nov 16 13:36:19 2026\n") + Recorded(FIRST)},
        {1, "stopped: no attempt*no storage device", BEGIN},
        {1, "stopped: *passed*the last run stopped", BEGIN + Ok(LAST_END) + Recorded(FIRST)},
        {1, "stopped: *passed*could not create", Ok(LAST_END) + Recorded(FIRST)},
        {1, "record-unreadable: *Parse base rev failed!*Every later run*Restart the phone",
         BEGIN + Recorded("")},
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
    }
    Expect(Fwlab("outcome gone"), 2, "unreadable: gone: No such file");
    Expect(Fwlab("outcome state/ffu.end"), 2, "unreadable: state/ffu.end: Not a directory");
}

TEST_F(OutcomeTest, ReadsRegularFilesOnly) {
    Put("/record", FIRST);
    const auto expect = [&](const std::string& name, const std::string& target, // "": a FIFO
                            const std::string& text) {
        fs::remove_all(Path("/state"));
        PutState("/state", END + Ok(LAST_END) + Recorded(FIRST) + Files{{name, ""}});
        const std::string file = Path("/state/" + name);
        fs::remove(file);
        if (target.empty()) {
            ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
        } else {
            fs::create_symlink(target, file);
        }
        Expect(Fwlab("outcome state"), 1, text);
    };
    for (const char* target : {"", "/dev/zero", "../record", "."}) {
        expect("fw_result", target, "record-unreadable: *not a regular file");
        expect("ffu.ok", target, "unknown: ffu.ok is not a regular file");
    }
    expect("ffu.end", "gone", "unknown: ffu.end is not a regular file");
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
    PutState("/fleet/S3", END + FAILED + Recorded(Attempt(LAST, "B", "\x1b[2J")));
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
    Expect(Shell("cd " + directory + " && script -qec '" FWLAB_PATH " outcome fleet' log"), 1,
           "\r0 of 7 directories*\r*product");
    const Answer json = Fwlab("outcome --json fleet/S3 fleet gone");
    Expect(
        json, 1,
        "{\"schema\":1,\"directory\":\"fleet/S3\",\"state\":\"failed\",\"product\":"
        "\"\\\\x1b[[]2J\",\"from\":\"A\",\"to\":\"B\",\"time\":\"Mon Nov 16 13:36:10 "
        "2026\",\"text\":\"failed: *\n*/S4/fw\",\"state\":\"record-unreadable\",\"product\":null");
    EXPECT_EQ(std::count(json.text.begin(), json.text.end(), '\n'), 8);
    Expect(json, 1, "\"directory\":\"gone\",\"state\":\"unreadable\"");

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
