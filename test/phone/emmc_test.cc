// The eMMC update: registers, selection, download. A failure here means a phone that gets a
// firmware not meant for it, gets it in part, or is told a false outcome.
#include "test/phone/phone.h"

#include <filesystem>

namespace {

const std::string STOP = "ffu.bgn"; // before an update was attempted

class EmmcTest : public PhoneTest {};

const std::string UPDATED = "EmmcFfu,line=277: emmc firmware update sucess...\n";
const std::string UPDATE_FAIL = "EmmcFfu,line=279: emmc firmware update fail...\n";
const std::string NO_SIZE =
    "EmmcFwGetSize,line=90: EmmcFwGetSize lseek /vendor/firmware/emmc_emer_fw.bin size fail ";
const std::string READ_FAIL = "EmmcFfu,line=255: read emmc firmware fail...\n";
const std::string NO_HEADER = "EmmcFfu,line=263: get emmc device header fail...\n";
const std::string NO_CID =
    "GetEmmcHeader,line=132: get emmc cid register value failed by sysfs\n" + NO_HEADER;
const std::string NO_EXT_CSD =
    "GetEmmcHeader,line=138: get emmc extcsd register value failed\n" + NO_HEADER;
const std::string GKI_MODE = "DoEmmc50Ffu,line=408: emmc firmware GKI mode \n";
const std::string NORMAL_MODE = "DoEmmc50Ffu,line=389: emmc firmware normal mode \n";
const std::string DONE = "DoEmmc50Ffu,line=418: eMMC5.0 ffu sucessful\n" + UPDATED;
const std::string DOWNLOAD_FAIL =
    "DoEmmc50Ffu,line=392: eMMC5.0 ffu download image fail\n" + UPDATE_FAIL;

const std::string RETRY =
    "DoEmmc50Ffu,line=415: emmc firmware GKI error Input/output error, retry ";
const std::string THREE_RETRIES = GKI_MODE + RETRY + "3\n" + RETRY + "2\n" + RETRY + "1\n";

const std::string NO_MATCH = "EmmcFwhdrCheck,line=198: fwbin file not match, no need to update\n";
const std::string MATCH = "EmmcFwhdrCheck,line=184: fwbin file have fwinfo match current device\n";
const std::string EQUAL = "EmmcFwhdrCheck,line=194: fwRevGet equal fwRevBase, no need to update\n";
const std::string NEEDED = "EmmcFfu,line=273: emmc need update...\n";
const std::string ADMITTED =
    MATCH + NEEDED + "DoEmmcFfu,line=207: emmc 5.0 or higher do firmware update\n";

const std::string GKI = GkiPhone(), NORMAL = NormalPhone(), ENTRY = EmmcEntry();
const std::string OTHER_MID = With(ENTRY, EMMC_MID_FIELD, "\x14");

const std::string ZERO_NAME = GkiPhone({{"cid.product_name", "\"SIM\\u0000\\u0000A\""}});

std::string BehindBody(uint32_t size) {
    return With(EmmcEntry("FW000009"), EMMC_SIZE_FIELD, BigEndian32(size)) + ENTRY;
}

// The console ends with `console`.
const struct {
    std::string fault, console, left = FAIL, phone = GKI, package = ENTRY;
} CASES[] = {
    // The package, as the update reads it after the pre-check.
    {"access /vendor/firmware/emmc_emer_fw.bin #2 ENOENT",
     "EmmcFfu,line=239: emmc firmware not exist, no need to update...\n", NOTHING},
    {"open /vendor/firmware/emmc_emer_fw.bin #2 EACCES",
     "EmmcFwGetSize,line=84: could not open emmc firmware file "
     "/vendor/firmware/emmc_emer_fw.bin (fd=-1)\n"},
    {"lseek #1 returns=0", NO_SIZE + "0...\n"},
    {"lseek #1 returns=2147483647", "EmmcFfu,line=250: calloc fwFileBuffer fail...\n", FAIL,
     GkiPhone({{"faults", "['calloc ENOMEM']"}})},
    {"lseek #1 returns=2147483648", NO_SIZE + "-2147483648...\n"},
    {"lseek #1 returns=4294967297", NO_SIZE + "1...\n"},
    {"calloc ENOMEM", "EmmcFfu,line=250: calloc fwFileBuffer fail...\n"},
    {"open /vendor/firmware/emmc_emer_fw.bin #3 EACCES",
     "EmmcFwRead,line=105: could not open emmc firmware file "
     "/vendor/firmware/emmc_emer_fw.bin (fd=-1)\n" +
         READ_FAIL},
    {"lseek #2 EIO", "EmmcFwRead,line=110: EmmcFwRead lseek failed\n" + READ_FAIL},
    {"read /vendor/firmware/emmc_emer_fw.bin short=51",
     "EmmcFwRead,line=118: firmware file read error (status=51)\n" + READ_FAIL},
    // The registers.
    {"open /sys/class/mmc_host/mmc0/mmc0:0001/cid ENOENT",
     "EmmcGetCidFromSysfs,line=171: Couldn't open /sys/class/mmc_host/mmc0/mmc0:0001/cid fd = -1 "
     "O_RDONLY  | O_LARGEFILE\n" +
         NO_CID},
    {"read /sys/class/mmc_host/mmc0/mmc0:0001/cid short=31",
     "EmmcGetCidFromSysfs,line=176: Error cid buffRead = 31 less than total_read = 32\n" + NO_CID},
    {"open /proc/bootdevice/ext_csd #2 EACCES",
     "EmmcGetExtCsd,line=258: Could not open /proc/bootdevice/ext_csd\n" + NO_EXT_CSD},
    {"read /proc/bootdevice/ext_csd short=1023",
     "EmmcGetExtCsd,line=263: EmmcGetExtCsd: get proc/bootdevice/rev 1023\n", STOP},
    {"realpath ENOENT",
     "EmmcGetExtCsd,line=243: EmmcGetExtCsd: get realpath /dev/block/mmcblk0 fail\n", STOP, NORMAL},
    {"SEND_EXT_CSD #2 returns=5",
     "EmmcCmd,line=112: emmc ioctl error (cmd=8, ret=5)\n" + NO_EXT_CSD, FAIL, NORMAL},
    // The selection, on a device of eMMC 5.1, 5.0 or 4.5.
    {"", NO_MATCH, NOTHING, GKI, OTHER_MID},
    {"", NO_MATCH, NOTHING, GKI, With(ENTRY, EMMC_REV_FIELD, "\x07")},
    {"", MATCH + EQUAL, NOTHING, GKI, OTHER_MID + EmmcEntry(EMMC_REV) + ENTRY},
    {"", UPDATED, PASS, GKI, EmmcEntry("FW000000")},
    // Names and revisions are bytes, also behind a zero byte.
    {"", NO_MATCH, NOTHING, ZERO_NAME,
     With(OTHER_MID, EMMC_PNM_FIELD, {"SIM\0\0A", 6}) +
         With(ENTRY, EMMC_PNM_FIELD, {"SIM\0\0B", 6})},
    {"", UPDATED, PASS, GkiPhone({{"revision", "[5]"}}), OTHER_MID + EmmcEntry({"\5\0\1", 3})},
    {"", UPDATED, PASS, GKI,
     With(OTHER_MID, EMMC_BASE_FIELD, "FW000001....EMMC").substr(0, 48) + ENTRY.substr(4)},
    {"", "(emmc fw) emmcFwSize= 00000038\n" + ADMITTED + GKI_MODE + DONE, PASS, GKI,
     BehindBody(56)},
    {"", "(emmc fw) emmcFwSize= 00000004\n" + ADMITTED + GKI_MODE + DONE, PASS, GKI,
     BehindBody(57)},
    {"", ADMITTED + GKI_MODE + DONE, PASS, GkiPhone({{"ext_csd_rev", "7"}}),
     With(ENTRY, EMMC_REV_FIELD, "\x07")},
    {"", NEEDED + "DoEmmcFfu,line=210: emmc revision error (emmcRev=6)\n" + UPDATE_FAIL, FAIL,
     GkiPhone({{"ext_csd_rev", "6"}}), With(ENTRY, EMMC_REV_FIELD, "\x06")},
    // The download.
    {"realpath ENOENT",
     "DoEmmc50Ffu,line=378: DoEmmc50Ffu: get realpath /proc/bootdevice/ffu fail\n" + UPDATE_FAIL},
    {"write /proc/bootdevice/ffu #1-3 EIO", THREE_RETRIES + DONE, PASS},
    {"write /proc/bootdevice/ffu #1-4 EIO", THREE_RETRIES + RETRY + "0\n" + UPDATE_FAIL},
    {"write /proc/bootdevice/ffu short=0", GKI_MODE + UPDATE_FAIL},
    {"write /proc/bootdevice/ffu #1 EIO", GKI_MODE + RETRY + "3\n" + UPDATE_FAIL, FAIL,
     GkiPhone({{"faults", "['write /proc/bootdevice/ffu #2 short=3']"}})},
    {"access /proc/bootdevice/ffu #3 EACCES",
     NORMAL_MODE + "Ffu50DownloadImage,line=332: emmc ioctl error (ffu50, ret=-1)\n" +
         DOWNLOAD_FAIL},
    {"FFU_DOWNLOAD returns=7",
     "Ffu50DownloadImage,line=332: emmc ioctl error (ffu50, ret=7)\n" + DOWNLOAD_FAIL, FAIL,
     NORMAL},
    {"FFU_INSTALL returns=7",
     "DoEmmc50Ffu,line=396: eMMC5.0 ffu download image sucessful\n"
     "Ffu50Install,line=353: (ffu50) emmc ioctl error (ffu50, ret=7)\n"
     "DoEmmc50Ffu,line=403: eMMC5.0 ffu install image fail\n" +
         UPDATE_FAIL,
     FAIL, NORMAL},
    {"", "Ffu50DownloadImage,line=315: (ffu50) firmware file size error\n" + DOWNLOAD_FAIL, FAIL,
     NORMAL, EmmcEntry(EMMC_NEW_REV, Body(1048577))},
    {"", UPDATED, PASS, NORMAL, EmmcEntry(EMMC_NEW_REV, Body(1048576))},
};

TEST_F(EmmcTest, EveryStepHasItsMessagesAndVerdict) {
    for (const auto& row : CASES) {
        SCOPED_TRACE(row.fault + ": " + row.console);
        Make(row.phone, {{EMMC_PACKAGE, row.package}});
        ExpectEnd(Console(Run({row.fault})), row.console);
        EXPECT_EQ(Left(), row.left);
        EXPECT_EQ(Get("/device/pending"), row.left == PASS ? "" : MISSING);
    }
}

TEST_F(EmmcTest, NodeIsOpenedWhereItsLinkLeads) {
    Make(NORMAL, {{EMMC_PACKAGE, ENTRY}, {"/dev/block/mmcblk0", MISSING}, {"/dev/block/real", ""}});
    std::filesystem::create_symlink("real", Path("/dev/block/mmcblk0"));
    ExpectEnd(Console(Run({"open /dev/block/real #3 EACCES"})),
              "DoEmmc50Ffu,line=384: Could open /dev/block/mmcblk0\n" + UPDATE_FAIL);
    ExpectEnd(Console(Run({"open /dev/block/real EACCES"})),
              "EmmcGetExtCsd,line=249: Could not open /dev/block/real\n");
}

TEST_F(EmmcTest, RegistersAreTakenInEitherCaseAndNeverGarbled) {
    const std::string cidNode = "/sys/class/mmc_host/mmc0/mmc0:0001/cid";
    const std::string extCsdNode = "/proc/bootdevice/ext_csd";
    Make(GKI, {{EMMC_PACKAGE, ENTRY}});
    std::string extCsd = Get(extCsdNode);
    Put(extCsdNode, extCsd.replace(1022, 2, "0x"));
    ExpectEnd(Console(Run()),
              "EmmcGetExtCsd,line=267: ext_csd character 1023 is no hexadecimal digit\n");
    EXPECT_EQ(Left(), STOP);
    Put(extCsdNode, extCsd.replace(1022, 2, "00").replace(2 * 260, 4, "aBCd"));
    Put(cidNode, Get(cidNode).replace(0, 1, "z"));
    const RunResult run = Run();
    EXPECT_EQ(Count(Steps(run), "pnm:SIM064 current:FW0000\xAB\xCD, "), 1);
    ExpectEnd(Console(run),
              "EmmcGetCidFromSysfs,line=180: cid character 0 is no hexadecimal digit\n" + NO_CID);
    EXPECT_EQ(Left(), FAIL);
}

} // namespace
