// The course of a run: which flags, records and messages each ending leaves. A failure here means
// that an observer of the state directory would be told something else than what happened.
#include "test/phone.h"

#include <filesystem>
#include <sys/stat.h>

namespace {

class RunTest : public PhoneTest {};

const std::string RECORD = CLOCK_TEXT + "product name:SIM064, current fw version:FW000001, "
                                        "upgrading to version:FW000002\n";

// Messages of run control, without their common start.
const std::string FIRST = "BeginFlag: remove /data/vendor/fw/ffu.end: -1\n";
const std::string FOUND = "CheckFwBin: pnm:SIM064 current:FW000001, fwBinRev:FW000002\n";
const std::string ANY_BASE = "CheckBaseRev: Revision validity check is no necessary,exit!\n";
const std::string PASSED = FOUND + ANY_BASE + "UpdateResultFlag: update to FW000002 pass";
const std::string FAILED = FOUND + ANY_BASE + "UpdateResultFlag: upgrade to FW000002 fail";
const std::string NOT_FOUND = "CheckFwBin: pnm not found in fw file. no need to update. \n";
const std::string NOT_PARSED = "CheckFwBin: Parse rev in fw file failed!\n";
const std::string NO_NAME = "GetDeviceInfo: Get local product name failed!\n";
const std::string NO_REV = "GetDeviceInfo: Get local fw rev failed!\n";

// A phone in GKI mode that holds the last run's end flag and a package with an entry for it.
struct Ending {
    const char* name;
    const char* fault;
    std::string left; // in the state directory
    std::string steps;
    int exitStatus = 0;
    std::string package = EmmcEntry();
    std::string record = MISSING;
};

const Ending ENDINGS[] = {
    {"state directory cannot be made", "access /data/vendor/fw ENOENT", "ffu.end",
     "CreateResultDir: mkdir for result file failed! errno:17\n", 255},
    {"begin flag cannot be created", "open /data/vendor/fw/ffu.bgn EROFS", "",
     "BeginFlag: open /data/vendor/fw/ffu.bgn error -1!\n"},
    {"no block device", "access /dev/block/mmcblk0 ENOENT", "ffu.bgn", ""},
    {"product name missing", "open /proc/bootdevice/product_name ENOENT", "ffu.bgn",
     "GetPnm: Open PNM_NODE failed! No such file or directory\n" + NO_NAME},
    {"product name unreadable", "read /proc/bootdevice/product_name EIO", "ffu.bgn",
     "GetPnm: Read product name failed! Input/output error\n" + NO_NAME},
    {"product name empty", "read /proc/bootdevice/product_name short=0", "ffu.end", NOT_FOUND},
    {"revision missing", "open /proc/bootdevice/ext_csd ENOENT", "ffu.bgn",
     "GetCurrentRevEmmc: eMMC get extcsd failed! Status:-1\n" + NO_REV},
    {"package cannot be opened", "open /vendor/firmware/emmc_emer_fw.bin EACCES", "ffu.bgn",
     "ParseFwBin: Open FW file failed! Permission denied\n" + NOT_PARSED},
    {"package cannot be sized", "fstat EIO", "ffu.bgn",
     "ParseFwBin: fstat fw file failed. Input/output error\n" + NOT_PARSED},
    {"package cannot be mapped", "mmap ENOMEM", "ffu.bgn",
     "ParseFwBin: map fw file failed! Cannot allocate memory\n" + NOT_PARSED},
    {"no package", "", "ffu.end", "CheckFwBin: fw file not found, exit.\n", 0, MISSING},
    {"empty package", "", "ffu.end", "ParseFwBin: No fw include, no need to ffu! \n" + NOT_FOUND, 0,
     ""},
    {"no entry for the device", "", "ffu.end", NOT_FOUND, 0,
     With(EmmcEntry(), EMMC_PNM_FIELD, "SIM065")},
    {"revision runs already", "", "ffu.end",
     "CheckFwBin: local fw rev FW000001 is as new as fwBin\n", 0, EmmcEntry(EMMC_REV)},
    {"base revision not admitted", "", "ffu.end",
     FOUND + "CheckBaseRev: Revision validity check is necessary\n"
             "CheckFwBin: local fw rev is not valid for FFU. Skip updating.\n",
     0, With(EmmcEntry(), EMMC_BASE_FIELD, "FW000000FW000009")},
    {"revision attempted before", "", "ffu.end fw_result",
     FOUND + ANY_BASE +
         "CheckResultFlag: No result flag file found!\n"
         "CheckResultFile: lastBaseRev:FW000001, lastTargetRev:FW000002, fwBinRev:FW000002\n"
         "CheckResultFile: firmware in fw file has been applied, no need to update.",
     0, EmmcEntry(), RECORD},
    {"record cannot be read back", "fopen EACCES", "ffu.bgn fw_result",
     FOUND + ANY_BASE +
         "ParseResultFile: open result file failed! Permission denied\n"
         "CheckResultFile: ParseResultFile error\n",
     0, EmmcEntry(), RECORD},
    {"record cannot be opened for writing", "open /data/vendor/fw/fw_result EROFS", "ffu.bgn",
     FOUND + ANY_BASE + "WriteResultFile: open ffu result file failed! Read-only file system\n"},
    {"record cannot be written", "write /data/vendor/fw/fw_result ENOSPC", "ffu.bgn fw_result",
     FOUND + ANY_BASE},
    {"no byte of the record is written", "write /data/vendor/fw/fw_result short=0",
     "ffu.bgn fw_result", FOUND + ANY_BASE},
    {"record is written in part", "write /data/vendor/fw/fw_result short=1",
     "ffu.end ffu.ok fw_result", PASSED},
    {"updated", "", "ffu.end ffu.ok fw_result", PASSED},
    {"updated, but its flag cannot be created", "open /data/vendor/fw/ffu.ok EROFS",
     "ffu.end fw_result", PASSED + "UpdateResultFlag: UpdateResultFlag open file fail\n"},
    {"the update's own selection finds nothing", "", "ffu.end fw_result", FOUND + ANY_BASE, 0,
     With(EmmcEntry(), EMMC_MID_FIELD, "\x14")},
    {"update failed", "write /proc/bootdevice/ffu EIO", "ffu.bgn ffu.fail fw_result", FAILED},
    {"begin flag cannot be removed", "remove /data/vendor/fw/ffu.bgn EROFS",
     "ffu.bgn ffu.end ffu.ok fw_result", PASSED + "EndFlag: remove /data/vendor/fw/ffu.bgn: -1\n"},
    {"end flag cannot be created", "open /data/vendor/fw/ffu.end ENOSPC", "ffu.ok fw_result",
     PASSED + "EndFlag: open /data/vendor/fw/ffu.end error -1!\n", 255},
};

TEST_F(RunTest, EveryEndingLeavesItsFlagsAndMessages) {
    for (const Ending& ending : ENDINGS) {
        SCOPED_TRACE(ending.name);
        Make(GkiPhone(), {{EMMC_PACKAGE, ending.package},
                          {STATE + "/ffu.end", ""},
                          {STATE + "/fw_result", ending.record}});
        const RunResult result = Run({ending.fault});
        EXPECT_EQ(result.exitStatus, ending.exitStatus);
        EXPECT_EQ(Left(), ending.left);
        EXPECT_EQ(Steps(result), ending.steps);
    }
}

TEST_F(RunTest, FirstRunMakesTheStateDirectory) {
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
    const RunResult refused = Run({"mkdir EACCES"});
    EXPECT_EQ(refused.exitStatus, 255);
    EXPECT_EQ(Steps(refused), "CreateResultDir: mkdir for result file failed! errno:13\n");
    const mode_t mask = umask(0);
    EXPECT_EQ(Steps(Run({"write /proc/bootdevice/ffu EIO"})), FIRST + FAILED);
    umask(mask);
    const auto mode = [&](const std::string& file) {
        return static_cast<int>(std::filesystem::status(Path(file)).permissions());
    };
    EXPECT_EQ(mode(STATE), 0755);
    for (const char* file : {"/ffu.bgn", "/ffu.fail", "/fw_result"}) {
        EXPECT_EQ(mode(STATE + file), 0770) << file;
    }
}

TEST_F(RunTest, FlagsAreClearedButNeverTruncated) {
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()},
                      {STATE + "/ffu.bgn", "begun"},
                      {STATE + "/ffu.end", "ended"},
                      {STATE + "/ffu.ok", "old"},
                      {STATE + "/ffu.fail", "old"},
                      {STATE + "/ufs_fw_body.bin", "old"}});
    const RunResult result =
        Run({"remove /data/vendor/fw/ffu.ok EROFS", "remove /data/vendor/fw/ffu.bgn EROFS"});
    Texts order;
    for (const CallEntry& call : result.calls) {
        if ((call.function == "open" || call.function == "remove") && call.path.find(STATE) == 0) {
            order.push_back(call.function + call.path.substr(STATE.size()));
        }
    }
    EXPECT_EQ(order, (Texts{"remove/ffu.end", "open/ffu.bgn", "open/fw_result", "remove/ffu.ok",
                            "remove/ffu.fail", "remove/ufs_fw_body.bin", "remove/ufs_fw_body.bin",
                            "open/ffu.ok", "remove/ffu.bgn", "open/ffu.end"}));
    EXPECT_EQ(State(), (Files{{"ffu.bgn", "begun"},
                              {"ffu.end", ""},
                              {"ffu.ok", "old" + CLOCK_TEXT},
                              {"fw_result", RECORD}}));
}

TEST_F(RunTest, UpdatedPhoneRunsItsNewFirmwareAfterARestart) {
    for (const std::string& phone : {GkiPhone(), NormalPhone()}) {
        Make(phone, {{EMMC_PACKAGE, EmmcEntry()}});
        EXPECT_EQ(Run().exitStatus, 0);
        Reboot();
        const RunResult second = Run();
        EXPECT_EQ(second.exitStatus, 0);
        EXPECT_EQ(Steps(second), "CheckFwBin: local fw rev FW000002 is as new as fwBin\n");
        EXPECT_EQ(Left(), "ffu.end ffu.ok fw_result");
        EXPECT_EQ(Count(Requests(second), "opcode=302") + Count(Requests(second), "GKI"), 0);
    }
}

// An expected console: the stamp in front of every line that goes through the logger.
std::string Stamped(const std::string& lines) {
    std::string console;
    for (size_t begin = 0, end; (end = lines.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
        console += lines[begin] == '(' ? "" : "[2026-03-07 09:05:02 041] ";
        console += lines.substr(begin, end + 1 - begin);
    }
    return console;
}

const std::string CID = "13010053494d303634101234abcd0000\n";

std::string CidDump() {
    const std::string codes = "3133303130303533343934643330333633343130313233346162636430303030";
    std::string lines;
    for (size_t i = 0; i < 32; i++) {
        lines += "PrintCid,line=154: cidHex[" + std::to_string(i) + "] = 0x" +
                 codes.substr(2 * i, 2) + "\n";
    }
    return lines;
}

const char DEVICE_DUMP[] = R"((emmc device) emmcMagic= 45 4D 4D 43
(emmc device) emmcMid= 13
(emmc device) emmcPnm= 53 49 4D 30 36 34
(emmc device) emmcPrv= 10
(emmc device) emmcPsn= 12 34 AB CD
(emmc device) emmcRev= 08
(emmc device) emmcFwRev= 46 57 30 30 30 30 30 31
(emmc device) emmcFwSize= 00000000
EmmcFfu,line=267: get emmc device header success...
)";

// All but the size of an entry with the new revision.
const std::string NEW_FW_DUMP = R"((emmc fw) emmcMagic= 45 4D 4D 43
(emmc fw) emmcMid= 13
(emmc fw) emmcPnm= 53 49 4D 30 36 34
(emmc fw) emmcPrv= 00
(emmc fw) emmcPsn= 00 00 00 00
(emmc fw) emmcRev= 08
(emmc fw) emmcFwRev= 46 57 30 30 30 30 30 32
)";

TEST_F(RunTest, WholeConsoleInGkiMode) {
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry(EMMC_NEW_REV, Body(65536))},
                      {"/sys/class/mmc_host/mmc0/mmc0:0001/cid", CID}});
    const RunResult result = Run();
    EXPECT_EQ(result.console,
              Stamped(R"(EmmcGetExtCsd,line=255: EmmcGetExtCsd, emmc firmware GKI mode 
EmmcFfu,line=260: /vendor/firmware/emmc_emer_fw.bin read
)" + CidDump() + R"(EmmcGetExtCsd,line=255: EmmcGetExtCsd, emmc firmware GKI mode 
)" + DEVICE_DUMP + R"(EmmcFwhdrCheck,line=179: emmc fw find, fwNum=1, fwSize=65536
)" + NEW_FW_DUMP + R"((emmc fw) emmcFwSize= 00010000
EmmcFwhdrCheck,line=184: fwbin file have fwinfo match current device
EmmcFfu,line=273: emmc need update...
DoEmmcFfu,line=207: emmc 5.0 or higher do firmware update
DoEmmc50Ffu,line=408: emmc firmware GKI mode 
DoEmmc50Ffu,line=418: eMMC5.0 ffu sucessful
EmmcFfu,line=277: emmc firmware update sucess...
)"));
    EXPECT_EQ(Steps(result), FIRST + PASSED);
    EXPECT_EQ(State(), (Files{{"ffu.end", ""}, {"ffu.ok", CLOCK_TEXT}, {"fw_result", RECORD}}));
    EXPECT_EQ(Requests(result), Texts{"GKI write 65536 -> 65536"});
    EXPECT_EQ(Get("/device/downloaded.bin"), Body(65536));
}

TEST_F(RunTest, WholeConsoleInNormalMode) {
    std::string other = With(EmmcEntry("\xFF\x01", "EMMC"), EMMC_PNM_FIELD, "OTHER1");
    other = With(With(other, EMMC_PRV_FIELD, "\xA0"), EMMC_PSN_FIELD, "\x01\x02\x03\x04");
    Make(NormalPhone(),
         {{EMMC_PACKAGE, other + EmmcEntry()}, {"/sys/class/mmc_host/mmc0/mmc0:0001/cid", CID}});
    const RunResult result = Run();
    // The first entry's body is a magic of its own, 4 bytes before the second entry.
    EXPECT_EQ(result.console,
              Stamped(R"(EmmcGetExtCsd,line=241: EmmcGetExtCsd, emmc firmware normal mode 
EmmcFfu,line=260: /vendor/firmware/emmc_emer_fw.bin read
)" + CidDump() + R"(EmmcGetExtCsd,line=241: EmmcGetExtCsd, emmc firmware normal mode 
)" + DEVICE_DUMP + R"(EmmcFwhdrCheck,line=179: emmc fw find, fwNum=1, fwSize=4
(emmc fw) emmcMagic= 45 4D 4D 43
(emmc fw) emmcMid= 13
(emmc fw) emmcPnm= 4F 54 48 45 52 31
(emmc fw) emmcPrv= A0
(emmc fw) emmcPsn= 01 02 03 04
(emmc fw) emmcRev= 08
(emmc fw) emmcFwRev= FF 01 00 00 00 00 00 00
(emmc fw) emmcFwSize= 00000004
EmmcFwhdrCheck,line=179: emmc fw find, fwNum=2, fwSize=808464434
(emmc fw) emmcMagic= 45 4D 4D 43
(emmc fw) emmcMid= 45
(emmc fw) emmcPnm= 4D 4D 43 13 53 49
(emmc fw) emmcPrv= 4D
(emmc fw) emmcPsn= 30 36 34 00
(emmc fw) emmcRev= 00
(emmc fw) emmcFwRev= 00 00 00 08 46 57 30 30
(emmc fw) emmcFwSize= 30303032
EmmcFwhdrCheck,line=179: emmc fw find, fwNum=3, fwSize=4
)" + NEW_FW_DUMP + R"((emmc fw) emmcFwSize= 00000004
EmmcFwhdrCheck,line=184: fwbin file have fwinfo match current device
EmmcFfu,line=273: emmc need update...
DoEmmcFfu,line=207: emmc 5.0 or higher do firmware update
DoEmmc50Ffu,line=389: emmc firmware normal mode 
DoEmmc50Ffu,line=396: eMMC5.0 ffu download image sucessful
DoEmmc50Ffu,line=405: eMMC5.0 ffu install image sucessful
EmmcFfu,line=277: emmc firmware update sucess...
)"));
    EXPECT_EQ(Steps(result), FIRST + PASSED);
    const std::string read =
        "MMC_IOC_CMD opcode=8 write=0 arg=0 flags=0xb5 blksz=512 blocks=1 -> 0";
    EXPECT_EQ(Requests(result),
              (Texts{read, read,
                     "MMC_IOC_CMD opcode=302 write=1 arg=0 flags=0xb5 blksz=512 blocks=1 -> 0",
                     "MMC_IOC_CMD opcode=303 write=0 arg=0 flags=0xb5 blksz=512 blocks=0 no data "
                     "-> 0"}));
}

TEST_F(RunTest, ConsoleStampTruncatesToMilliseconds) {
    for (const auto& [clock, stamp] :
         Keys{{"2026-01-31T23:59:59.999999", "[2026-01-31 23:59:59 999] "},
              {"2026-12-01T00:00:00.001", "[2026-12-01 00:00:00 001] "},
              {"2000-02-29T10:20:30", "[2000-02-29 10:20:30 000] "}}) {
        Make(GkiPhone({{"clock", clock}}), {{EMMC_PACKAGE, EmmcEntry()}});
        EXPECT_EQ(Run().console.substr(0, stamp.size() + 13), stamp + "EmmcGetExtCsd");
    }
}

TEST_F(RunTest, MessageWithoutLocalTimeIsReplaced) {
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
    const RunResult result = Run({"localtime #2 null", "ctime null"});
    EXPECT_EQ(Console(result)[1], "ffu_print,line:42,NULL == ptm");
    EXPECT_EQ(Console(result)[2], "PrintCid,line=154: cidHex[0] = 0x31");
    EXPECT_EQ(
        State(),
        (Files{{"ffu.end", ""}, {"ffu.ok", ""}, {"fw_result", RECORD.substr(CLOCK_TEXT.size())}}));
}

} // namespace
