// The memory across runs. A failure here means a firmware that is tried again and again, or one
// that never gets its turn.
#include "run/result_record.h"
#include "test/phone/phone.h"

#include <cerrno>
#include <cstdio>

namespace {

class ResultRecordTest : public PhoneTest {};

std::string ReadBack(const std::string& base, const std::string& target,
                     const std::string& rev = EMMC_NEW_REV) {
    return "CheckResultFile: lastBaseRev:" + base + ", lastTargetRev:" + target +
           ", fwBinRev:" + rev + "\n";
}
const std::string APPLIED =
    "CheckResultFile: firmware in fw file has been applied, no need to update.";
const std::string NOT_APPLIED =
    "CheckResultFile: firmware in fw file has not been applied yet, try to update.";

TEST_F(ResultRecordTest, EachRevisionIsAttemptedOnce) {
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
    const std::string second = AttemptRecord(EMMC_REV, "FW000002");
    const std::string third = AttemptRecord(EMMC_REV, "FW000003");
    (void)Run({"write /proc/bootdevice/ffu EIO"});
    EXPECT_EQ(State(), (Files{{"ffu.bgn", ""}, {"ffu.fail", CLOCK_TEXT}, {"fw_result", second}}));

    EXPECT_EQ(Requests(Run()), ""); // though it would pass now
    EXPECT_EQ(State(), (Files{{"ffu.end", ""}, {"ffu.fail", CLOCK_TEXT}, {"fw_result", second}}));

    Put(EMMC_PACKAGE, EmmcEntry("FW000003"));
    ExpectEnd(Steps(Run()), "exit!\n" + ReadBack(EMMC_REV, "FW000002", "FW000003") + NOT_APPLIED +
                                "UpdateResultFlag: update to FW000003 pass");
    const Files both = {{"ffu.end", ""}, {"ffu.ok", CLOCK_TEXT}, {"fw_result", second + third}};
    EXPECT_EQ(State(), both);
    ExpectEnd(Steps(Run()), "exit!\n" + ReadBack(EMMC_REV, "FW000003", "FW000003") + APPLIED);
    EXPECT_EQ(State(), both);

    Put(EMMC_PACKAGE, EmmcEntry()); // only the last record counts
    EXPECT_EQ(Requests(Run()), "GKI write 4 -> 4\n");
    EXPECT_EQ(State().at("fw_result"), second + third + second);

    // An attempt that finds nothing to do clears what the one before it left, and stands on record.
    Put(EMMC_PACKAGE, With(EmmcEntry("FW000004"), EMMC_MID_FIELD, "\x14"));
    (void)Run();
    EXPECT_EQ(State(), (Files{{"ffu.end", ""},
                              {"fw_result",
                               second + third + second + AttemptRecord(EMMC_REV, "FW000004")}}));
}

const std::string PARSE_ERROR = "CheckResultFile: ParseResultFile error\n";
const std::string NO_PARSE = "SubParseResultFile: Parse base rev failed!\n" + PARSE_ERROR;
const std::string TOO_LONG = "SubParseResultFile: memcpy_s error!\n" + PARSE_ERROR;
const std::string NOT_YET =
    NOT_APPLIED + "WriteResultFile: open ffu result file failed! Read-only file system\n";
const std::string KEYS = "current fw version:, upgrading to version:";

std::string LongLine(size_t size) {
    const std::string line = AttemptRecord("A", EMMC_NEW_REV).substr(CLOCK_TEXT.size());
    return std::string(size - line.size(), 'x') + line;
}

const struct {
    const char* name;
    std::string record;
    std::string steps;              // after the pre-check
    std::string rev = EMMC_NEW_REV; // the package's
} CASES[] = {
    {"empty", "", NO_PARSE},
    {"cut off in its target", CLOCK_TEXT + KEYS + "FW0000", NO_PARSE},
    {"cut off before its target", CLOCK_TEXT + "current fw version:FW000001, upg", NO_PARSE},
    {"values empty", KEYS + "\n", ReadBack("", "") + NOT_YET},
    {"base of eight bytes", AttemptRecord("12345678", "B"), ReadBack("12345678", "B") + NOT_YET},
    {"base of nine bytes", AttemptRecord("123456789", "B"), TOO_LONG},
    {"target in other letters", AttemptRecord("A", "fw000002"),
     ReadBack("A", "fw000002") + NOT_YET},
    {"shorter target", AttemptRecord("A", "FW00000"), ReadBack("A", "FW00000") + NOT_YET},
    {"1023 bytes: one piece", LongLine(1023), ReadBack("A", "FW000002") + APPLIED},
    {"1024 bytes: the last piece is the line end", LongLine(1024), NO_PARSE},
    {"keys in the last of two pieces", LongLine(1023 + 73), ReadBack("A", "FW000002") + APPLIED},
    {"comma in its target", AttemptRecord("A", "B,C"), ReadBack("A", "B,C") + NOT_YET},
    {"longer target", AttemptRecord("A", "FW2more"), ReadBack("A", "FW2more", "FW2") + APPLIED,
     "FW2"},
    {"package's revision empty", AttemptRecord("A", "B"), ReadBack("A", "B", "") + APPLIED, ""},
};

TEST_F(ResultRecordTest, OnlyTheLastLineIsRead) {
    for (const auto& row : CASES) {
        SCOPED_TRACE(row.name);
        Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry(row.rev)},
                          {STATE + "/ffu.ok", ""},
                          {STATE + "/fw_result", row.record}});
        ExpectEnd(Steps(Run({"open /data/vendor/fw/fw_result EROFS"})), "exit!\n" + row.steps);
        EXPECT_EQ(State().at("fw_result"), row.record);
        EXPECT_EQ(State().count("ffu.end"), Count(row.steps, APPLIED));
    }
}

// A read that fails in the middle of a line leaves the one before it, which the C library
// delivered.
TEST(ResultRecord, LastLineIsWhatWasDeliveredLast) {
    std::string rest = "first\nwhole line\npart";
    const auto yieldThenFail = [](void* cookie, char* buffer, size_t size) -> ssize_t {
        auto& left = *static_cast<std::string*>(cookie);
        const size_t count = left.copy(buffer, size);
        left.erase(0, count);
        errno = EIO;
        return count > 0 ? static_cast<ssize_t>(count) : -1;
    };
    FILE* file = fopencookie(&rest, "r", {yieldThenFail, nullptr, nullptr, nullptr});
    ResultLine line = {};
    ReadLastLine(file, line);
    fclose(file);
    EXPECT_STREQ(line.data(), "whole line\n");
}

} // namespace
