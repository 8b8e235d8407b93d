// What no run of the tool reaches: refused arguments, failing bounded functions, and these
// functions themselves.
#include "platform/bounded.h"
#include "test/phone.h"

#include <cstdlib>

namespace {

class DirectTest : public PhoneTest {};

const char CALLS[] = R"(EmmcGetCidFromSysfs,line=165: EmmcGetCidFromSysfs args have NULL
= -1
EmmcGetExtCsd,line=237: EmmcGetExtCsd extCsd length or extCsd error
= -1
EmmcGetExtCsd,line=237: EmmcGetExtCsd extCsd length or extCsd error
= -1
EmmcGetExtCsd,line=241: EmmcGetExtCsd, emmc firmware normal mode 
= 0 FW000001
DoEmmc50Ffu,line=373: DoEmmc50Ffu args have NULL
= -1
DoEmmc50Ffu,line=389: emmc firmware normal mode 
DoEmmc50Ffu,line=396: eMMC5.0 ffu download image sucessful
= 0
DoEmmcFfu,line=210: emmc revision error (emmcRev=6)
= -1
DoEmmcFfu,line=207: emmc 5.0 or higher do firmware update
DoEmmc50Ffu,line=389: emmc firmware normal mode 
DoEmmc50Ffu,line=396: eMMC5.0 ffu download image sucessful
= 0
EmmcFfu,line=228: Error: emmcFwFile or emmcFwBackupFile is NULL
= -2
EmmcFfu,line=228: Error: emmcFwFile or emmcFwBackupFile is NULL
= -2
EmmcFfu,line=239: emmc firmware not exist, no need to update...
= -2
EmmcFfu,line=239: emmc firmware not exist, no need to update...
= -2
EmmcFwhdrCheck,line=198: fwbin file not match, no need to update
= -2
EmmcFwhdrCheck,line=198: fwbin file not match, no need to update
= -2
= 1 5
= -1
= -1
= -1
)";

TEST_F(DirectTest, RefusedArgumentsAndFlags) {
    Make(NormalPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
    const RunResult result = Run({}, DIRECT_CALLS_PATH);
    EXPECT_EQ(ConsoleText(result), CALLS);
    EXPECT_EQ(Steps(result), "GetTmeStamp: invalid time param.exit.\n"
                             "WriteResultFile: param is null. exit.\n"
                             "WriteResultFile: param is null. exit.\n"
                             "WriteResultFile: param is null. exit.\n");
    EXPECT_EQ(Count(Requests(result), "opcode=302 "), 2);
    EXPECT_EQ(Count(Requests(result), "opcode=303 "), 0);
}

// One bounded call of a run is refused. `console` and `steps` end what the run says.
struct Case {
    const char* refused;
    std::string phone;
    std::string console;
    std::string steps;
    std::string left;
};

const std::string NO_EXT_CSD = "GetEmmcHeader,line=138: get emmc extcsd register value failed\n"
                               "EmmcFfu,line=263: get emmc device header fail...\n";
const std::string NO_HEADER = "GetEmmcHeader,line=150: GetEmmcHeader copy to EmmcFwHeader fail\n"
                              "EmmcFfu,line=263: get emmc device header fail...\n";
const std::string NO_REV = "GetDeviceInfo: Get local fw rev failed!\n";
const std::string NOT_PARSED = "CheckFwBin: Parse rev in fw file failed!\n";
const std::string FAILED = "UpdateResultFlag: upgrade to FW000002 fail";
const std::string FAIL = "ffu.bgn ffu.fail fw_result";

const Case CASES[] = {
    // Register, current revision, package revision, base revisions, time; header of seven fields.
    {"memcpy_s 512", GkiPhone(), "EmmcGetExtCsd,line=272: memcpy_s error EmmcGetExtCsd\n",
     "GetCurrentRevEmmc: eMMC get extcsd failed! Status:22\n" + NO_REV, "ffu.bgn"},
    {"memcpy_s 517", GkiPhone(),
     "EmmcGetExtCsd,line=272: memcpy_s error EmmcGetExtCsd\n" + NO_EXT_CSD, FAILED, FAIL},
    {"memcpy_s 1", NormalPhone(), "",
     "GetCurrentRevEmmc: Get eMMC FW rev failed! Status:22\n" + NO_REV, "ffu.bgn"},
    {"memcpy_s 2", NormalPhone(), "", "GetEmmcRev: memcpy_s fwFileRev error!\n" + NOT_PARSED,
     "ffu.bgn"},
    {"memcpy_s 3", NormalPhone(), "", "GetEmmcRev: memcpy_s legalBaseRev error!\n" + NOT_PARSED,
     "ffu.bgn"},
    {"memcpy_s 5", NormalPhone(), NO_HEADER, FAILED, FAIL},
    {"memcpy_s 6", NormalPhone(), NO_HEADER, FAILED, FAIL},
    {"memcpy_s 7", NormalPhone(), NO_HEADER, FAILED, FAIL},
    {"memcpy_s 8", NormalPhone(), NO_HEADER, FAILED, FAIL},
    {"memcpy_s 9", NormalPhone(), NO_HEADER, FAILED, FAIL},
    {"memcpy_s 10", NormalPhone(), NO_HEADER, FAILED, FAIL},
    {"memcpy_s 11", NormalPhone(), NO_HEADER, FAILED, FAIL},
    {"memset_s 1", NormalPhone(), "EmmcCmd,line=102: EmmcCmd memset_s fail\n",
     "GetCurrentRevEmmc: eMMC get extcsd failed! Status:-1\n" + NO_REV, "ffu.bgn"},
    {"memset_s 2", NormalPhone(), "EmmcFfu,line=233: fwHeader memset_s 0 fail...\n", FAILED, FAIL},
    {"memset_s 3", NormalPhone(), "EmmcCmd,line=102: EmmcCmd memset_s fail\n" + NO_EXT_CSD, FAILED,
     FAIL},
    {"memset_s 4", NormalPhone(),
     "Ffu50DownloadImage,line=320: TOLMA: SFAE FUNCTION ERROR\n"
     "DoEmmc50Ffu,line=392: eMMC5.0 ffu download image fail\n"
     "EmmcFfu,line=279: emmc firmware update fail...\n",
     FAILED, FAIL},
    {"memset_s 5", NormalPhone(),
     "Ffu50Install,line=342: TOLMA: SFAE FUNCTION ERROR\n"
     "DoEmmc50Ffu,line=403: eMMC5.0 ffu install image fail\n"
     "EmmcFfu,line=279: emmc firmware update fail...\n",
     FAILED, FAIL},
    {"snprintf_s 2", NormalPhone(), "", "WriteResultFile: snprintf_s error!\n",
     "ffu.bgn fw_result"},

    {"memcpy_s 1", UfsPhone(), "", "GetUfsRev: memcpy_s fwFileRev error!\n" + NOT_PARSED,
     "ffu.bgn"},
    {"memcpy_s 2", UfsPhone(), "", "GetUfsRev: memcpy_s legalBaseRev error!\n" + NOT_PARSED,
     "ffu.bgn"},
    {"memset_s 1", UfsPhone(), "UfsFfu,line=450: UfsFfu memset_s fail\n",
     "UpdateResultFlag: upgrade to 0900 fail", FAIL},
    {"memcpy_s 4", UfsPhone(),
     "GetUfsLocalDevInfo,line=204: GetUfsLocalDevInfo memcpy_s UFSM fail\n"
     "UfsFfu,line=475: get ufs local device info fail!\n",
     "", "ffu.end fw_result"},
};

TEST_F(DirectTest, RefusedCopiesFailTheirStep) {
    for (const Case& row : CASES) {
        SCOPED_TRACE(row.refused);
        Make(row.phone, {{EMMC_PACKAGE, EmmcEntry()}, {UFS_PACKAGE, UfsEntry()}});
        setenv("REFUSED", row.refused, 1);
        const RunResult result = Run({}, REFUSING_FFU_PATH);
        unsetenv("REFUSED");
        EXPECT_EQ(result.exitStatus, 0);
        ExpectEnd(ConsoleText(result), row.console);
        ExpectEnd(Steps(result), row.steps);
        EXPECT_EQ(Left(), row.left);
        EXPECT_EQ(Get("/device/pending"), MISSING);
    }
}

TEST_F(DirectTest, RefusedCopiesThatFailNothing) {
    Make(NormalPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
    setenv("REFUSED", "memcpy_s 12", 1); // the time of the outcome flag
    EXPECT_EQ(Count(SystemLog(Run({}, REFUSING_FFU_PATH)), "GetTmeStamp: memcpy_s error.\n"), 1);
    EXPECT_EQ(State().at("ffu.ok"), "");

    // A reworked device keeps its name; its entry is another one then.
    Make(UfsPhone({{"product_name", "'KLUEG8U1EM-B0B1'"}, {"revision", "'0900'"}}),
         {{UFS_PACKAGE, With(UfsEntry("1000"), UFS_PNM_FIELD, "KLUEG8U1EM-B0B1")}});
    setenv("REFUSED", "memcpy_s 5", 1);
    const RunResult result = Run({}, REFUSING_FFU_PATH);
    unsetenv("REFUSED");
    EXPECT_EQ(Count(Console(result), "UpdateProductName,line=152: update product name failed!"), 1);
    EXPECT_EQ(Left(), "ffu.end ffu.ok fw_result");
}

TEST(BoundedTest, CopiesNeverWriteBeyondTheirField) {
    char field[] = "12345678";
    char* null = nullptr;
    EXPECT_EQ(memcpy_s(field, 4, "abcd", 4), 0);
    EXPECT_EQ(memset_s(field + 4, 2, 'z', 2), 0);
    EXPECT_STREQ(field, "abcdzz78");
    EXPECT_NE(memcpy_s(field, 4, "vwxyz", 5), 0);
    EXPECT_NE(memcpy_s(null, 4, "v", 1), 0);
    EXPECT_NE(memcpy_s(field, 4, null, 1), 0);
    EXPECT_NE(memcpy_s(field, 8, field + 3, 4), 0);
    EXPECT_NE(memcpy_s(field + 3, 5, field, 4), 0);
    EXPECT_NE(memset_s(null, 4, 'v', 1), 0);
    EXPECT_NE(memset_s(field, 4, 'v', 5), 0);
    EXPECT_NE(strncpy_s(field, 4, "vwxy", 4), 0);
    EXPECT_NE(strncpy_s(field, 4, "v", 5), 0);
    EXPECT_NE(strncpy_s(null, 4, "v", 1), 0);
    EXPECT_NE(strncpy_s(field, 4, null, 1), 0);
    EXPECT_STREQ(field, "abcdzz78"); // nothing is written by a refused call
    EXPECT_EQ(memcpy_s(field, 8, field + 4, 4), 0);
    EXPECT_STREQ(field, "zz78zz78");
    EXPECT_EQ(strncpy_s(field, 4, "vwxyz", 3), 0);
    EXPECT_EQ(std::string(field, 8), std::string("vwx\0zz78", 8));
}

TEST(BoundedTest, PrintsAreTerminatedAndTellTruncation) {
    char field[] = "12345678";
    char* null = nullptr;
    EXPECT_EQ(snprintf_s(field, 4, 3, "%d", 123), 3);
    EXPECT_STREQ(field, "123");
    EXPECT_LT(snprintf_s(field, 4, 3, "%d", 4567), 0);
    EXPECT_STREQ(field, "456");
    EXPECT_LT(snprintf_s(field, 6, 2, "%d", 789), 0);
    EXPECT_STREQ(field, "78");
    EXPECT_LT(snprintf_s(field, 4, 4, "%d", 1234), 0);
    EXPECT_STREQ(field, "123");
    EXPECT_LT(snprintf_s(field, 4, 5, "x"), 0);
    EXPECT_LT(snprintf_s(field, 0, 0, "x"), 0);
    EXPECT_LT(snprintf_s(null, 4, 3, "x"), 0);
    EXPECT_EQ(std::string(field + 3, 5), std::string("\0"
                                                     "5678",
                                                     5));
}

} // namespace
