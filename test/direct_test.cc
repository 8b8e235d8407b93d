// What no run of the tool reaches: refused arguments, failing bounded functions, and these
// functions themselves.
#include "platform/bounded.h"
#include "test/phone.h"

#include <cstdlib>

namespace {

class DirectTest : public PhoneTest {};

TEST_F(DirectTest, RefusedArgumentsAndFlags) {
    Make(NormalPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
    const RunResult run = Run({}, DIRECT_CALLS_PATH);
    EXPECT_EQ(ConsoleText(run), R"(EmmcGetCidFromSysfs,line=165: EmmcGetCidFromSysfs args have NULL
EmmcGetExtCsd,line=237: EmmcGetExtCsd extCsd length or extCsd error
EmmcGetExtCsd,line=237: EmmcGetExtCsd extCsd length or extCsd error
EmmcGetExtCsd,line=241: EmmcGetExtCsd, emmc firmware normal mode 
DoEmmc50Ffu,line=373: DoEmmc50Ffu args have NULL
DoEmmcFfu,line=207: emmc 5.0 or higher do firmware update
DoEmmc50Ffu,line=389: emmc firmware normal mode 
DoEmmc50Ffu,line=396: eMMC5.0 ffu download image sucessful
EmmcFfu,line=228: Error: emmcFwFile or emmcFwBackupFile is NULL
EmmcFfu,line=228: Error: emmcFwFile or emmcFwBackupFile is NULL
EmmcFfu,line=239: emmc firmware not exist, no need to update...
EmmcFwhdrCheck,line=198: fwbin file not match, no need to update
-1 -1 -1 0 -1 0 -2 -2 -2 -2 -1 -1 -1 FW000001
)");
    const std::string noParam = "WriteResultFile: param is null. exit.\n";
    EXPECT_EQ(Steps(run), "GetTmeStamp: invalid time param.exit.\n" + noParam + noParam + noParam);
    EXPECT_EQ(Count(Requests(run), "opcode=302 "), 1);
    EXPECT_EQ(Count(Requests(run), "opcode=303 "), 0);

    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}}); // where no install can be left out
    EXPECT_EQ(Count(Requests(Run({}, DIRECT_CALLS_PATH)), "GKI write 512 -> 512"), 1);
}

TEST_F(DirectTest, OtherFolderTypeAndResult) {
    Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry()}});
    const RunResult run = Run({}, DIRECT_CALLS_PATH);
    ExpectEnd(ConsoleText(run), "0 0\n");
    EXPECT_EQ(Count(Requests(run), " data=4 "), 2);
    Texts files; // the bodies: saved, read
    for (const CallEntry& call : run.calls) {
        const bool isOpened = call.function == "creat" || call.function == "open";
        if (isOpened && call.path.find("ufs_fw_body.bin") != std::string::npos) {
            files.push_back(call.path.substr(0, 5));
        }
    }
    EXPECT_EQ(files, (Texts{"/tmp/", "/tmp/", "/data", "/data"}));
    EXPECT_EQ(Left(), "ffu.fail");
    EXPECT_EQ(Steps(run), "UpdateResultFlag: upgrade to 0900 fail");
}

TEST_F(DirectTest, RefusedCopiesFailTheirStep) {
    // A device that was reworked keeps its name, and is another entry's then.
    const std::string model = "KLUEG8U1EM-B0B1";
    const Overrides named = {{"product_name", "'" + model + "'"}, {"revision", "'0900'"}};
    const Files packages = {
        {EMMC_PACKAGE, EmmcEntry()},
        {UFS_PACKAGE, UfsEntry() + With(UfsEntry("1000"), UFS_PNM_FIELD, model)}};
    const std::string gki = GkiPhone(), normal = NormalPhone(), ufs = UfsPhone();
    const std::string begun = "ffu.bgn", failed = "ffu.bgn ffu.fail fw_result";
    const std::string passed = "ffu.end ffu.ok fw_result", started = "ffu.bgn fw_result";
    const std::string emmc = "eMMC get extcsd failed! Status:", ffu = "TOLMA: SFAE FUNCTION ERROR";
    const std::string noHex = "EmmcGetExtCsd,line=272: memcpy_s error EmmcGetExtCsd\n";
    const std::string noExtCsd = "GetEmmcHeader,line=138: get emmc extcsd register value failed\n";
    const std::string noHeader = "GetEmmcHeader,line=150: GetEmmcHeader copy to EmmcFwHeader fail";
    const std::string noDevice =
        "GetUfsLocalDevInfo,line=204: GetUfsLocalDevInfo memcpy_s UFSM fail";
    const std::string noName = "UpdateProductName,line=152: update product name failed!";
    const std::string noTime = "GetTmeStamp: memcpy_s error.\nUpdateResultFlag: update to ";
    const std::string noRev = "\nGetDeviceInfo: Get local fw rev failed!\n";
    const std::string noParse = " error!\nCheckFwBin: Parse rev in fw file failed!\n";
    const std::string fail = "UpdateResultFlag: upgrade to FW000002 fail";
    const struct {
        const char* function;
        int first, last;                         // of a run's calls; one of them is refused
        std::string phone, console, left, steps; // the steps at the end
    } rows[] = {
        {"memcpy_s", 512, 512, gki, noHex, begun, emmc + "22" + noRev},
        {"memcpy_s", 517, 517, gki, noHex + noExtCsd, failed, fail},
        {"memcpy_s", 1, 1, normal, "", begun, "Get eMMC FW rev failed! Status:22" + noRev},
        {"memcpy_s", 2, 2, normal, "", begun, "GetEmmcRev: memcpy_s fwFileRev" + noParse},
        {"memcpy_s", 3, 3, normal, "", begun, "GetEmmcRev: memcpy_s legalBaseRev" + noParse},
        {"memcpy_s", 5, 11, normal, noHeader, failed, fail}, // seven fields
        {"memcpy_s", 12, 12, normal, "", passed, noTime + "FW000002 pass"},
        {"memset_s", 1, 1, normal, "EmmcCmd,line=102: EmmcCmd memset_s fail", begun,
         emmc + "-1" + noRev},
        {"memset_s", 2, 2, normal, "EmmcFfu,line=233: fwHeader memset_s 0 fail...", failed, fail},
        {"memset_s", 4, 4, normal, "Ffu50DownloadImage,line=320: " + ffu, failed, fail},
        {"memset_s", 5, 5, normal, "Ffu50Install,line=342: " + ffu, failed, fail},
        {"snprintf_s", 2, 2, normal, "", started, "WriteResultFile: snprintf_s error!\n"},
        {"memcpy_s", 1, 1, ufs, "", begun, "GetUfsRev: memcpy_s fwFileRev" + noParse},
        {"memset_s", 1, 1, ufs, "UfsFfu,line=450: UfsFfu memset_s fail", failed,
         "upgrade to 0900 fail"},
        {"memcpy_s", 4, 4, ufs, noDevice, "ffu.end fw_result", ""},
        {"memcpy_s", 5, 5, UfsPhone(named), noName, passed, "update to 1000 pass"},
        {"strncpy_s", 1, 1, ufs, "open error: /dev/block/sdc: No such file or directory\n", failed,
         "upgrade to 0900 fail"},
        {"strncpy_s", 2, 2, ufs, "ufs firmware update ret code = 15\n", failed,
         "upgrade to 0900 fail"},
    };
    for (const auto& row : rows) {
        for (int call = row.first; call <= row.last; call++) {
            const std::string refused = row.function + (" " + std::to_string(call));
            SCOPED_TRACE(refused);
            Make(row.phone, packages);
            setenv("REFUSED", refused.c_str(), 1);
            const RunResult run = Run({}, REFUSING_FFU_PATH);
            unsetenv("REFUSED");
            EXPECT_EQ(run.exitStatus, 0);
            EXPECT_EQ(Count({ConsoleText(run)}, row.console), 1);
            ExpectEnd(Steps(run), row.steps);
            EXPECT_EQ(Left(), row.left);
            EXPECT_EQ(Get("/device/pending") == MISSING, row.left != passed);
            EXPECT_EQ(Count(Requests(run), "opcode=303 "),
                      row.left == passed && row.phone == normal ? 1 : 0);
        }
    }
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
    EXPECT_EQ(memcpy_s(field + 4, 4, field, 4), 0);
    EXPECT_EQ(strncpy_s(field, 4, "vwxyz", 3), 0);
    EXPECT_EQ(std::string(field, 8), std::string("vwx\0zz78", 8));
}

TEST(BoundedTest, PrintsAreTerminatedAndTellTruncation) {
    char field[] = "12345678";
    char* null = nullptr;
    EXPECT_EQ(snprintf_s(field, 4, 3, "%d", 123), 3);
    EXPECT_STREQ(field, "123");
    EXPECT_LT(snprintf_s(field, 6, 2, "%d", 789), 0);
    EXPECT_STREQ(field, "78");
    EXPECT_LT(snprintf_s(field, 4, 4, "%d", 1234), 0);
    EXPECT_STREQ(field, "123");
    EXPECT_LT(snprintf_s(field, 4, 5, "x"), 0);
    EXPECT_LT(snprintf_s(field, 0, 0, "x"), 0);
    EXPECT_LT(snprintf_s(null, 4, 3, "x"), 0);
    EXPECT_STREQ(field + 4, "5678");
}

} // namespace
