// What no run of the tool reaches: refused arguments, refused copies, and the bounded functions.
#include "emmc/emmc_command.h"
#include "emmc/emmc_register.h"
#include "emmc/emmc_update.h"
#include "platform/bounded.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "run/time_stamp.h"
#include "run/update_dispatch.h"
#include "run/update_run.h"
#include "test/phone/in_process.h"
#include "ufs/ufs_selection.h"
#include "ufs/ufs_update.h"

#include <algorithm>
#include <iterator>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

class DirectTest : public PhoneTest {};

TEST_F(DirectTest, ArgumentsThatNoRunHas) {
    static uint8_t body[512], extCsd[EXT_CSD_SIZE];
    static const uint8_t* fwBody;
    static uint32_t fwBodySize;
    const char *emmc = EMMC_FW_PACKAGE, *ufs = UFS_FW_PACKAGE, *none = "/vendor/firmware/none";
    const std::string emmcNull =
        "EmmcFfu,line=228: Error: emmcFwFile or emmcFwBackupFile is NULL\n";
    const std::string ufsNull = "UfsFfu,line=455: Error: ufsFwFile or ufsBackupFile is NULL\n";
    const std::string noLength =
        "EmmcGetExtCsd,line=237: EmmcGetExtCsd extCsd length or extCsd error\n";
    const std::string noParam = "WriteResultFile: param is null. exit.\n";
    const struct {
        std::function<int()> call;
        int status;
        std::string console, steps = "";
    } rows[] = {
        {[] { return EmmcGetCidFromSysfs(nullptr); }, -1,
         "EmmcGetCidFromSysfs,line=165: EmmcGetCidFromSysfs args have NULL\n"},
        {[] { return EmmcGetExtCsd(nullptr, EXT_CSD_SIZE); }, -1, noLength},
        {[] { return EmmcGetExtCsd(extCsd, -1); }, -1, noLength},
        {[] { return EmmcGetExtCsd(extCsd, 0); }, 0,
         "EmmcGetExtCsd,line=241: EmmcGetExtCsd, emmc firmware normal mode \n"},
        {[] { return DoEmmc50Ffu(nullptr, 512, 0); }, -1,
         "DoEmmc50Ffu,line=373: DoEmmc50Ffu args have NULL\n"},
        {[] { return DoEmmcFfu(255, body, 512, 2); }, 0,
         "DoEmmcFfu,line=207: emmc 5.0 or higher do firmware update\n"
         "DoEmmc50Ffu,line=389: emmc firmware normal mode \n"
         "DoEmmc50Ffu,line=396: eMMC5.0 ffu download image sucessful\n"},
        {[=] { return EmmcFfu(nullptr, emmc, 0, 1); }, -2, emmcNull},
        {[=] { return EmmcFfu(emmc, nullptr, 0, 0); }, -2, emmcNull},
        {[=] { return EmmcFfu(emmc, none, 0, -1); }, -2,
         "EmmcFfu,line=239: emmc firmware not exist, no need to update...\n"},
        {[] { return EmmcFwhdrCheck({}, body, -1, fwBody, fwBodySize); }, -2,
         "EmmcFwhdrCheck,line=198: fwbin file not match, no need to update\n"},
        {[=] { return UfsFfu(nullptr, ufs, 1, 1); }, -2, ufsNull},
        {[=] { return UfsFfu(ufs, nullptr, 1, 0); }, -2, ufsNull},
        {[=] { return UfsFfu(none, ufs, 1, 0); }, -2,
         "GetFwSize,line=100: get real path fail\nUfsFfu,line=461: Get fw size error!\n"},
        {[=] { return UfsFfu(none, ufs, 1, -1); }, -2, // a phone without the node
         "GetFwSize,line=118: ufsFwSize=0x44\n"
         "ReadUfsInfo,line=166: UFS_MID fd fail!\n"
         "GetUfsLocalDevInfo,line=187: read manufacture ID error!\n"
         "UfsFfu,line=475: get ufs local device info fail!\n"},
        {[] { return GetUfsFwFromFwBin({}, body, -1, 1); }, -1,
         "GetUfsFwFromFwBin,line=331: firmware not match\n"},
        {[] { return WriteResultFile(nullptr, "", ""); }, -1, "", noParam},
        {[] { return WriteResultFile("", nullptr, ""); }, -1, "", noParam},
        {[] { return WriteResultFile("", "", nullptr); }, -1, "", noParam},
        {[] { return GetTmeStamp(nullptr), 0; }, 0, "", "GetTmeStamp: invalid time param.exit.\n"},
    };
    Make(NormalPhone(), {{EMMC_PACKAGE, EmmcEntry()}, {UFS_PACKAGE, UfsEntry()}});
    std::string requests;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.console + row.steps);
        const auto call = [&] { EXPECT_EQ(row.call(), row.status); };
        const RunResult run = RunInProcess(directory, call);
        EXPECT_EQ(Console(run), row.console);
        EXPECT_EQ(Steps(run), row.steps);
        requests += Requests(run);
    }
    EXPECT_EQ(std::string(extCsd + EXT_CSD_FIRMWARE_VERSION, extCsd + 262), EMMC_REV);
    EXPECT_EQ(Count(requests, "\n"), 2); // the register's, and no install behind the download
    EXPECT_EQ(Count(requests, "opcode=302 "), 1);

    Make(GkiPhone()); // where no install can be left out
    const auto call = [] { EXPECT_EQ(DoEmmcFfu(255, body, 512, 1), 0); };
    EXPECT_EQ(Requests(RunInProcess(directory, call)), "GKI write 512 -> 512\n");
}

TEST_F(DirectTest, ResultOfARequestIsTheStatus) {
    const std::map<std::string, int> rows = {
        {"'FFU_DOWNLOAD returns=7', 'FFU_INSTALL returns=8'", 7},
        {"'FFU_INSTALL returns=8'", 8},
    };
    for (const auto& [faults, expected] : rows) {
        Make(NormalPhone({{"faults", "[" + faults + "]"}}), {{EMMC_PACKAGE, EmmcEntry()}});
        (void)RunInProcess(directory, [status = expected] {
            EXPECT_EQ(EmmcFfu(EMMC_FW_PACKAGE, EMMC_FW_PACKAGE, 0, 0), status);
        });
    }
}

// Every file that is opened gets number 0 then.
TEST_F(DirectTest, RunNeedsNoStandardInput) {
    const int input = dup(STDIN_FILENO);
    for (const std::string& phone : {GkiPhone(), NormalPhone(), UfsPhone()}) {
        Make(phone, {{EMMC_PACKAGE, EmmcEntry()}, {UFS_PACKAGE, UfsEntry()}});
        const RunResult run = RunInProcess(directory, [] {
            syscall(SYS_close, STDIN_FILENO);
            EXPECT_EQ(UpdateRun(), 0);
        });
        dup2(input, STDIN_FILENO);
        EXPECT_EQ(Left(), PASS) << Console(run);
    }
    close(input);
}

// The stack holds the last record then.
TEST_F(DirectTest, EmptyRecordIsNotTheOneReadBefore) {
    Make(GkiPhone(), {{STATE + "/fw_result", AttemptRecord(EMMC_REV, EMMC_NEW_REV)}});
    const std::string record = Path(STATE + "/fw_result");
    (void)RunInProcess(directory, [&] {
        EXPECT_EQ(CheckResultFile("FW000002"), 1);
        EXPECT_EQ(truncate(record.c_str(), 0), 0);
        EXPECT_EQ(CheckResultFile("FW000002"), -1);
    });
}

TEST_F(DirectTest, OtherFolderTypeAndResult) {
    Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry()}, {STATE + "/ffu.end", ""}});
    const std::string tmp = "/tmp/ufs_fw_body.bin", data = "/data/vendor/fw/ufs_fw_body.bin";
    const auto inTmp = [] { EXPECT_EQ(UfsFfu(UFS_FW_PACKAGE, UFS_FW_PACKAGE, 0, 0), 0); };
    EXPECT_EQ(Count(Requests(RunInProcess(directory, inTmp)), " data=4 "), 1);
    EXPECT_EQ(Get(tmp) + Get(data), "body" + MISSING);
    Put(tmp, MISSING);
    const RunResult run = RunInProcess(directory, [&] {
        EXPECT_EQ(UfsFfu(UFS_FW_PACKAGE, UFS_FW_PACKAGE, -1, 0), 0);
        EXPECT_EQ(DoFfu('x'), 0);
        UpdateResultFlag(7, "0900");
    });
    EXPECT_EQ(Get(tmp), MISSING);
    EXPECT_EQ(Count(Requests(run), " data=4 "), 2);
    EXPECT_EQ(Left(), "ffu.end ffu.fail");
    EXPECT_EQ(Steps(run), "UpdateResultFlag: upgrade to 0900 fail");
}

TEST_F(DirectTest, RefusedCopiesFailTheirStep) {
    // A device that was reworked keeps its name, and is another entry's then.
    const std::string model = "KLUEG8U1EM-B0B1";
    const Files packages = {
        {EMMC_PACKAGE, EmmcEntry()},
        {UFS_PACKAGE, UfsEntry() + With(UfsEntry("1000"), UFS_PNM_FIELD, model)}};
    const std::string gki = GkiPhone(), normal = NormalPhone(), ufs = UfsPhone();
    const std::string named =
        UfsPhone({{"product_name", "'" + model + "'"}, {"revision", "'0900'"}});
    const std::string begun = "ffu.bgn";
    const std::string noExtCsd = "GetEmmcHeader,line=138: get emmc extcsd register value failed\n";
    const std::string noHex = "EmmcGetExtCsd,line=272: memcpy_s error EmmcGetExtCsd\n";
    const std::string noHeader =
        "GetEmmcHeader,line=150: GetEmmcHeader copy to EmmcFwHeader fail\n";
    const std::string noTime =
        "GetTmeStamp: memcpy_s error.\nUpdateResultFlag: update to FW000002 pass";
    const std::string noRev = "GetDeviceInfo: Get local fw rev failed!\n";
    const std::string noParse = "CheckFwBin: Parse rev in fw file failed!\n";
    const std::string noNode = "sg_write_buffer: open error: /dev/block/sdc: "
                               "No such file or directory\n";
    const std::string code15 = "DoUfsFfu,line=431: ufs firmware update ret code = 15\n";
    struct Row {
        std::string refused, phone, console, left;
        std::string steps = "", errors = ""; // at the end of the system log, of the standard error
    };
    const Row rows[] = {
        {"memcpy_s 512", gki, noHex, begun,
         "GetCurrentRevEmmc: eMMC get extcsd failed! Status:22\n" + noRev},
        {"memcpy_s 517", gki, noHex + noExtCsd, FAIL},
        {"memcpy_s 1", normal, "", begun,
         "GetCurrentRevEmmc: Get eMMC FW rev failed! Status:22\n" + noRev},
        {"memcpy_s 2", normal, "", begun, "GetEmmcRev: memcpy_s fwFileRev error!\n" + noParse},
        {"memcpy_s 3", normal, "", begun, "GetEmmcRev: memcpy_s legalBaseRev error!\n" + noParse},
        {"memcpy_s 12", normal, "", PASS, noTime},
        {"memset_s 1", normal, "EmmcCmd,line=102: EmmcCmd memset_s fail\n", begun,
         "GetCurrentRevEmmc: eMMC get extcsd failed! Status:-1\n" + noRev},
        {"memset_s 2", normal, "EmmcFfu,line=233: fwHeader memset_s 0 fail...\n", FAIL},
        {"memset_s 4", normal, "Ffu50DownloadImage,line=320: TOLMA: SFAE FUNCTION ERROR\n", FAIL},
        {"memset_s 5", normal, "Ffu50Install,line=342: TOLMA: SFAE FUNCTION ERROR\n", FAIL},
        {"snprintf_s 2", normal, "", "ffu.bgn fw_result", "WriteResultFile: snprintf_s error!\n"},
        {"memcpy_s 1", ufs, "", begun, "GetUfsRev: memcpy_s fwFileRev error!\n" + noParse},
        {"memset_s 1", ufs, "UfsFfu,line=450: UfsFfu memset_s fail\n", FAIL},
        {"memcpy_s 4", ufs, "GetUfsLocalDevInfo,line=204: GetUfsLocalDevInfo memcpy_s UFSM fail\n",
         "ffu.end fw_result"},
        {"memcpy_s 5", named, "UpdateProductName,line=152: update product name failed!\n", PASS,
         "UpdateResultFlag: update to 1000 pass"},
        {"memset_s 2,strncpy_s 1", ufs, noNode, FAIL},
        {"memset_s 3,strncpy_s 2", ufs, code15, FAIL, "",
         "sg_write_buffer: could not open  for reading: No such file or directory\n"},
    };
    const auto check = [&](const Row& row) {
        SCOPED_TRACE(row.refused + ": " + row.console + row.steps);
        Make(row.phone, packages);
        const auto update = [] { EXPECT_EQ(UpdateRun(), 0); };
        const RunResult run = RunInProcess(directory, update, row.refused);
        EXPECT_TRUE(row.console.empty() || Count(Console(run), row.console) == 1) << Console(run);
        ExpectEnd(Steps(run), row.steps);
        ExpectEnd(run.errors, row.errors);
        EXPECT_EQ(Left(), row.left);
        EXPECT_EQ(Get("/device/pending") == MISSING, row.left != PASS);
        const bool installs = row.left == PASS && row.phone == normal;
        EXPECT_EQ(Count(Requests(run), "opcode=303 "), installs ? 1 : 0);
    };
    std::for_each(std::begin(rows), std::end(rows), check);
    for (int field = 5; field <= 11; field++) { // of the device record
        check({"memcpy_s " + std::to_string(field), normal, noHeader, FAIL});
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
