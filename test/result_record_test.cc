// The memory across runs. A failure here means a firmware that is tried again and again, or one
// that never gets its turn.
#include "test/phone.h"

namespace {

class ResultRecordTest : public PhoneTest {};

std::string Record(const std::string& base, const std::string& target) {
    return CLOCK_TEXT + "product name:SIM064, current fw version:" + base +
           ", upgrading to version:" + target + "\n";
}

TEST_F(ResultRecordTest, EachRevisionIsAttemptedOnce) {
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
    const std::string second = Record(EMMC_REV, "FW000002");
    const std::string third = Record(EMMC_REV, "FW000003");
    (void)Run({"write /proc/bootdevice/ffu EIO"});
    EXPECT_EQ(State(), (Files{{"ffu.bgn", ""}, {"ffu.fail", CLOCK_TEXT}, {"fw_result", second}}));

    EXPECT_EQ(Requests(Run()), Texts()); // though it would pass now
    EXPECT_EQ(State(), (Files{{"ffu.end", ""}, {"ffu.fail", CLOCK_TEXT}, {"fw_result", second}}));

    Put(EMMC_PACKAGE, EmmcEntry("FW000003"));
    const RunResult passed = Run();
    EXPECT_EQ(Tail(SystemLog(passed), 3),
              (Texts{"FFU process CheckResultFile: lastBaseRev:FW000001, lastTargetRev:FW000002, "
                     "fwBinRev:FW000003\n",
                     "FFU process CheckResultFile: firmware in fw file has not been applied yet, "
                     "try to update.",
                     "FFU process UpdateResultFlag: update to FW000003 pass"}));
    const Files both = {{"ffu.end", ""}, {"ffu.ok", CLOCK_TEXT}, {"fw_result", second + third}};
    EXPECT_EQ(State(), both);
    (void)Run();
    EXPECT_EQ(State(), both);

    Put(EMMC_PACKAGE, EmmcEntry()); // only the last record counts
    EXPECT_EQ(Requests(Run()), Texts{"GKI write 4 -> 4"});
    EXPECT_EQ(State().at("fw_result"), second + third + second);

    // An attempt that finds nothing to do clears what the one before it left, and stands on record.
    Put(EMMC_PACKAGE, With(EmmcEntry("FW000004"), EMMC_MID_FIELD, "\x14"));
    (void)Run();
    EXPECT_EQ(State(),
              (Files{{"ffu.end", ""},
                     {"fw_result", second + third + second + Record(EMMC_REV, "FW000004")}}));
}

struct Case {
    const char* name;
    std::string phone;
    std::string record;
    std::string steps;            // after the pre-check
    std::string rev = "FW000002"; // the package's
};

const std::string KEYS = "current fw version:, upgrading to version:";
const std::string NO_PARSE = "SubParseResultFile: Parse base rev failed!\n"
                             "CheckResultFile: ParseResultFile error\n";
const std::string TOO_LONG = "SubParseResultFile: memcpy_s error!\n"
                             "CheckResultFile: ParseResultFile error\n";

std::string Attempted(const std::string& base, const std::string& target, const std::string& rev) {
    return "CheckResultFile: lastBaseRev:" + base + ", lastTargetRev:" + target +
           ", fwBinRev:" + rev +
           "\nCheckResultFile: firmware in fw file has been applied, no need to update.";
}

std::string NotYet(const std::string& base, const std::string& target) {
    return "CheckResultFile: lastBaseRev:" + base + ", lastTargetRev:" + target +
           ", fwBinRev:FW000002\n"
           "CheckResultFile: firmware in fw file has not been applied yet, try to update."
           "WriteResultFile: open ffu result file failed! Read-only file system\n";
}

std::string LongLine(size_t size) {
    const std::string line = Record("A", "FW000002").substr(CLOCK_TEXT.size());
    return std::string(size - line.size(), 'x') + line;
}

const Case CASES[] = {
    {"empty", GkiPhone(), "", NO_PARSE},
    {"one line end", GkiPhone(), "\n", NO_PARSE},
    {"cut off in its value", GkiPhone(), CLOCK_TEXT + KEYS + "FW0000", NO_PARSE},
    {"cut off before its target", GkiPhone(), CLOCK_TEXT + "current fw version:FW000001, upg",
     NO_PARSE},
    {"cut off before its base", GkiPhone(), CLOCK_TEXT + "product name:SIM0", NO_PARSE},
    {"time alone", GkiPhone(), Record("A", "B") + CLOCK_TEXT, NO_PARSE},
    {"binary", GkiPhone(), std::string("\x00\xFF\n\x00\x01", 5), NO_PARSE},
    {"values empty", GkiPhone(), KEYS + "\n", NotYet("", "")},
    {"values of eight bytes", GkiPhone(), Record("12345678", "FW000002"),
     Attempted("12345678", "FW000002", "FW000002")},
    {"base of nine bytes", GkiPhone(), Record("123456789", "FW000002"), TOO_LONG},
    {"target of nine bytes", GkiPhone(), Record("12345678", "FW0000029"), TOO_LONG},
    {"target shorter than the package's", GkiPhone(), Record("A", "FW00000"),
     NotYet("A", "FW00000")},
    {"last line of 1023 bytes, the most that arrive in one piece", GkiPhone(), LongLine(1023),
     Attempted("A", "FW000002", "FW000002")},
    {"last line of 1024 bytes: its line end is the last piece", GkiPhone(), LongLine(1024),
     NO_PARSE},
    {"keys in the last piece of an over-long line", GkiPhone(), LongLine(1023 + 73),
     Attempted("A", "FW000002", "FW000002")},
    {"key split by the pieces of an over-long line", GkiPhone(), LongLine(1023 + 43), NO_PARSE},
    {"text behind the last line end", GkiPhone(), Record("A", "FW000002") + "x", NO_PARSE},
    {"UFS target that begins with the package's", UfsPhone(), Record("0800", "0900more"),
     Attempted("0800", "0900more", "0900")},
    {"package revision empty", GkiPhone(), Record("A", "B"), Attempted("A", "B", ""), ""},
};

TEST_F(ResultRecordTest, OnlyTheLastLineIsRead) {
    for (const Case& row : CASES) {
        SCOPED_TRACE(row.name);
        Make(row.phone, {{EMMC_PACKAGE, EmmcEntry(row.rev)},
                         {UFS_PACKAGE, UfsEntry()},
                         {STATE + "/ffu.ok", ""},
                         {STATE + "/fw_result", row.record}});
        const std::string steps = Steps(Run({"open /data/vendor/fw/fw_result EROFS"}));
        EXPECT_EQ(steps.substr(std::min(steps.size(), steps.find("exit!\n") + 6)), row.steps);
        EXPECT_EQ(State().at("fw_result"), row.record);
    }
}

TEST_F(ResultRecordTest, DirectoryInItsPlaceStopsEveryRun) {
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}, {STATE + "/fw_result/x", ""}});
    for (int run = 0; run < 2; run++) {
        EXPECT_EQ(Tail(SystemLog(Run()), 2),
                  (Texts{"FFU process SubParseResultFile: Parse base rev failed!\n",
                         "FFU process CheckResultFile: ParseResultFile error\n"}));
        EXPECT_EQ(Left(), "ffu.bgn fw_result");
    }
}

} // namespace
