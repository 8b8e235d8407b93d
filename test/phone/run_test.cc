// The course of a run: which flags, records and messages each ending leaves. A failure here means
// that an observer of the state directory would be told something else than what happened.
#include "test/phone/phone.h"

#include <regex>

namespace {

class RunTest : public PhoneTest {};

// Messages of run control, without their common start.
const std::string FIRST = "BeginFlag: remove /data/vendor/fw/ffu.end: -1\n";
const std::string FOUND = "CheckFwBin: pnm:SIM064 current:FW000001, fwBinRev:FW000002\n"
                          "CheckBaseRev: Revision validity check is no necessary,exit!\n";
const std::string READ_BACK =
    FOUND + "CheckResultFlag: No result flag file found!\n"
            "CheckResultFile: lastBaseRev:FW000001, lastTargetRev:FW000009, fwBinRev:FW000002\n"
            "CheckResultFile: firmware in fw file has not been applied yet, try to update.";
const std::string PASSED = "UpdateResultFlag: update to FW000002 pass";
const std::string FAILED = "UpdateResultFlag: upgrade to FW000002 fail";
const std::string NOT_PARSED = "CheckFwBin: Parse rev in fw file failed!\n";
const std::string NO_NAME = "GetDeviceInfo: Get local product name failed!\n";
const std::string NO_REV = "GetDeviceInfo: Get local fw rev failed!\n";

const struct {
    const char* fault;
    std::string steps;
    std::string left = "ffu.bgn fw_result"; // in the state directory
    int exitStatus = 0;
    std::string phone = GkiPhone();
} ENDINGS[] = {
    {"open /data/vendor/fw/ffu.bgn EROFS", "BeginFlag: open /data/vendor/fw/ffu.bgn error -1!\n",
     "fw_result"},
    {"access /dev/block/mmcblk0 ENOENT", ""},
    {"open /proc/bootdevice/product_name ENOENT",
     "GetPnm: Open PNM_NODE failed! No such file or directory\n" + NO_NAME},
    {"read /proc/bootdevice/product_name EIO",
     "GetPnm: Read product name failed! Input/output error\n" + NO_NAME},
    {"read /proc/bootdevice/product_name short=0",
     "CheckFwBin: pnm not found in fw file. no need to update. \n", "ffu.end fw_result"},
    {"open /proc/bootdevice/ext_csd ENOENT",
     "GetCurrentRevEmmc: eMMC get extcsd failed! Status:-1\n" + NO_REV},
    {"SEND_EXT_CSD returns=5", "GetCurrentRevEmmc: eMMC get extcsd failed! Status:5\n" + NO_REV,
     "ffu.bgn fw_result", 0, NormalPhone()},
    {"open /proc/bootdevice/rev EACCES",
     "GetCurrentRevUfs: Open UFS product rev node fail! Permission denied\n" + NO_REV,
     "ffu.bgn fw_result", 0, UfsPhone()},
    {"read /proc/bootdevice/rev EIO",
     "GetCurrentRevUfs: Read UFS product rev fail! Input/output error\n" + NO_REV,
     "ffu.bgn fw_result", 0, UfsPhone()},
    {"open /vendor/firmware/emmc_emer_fw.bin EACCES",
     "ParseFwBin: Open FW file failed! Permission denied\n" + NOT_PARSED},
    {"fstat EIO", "ParseFwBin: fstat fw file failed. Input/output error\n" + NOT_PARSED},
    {"fopen EACCES", FOUND + "ParseResultFile: open result file failed! Permission denied\n"
                             "CheckResultFile: ParseResultFile error\n"},
    {"open /data/vendor/fw/fw_result EROFS",
     READ_BACK + "WriteResultFile: open ffu result file failed! Read-only file system\n"},
    {"write /data/vendor/fw/fw_result short=0", READ_BACK},
    {"write /data/vendor/fw/fw_result short=1", READ_BACK + PASSED, PASS},
    {"fsync /data/vendor/fw/fw_result EIO", READ_BACK + PASSED, PASS},
    {"write /proc/bootdevice/ffu EIO", READ_BACK + FAILED, FAIL},
    {"open /data/vendor/fw/ffu.ok EROFS",
     READ_BACK + PASSED + "UpdateResultFlag: UpdateResultFlag open file fail\n",
     "ffu.end fw_result"},
    {"remove /data/vendor/fw/ffu.bgn EROFS",
     READ_BACK + PASSED + "EndFlag: remove /data/vendor/fw/ffu.bgn: -1\n",
     "ffu.bgn ffu.end ffu.ok fw_result"},
    {"open /data/vendor/fw/ffu.end ENOSPC",
     READ_BACK + PASSED + "EndFlag: open /data/vendor/fw/ffu.end error -1!\n", "ffu.ok fw_result",
     255},
};

// On a phone that ended its last run and has attempted another revision.
TEST_F(RunTest, EveryEndingLeavesItsFlagsAndMessages) {
    for (const auto& ending : ENDINGS) {
        SCOPED_TRACE(ending.fault);
        Make(ending.phone, {{EMMC_PACKAGE, EmmcEntry()},
                            {STATE + "/ffu.end", ""},
                            {STATE + "/fw_result", AttemptRecord(EMMC_REV, "FW000009")}});
        // A node that fails to close changes nothing.
        const RunResult result = Run({ending.fault, "close /proc/bootdevice/product_name EINTR"});
        EXPECT_EQ(result.exitStatus, ending.exitStatus);
        EXPECT_EQ(Left(), ending.left);
        EXPECT_EQ(Steps(result), ending.steps);
    }
}

// Its message ends with the reason of an earlier failure, if any.
TEST_F(RunTest, ShortReadIsNoRevision) {
    Make(UfsPhone());
    const std::string steps = Steps(Run({"read /proc/bootdevice/rev short=3"}));
    EXPECT_EQ(Count(steps, "GetCurrentRevUfs: Read UFS product rev fail! "), 1) << steps;
    ExpectEnd(steps, NO_REV);
}

TEST_F(RunTest, FirstRunMakesTheStateDirectory) {
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
    const RunResult refused = Run({"mkdir EACCES"});
    EXPECT_EQ(refused.exitStatus, 255);
    EXPECT_EQ(Steps(refused), "CreateResultDir: mkdir for result file failed! errno:13\n");
    EXPECT_EQ(Steps(Run({"write /proc/bootdevice/ffu EIO"})), FIRST + FOUND + FAILED);
}

const std::string CID = "13010053494d303634fA1234aBCd0000";

std::string HeaderDump(const std::string& label, const Texts& fields) {
    const char* const names[] = {"Magic", "Mid", "Pnm", "Prv", "Psn", "Rev", "FwRev", "FwSize"};
    std::string dump;
    for (size_t i = 0; i < fields.size(); i++) {
        dump += "(" + label + ") emmc" + names[i] + "= " + fields[i] + "\n";
    }
    return dump;
}

// The console from the registers to the download, "| " for the logger's stamp. The device's entry
// is in the body of another product's, behind 64 KiB.
const std::string SELECTION =
    HeaderDump("emmc device", {"45 4D 4D 43", "13", "53 49 4D 30 36 34", "FA", "12 34 AB CD", "08",
                               "46 57 30 30 30 30 30 31", "00000000"}) +
    "| EmmcFfu,line=267: get emmc device header success...\n"
    "| EmmcFwhdrCheck,line=179: emmc fw find, fwNum=1, fwSize=130608\n" +
    HeaderDump("emmc fw", {"45 4D 4D 43", "13", "4F 54 48 45 52 31", "A0", "01 02 03 04", "08",
                           "FF 01 00 00 00 00 00 00", "0001FE30"}) +
    "| EmmcFwhdrCheck,line=179: emmc fw find, fwNum=2, fwSize=65024\n" +
    HeaderDump("emmc fw", {"45 4D 4D 43", "13", "53 49 4D 30 36 34", "00", "00 00 00 00", "08",
                           "46 57 30 30 30 30 30 32", "0000FE00"}) +
    "| EmmcFwhdrCheck,line=184: fwbin file have fwinfo match current device\n"
    "| EmmcFfu,line=273: emmc need update...\n"
    "| DoEmmcFfu,line=207: emmc 5.0 or higher do firmware update\n";

const std::string GKI_EXT_CSD =
    "| EmmcGetExtCsd,line=255: EmmcGetExtCsd, emmc firmware GKI mode \n";
const std::string EXT_CSD = "| EmmcGetExtCsd,line=241: EmmcGetExtCsd, emmc firmware normal mode \n";
const std::string READ_REGISTER =
    "MMC_IOC_CMD opcode=8 write=0 arg=0 flags=0xb5 blksz=512 blocks=1 -> 0\n";
const std::string NORMAL_REQUESTS =
    READ_REGISTER + READ_REGISTER +
    "MMC_IOC_CMD opcode=302 write=1 arg=0 flags=0xb5 blksz=512 blocks=127 -> 0\n"
    "MMC_IOC_CMD opcode=303 write=0 arg=0 flags=0xb5 blksz=512 blocks=0 no data -> 0\n";

const struct {
    std::string phone, fault, extCsd, update, requests;
} MODES[] = {
    {GkiPhone(), "", GKI_EXT_CSD,
     "| DoEmmc50Ffu,line=408: emmc firmware GKI mode \n"
     "| DoEmmc50Ffu,line=418: eMMC5.0 ffu sucessful\n",
     "GKI write 65024 -> 65024\n"},
    {NormalPhone(), "access /proc/bootdevice/ffu EACCES", // the node is there, but not writable
     EXT_CSD,
     "| DoEmmc50Ffu,line=389: emmc firmware normal mode \n"
     "| DoEmmc50Ffu,line=396: eMMC5.0 ffu download image sucessful\n"
     "| DoEmmc50Ffu,line=405: eMMC5.0 ffu install image sucessful\n",
     NORMAL_REQUESTS},
};

TEST_F(RunTest, WholeUpdateInEitherMode) {
    std::string other = EmmcEntry("\xFF\x01", Body(65536) + EmmcEntry(EMMC_NEW_REV, Body(65024)));
    other = With(With(other, EMMC_PNM_FIELD, "OTHER1"), EMMC_PRV_FIELD, "\xA0");
    const Files files = {{EMMC_PACKAGE, With(other, EMMC_PSN_FIELD, "\x01\x02\x03\x04")},
                         {"/sys/class/mmc_host/mmc0/mmc0:0001/cid", CID},
                         {"/proc/bootdevice/ffu", ""},
                         {STATE + "/ffu.fail", "old"},
                         {STATE + "/ufs_fw_body.bin", "old"}};
    std::string cidDump;
    for (size_t i = 0; i < CID.size(); i++) {
        cidDump +=
            "| PrintCid,line=154: cidHex[" + std::to_string(i) + "] = 0x" + Hex(&CID[i], 1) + "\n";
    }
    for (const auto& mode : MODES) {
        Make(mode.phone, files);
        const RunResult run = Run({mode.fault});
        const std::regex stamp("\\[2026-03-07 09:05:02 041\\] ");
        EXPECT_EQ(std::regex_replace(run.console, stamp, "| "),
                  mode.extCsd + "| EmmcFfu,line=260: /vendor/firmware/emmc_emer_fw.bin read\n" +
                      cidDump + mode.extCsd + SELECTION + mode.update +
                      "| EmmcFfu,line=277: emmc firmware update sucess...\n");
        EXPECT_EQ(Requests(run), mode.requests);
        EXPECT_TRUE(Get("/device/downloaded.bin") == Body(65024));
        EXPECT_EQ(Steps(run), FIRST + FOUND + PASSED);
        const Files left = {{"ffu.end", ""},
                            {"ffu.ok", CLOCK_TEXT},
                            {"fw_result", AttemptRecord(EMMC_REV, "FW000002")}};
        EXPECT_EQ(State(), left);
        RebootPhone(OpenPhone(directory));
        EXPECT_EQ(Steps(Run({mode.fault})),
                  "CheckFwBin: local fw rev FW000002 is as new as fwBin\n");
        EXPECT_EQ(State(), left);
    }
}

TEST_F(RunTest, StampTruncatesToMillisecondsAndMayBeMissing) {
    Make(GkiPhone({{"clock", "2026-01-31T23:59:59.999999"}}), {{EMMC_PACKAGE, EmmcEntry()}});
    const RunResult result = Run({"localtime #2 EOVERFLOW", "ctime EOVERFLOW"});
    EXPECT_EQ(result.console.substr(0, 39), "[2026-01-31 23:59:59 999] EmmcGetExtCsd");
    EXPECT_EQ(Count(Console(result), "mode \nffu_print,line:42,NULL == ptm\n"
                                     "PrintCid,line=154: cidHex[0] = 0x31\n"),
              1);
    const std::string untimed = AttemptRecord(EMMC_REV, "FW000002").substr(CLOCK_TEXT.size());
    EXPECT_EQ(State(), (Files{{"ffu.end", ""}, {"ffu.ok", ""}, {"fw_result", untimed}}));
}

} // namespace
