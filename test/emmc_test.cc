// The eMMC update: registers, selection, download. A failure here means a phone that gets a
// firmware not meant for it, gets it in part, or is told a false outcome.
#include "test/phone.h"

#include <algorithm>
#include <filesystem>

namespace {

class EmmcTest : public PhoneTest {};

const std::string PASS = "ffu.end ffu.ok fw_result";
const std::string FAIL = "ffu.bgn ffu.fail fw_result";
const std::string NOTHING = "ffu.end fw_result";
const std::string STOP = "ffu.bgn"; // before an update was attempted

const std::string UPDATE_FAIL = "EmmcFfu,line=279: emmc firmware update fail...\n";
const std::string READ_FAIL = "EmmcFfu,line=255: read emmc firmware fail...\n";
const std::string NO_CID = "GetEmmcHeader,line=132: get emmc cid register value failed by sysfs\n"
                           "EmmcFfu,line=263: get emmc device header fail...\n";
const std::string NO_EXT_CSD = "GetEmmcHeader,line=138: get emmc extcsd register value failed\n"
                               "EmmcFfu,line=263: get emmc device header fail...\n";
const std::string NO_MATCH = "EmmcFwhdrCheck,line=198: fwbin file not match, no need to update\n";
const std::string GKI_MODE = "DoEmmc50Ffu,line=408: emmc firmware GKI mode \n";
const std::string GKI_EXT_CSD = "EmmcGetExtCsd,line=255: EmmcGetExtCsd, emmc firmware GKI mode \n";
const std::string MODE = "EmmcGetExtCsd,line=241: EmmcGetExtCsd, emmc firmware normal mode \n";
const std::string DOWNLOAD_FAIL =
    "DoEmmc50Ffu,line=392: eMMC5.0 ffu download image fail\n" + UPDATE_FAIL;
const std::string INSTALL_FAIL =
    "DoEmmc50Ffu,line=403: eMMC5.0 ffu install image fail\n" + UPDATE_FAIL;
const std::string DOWNLOADED = "DoEmmc50Ffu,line=396: eMMC5.0 ffu download image sucessful\n";
const std::string UPDATED = "EmmcFfu,line=277: emmc firmware update sucess...\n";

const std::string MATCHED = "EmmcFwhdrCheck,line=184: fwbin file have fwinfo match current device\n"
                            "EmmcFfu,line=273: emmc need update...\n"
                            "DoEmmcFfu,line=207: emmc 5.0 or higher do firmware update\n" +
                            GKI_MODE + "DoEmmc50Ffu,line=418: eMMC5.0 ffu sucessful\n" + UPDATED;

std::string Retry(const std::string& error, int left) {
    return "DoEmmc50Ffu,line=415: emmc firmware GKI error " + error + ", retry " +
           std::to_string(left) + "\n";
}
const std::string THREE_RETRIES = Retry("Input/output error", 3) + Retry("Input/output error", 2) +
                                  Retry("Input/output error", 1);

// The console ends with `console`.
struct Case {
    const char* name;
    std::string phone;
    const char* fault;
    std::string console;
    std::string left = FAIL;
    std::string package = EmmcEntry();
    const char* secondFault = "";
};

const Case CASES[] = {
    // The package, as the update reads it after the pre-check.
    {"gone", GkiPhone(), "access /vendor/firmware/emmc_emer_fw.bin #2 ENOENT",
     "EmmcFfu,line=239: emmc firmware not exist, no need to update...\n", NOTHING},
    {"not opened for its size", GkiPhone(), "open /vendor/firmware/emmc_emer_fw.bin #2 EACCES",
     "EmmcFwGetSize,line=84: could not open emmc firmware file /vendor/firmware/emmc_emer_fw.bin "
     "(fd=-1)\n"},
    {"size 0", GkiPhone(), "lseek #1 returns=0",
     "EmmcFwGetSize,line=90: EmmcFwGetSize lseek /vendor/firmware/emmc_emer_fw.bin size fail "
     "0...\n"},
    {"no size", GkiPhone(), "lseek #1 EIO",
     "EmmcFwGetSize,line=90: EmmcFwGetSize lseek /vendor/firmware/emmc_emer_fw.bin size fail "
     "-1...\n"},
    {"no memory", GkiPhone(), "calloc null", "EmmcFfu,line=250: calloc fwFileBuffer fail...\n"},
    {"not opened", GkiPhone(), "open /vendor/firmware/emmc_emer_fw.bin #3 EACCES",
     "EmmcFwRead,line=105: could not open emmc firmware file /vendor/firmware/emmc_emer_fw.bin "
     "(fd=-1)\n" +
         READ_FAIL},
    {"not rewound", GkiPhone(), "lseek #2 EIO",
     "EmmcFwRead,line=110: EmmcFwRead lseek failed\n" + READ_FAIL},
    {"read in part", GkiPhone(), "read /vendor/firmware/emmc_emer_fw.bin short=51",
     "EmmcFwRead,line=118: firmware file read error (status=51)\n" + READ_FAIL},
    {"not read", GkiPhone(), "read /vendor/firmware/emmc_emer_fw.bin EIO",
     "EmmcFwRead,line=118: firmware file read error (status=-1)\n" + READ_FAIL},

    // The registers.
    {"no CID", GkiPhone(), "open /sys/class/mmc_host/mmc0/mmc0:0001/cid ENOENT",
     "EmmcGetCidFromSysfs,line=171: Couldn't open /sys/class/mmc_host/mmc0/mmc0:0001/cid fd = -1 "
     "O_RDONLY  | O_LARGEFILE\n" +
         NO_CID},
    {"CID of 31 characters", GkiPhone(), "read /sys/class/mmc_host/mmc0/mmc0:0001/cid short=31",
     "EmmcGetCidFromSysfs,line=176: Error cid buffRead = 31 less than total_read = 32\n" + NO_CID},
    {"CID unreadable", GkiPhone(), "read /sys/class/mmc_host/mmc0/mmc0:0001/cid EIO",
     "EmmcGetCidFromSysfs,line=176: Error cid buffRead = -1 less than total_read = 32\n" + NO_CID},
    {"EXT_CSD not opened", GkiPhone(), "open /proc/bootdevice/ext_csd #2 EACCES",
     GKI_EXT_CSD + "EmmcGetExtCsd,line=258: Could not open /proc/bootdevice/ext_csd\n" +
         NO_EXT_CSD},
    {"EXT_CSD of 1023 characters", GkiPhone(), "read /proc/bootdevice/ext_csd short=1023",
     GKI_EXT_CSD + "EmmcGetExtCsd,line=263: EmmcGetExtCsd: get proc/bootdevice/rev 1023\n", STOP},
    {"EXT_CSD empty", GkiPhone(), "read /proc/bootdevice/ext_csd #2 short=0",
     GKI_EXT_CSD + "EmmcGetExtCsd,line=263: EmmcGetExtCsd: get proc/bootdevice/rev 0\n" +
         NO_EXT_CSD},
    {"eMMC not resolved for EXT_CSD", NormalPhone(), "realpath ENOENT",
     MODE + "EmmcGetExtCsd,line=243: EmmcGetExtCsd: get realpath /dev/block/mmcblk0 fail\n", STOP},
    {"eMMC not opened for EXT_CSD", NormalPhone(), "open /dev/block/mmcblk0 #2 EACCES",
     MODE + "EmmcGetExtCsd,line=249: Could not open /dev/block/mmcblk0\n" + NO_EXT_CSD},
    {"EXT_CSD request fails", NormalPhone(), "SEND_EXT_CSD #2 ETIMEDOUT",
     MODE + "EmmcCmd,line=112: emmc ioctl error (cmd=8, ret=-1)\n" + NO_EXT_CSD},
    {"EXT_CSD request with a positive result", NormalPhone(), "SEND_EXT_CSD returns=5",
     MODE + "EmmcCmd,line=112: emmc ioctl error (cmd=8, ret=5)\n", STOP},

    // The selection.
    {"other manufacturer", GkiPhone(), "", NO_MATCH, NOTHING,
     With(EmmcEntry(), EMMC_MID_FIELD, "\x14")},
    {"other EXT_CSD revision", GkiPhone(), "", NO_MATCH, NOTHING,
     With(EmmcEntry(), EMMC_REV_FIELD, "\x07")},
    {"runs the revision of its own entry", GkiPhone(), "",
     "EmmcFwhdrCheck,line=184: fwbin file have fwinfo match current device\n"
     "EmmcFwhdrCheck,line=194: fwRevGet equal fwRevBase, no need to update\n",
     NOTHING, With(EmmcEntry(), EMMC_MID_FIELD, "\x14") + EmmcEntry(EMMC_REV) + EmmcEntry()},
    {"differs in serial number and product revision", GkiPhone(), "", UPDATED, PASS,
     With(With(EmmcEntry(), EMMC_PRV_FIELD, "\x55"), EMMC_PSN_FIELD, "\x55\x55\x55\x55")},
    {"body that just fits", GkiPhone(), "", "(emmc fw) emmcFwSize= 00000038\n" + MATCHED, PASS,
     With(EmmcEntry("FW000009"), EMMC_SIZE_FIELD, BigEndian32(56)) + EmmcEntry()},
    {"body of the lower entry beyond the end", GkiPhone(), "",
     "(emmc fw) emmcFwSize= 00000004\n" + MATCHED, PASS,
     With(EmmcEntry("FW000009"), EMMC_SIZE_FIELD, BigEndian32(57)) + EmmcEntry()},
    {"body of the lower entry far beyond the end", GkiPhone(), "",
     "(emmc fw) emmcFwSize= 00000004\n" + MATCHED, PASS,
     With(EmmcEntry("FW000009"), EMMC_SIZE_FIELD, BigEndian32(0xFFFFFFFF)) + EmmcEntry()},
    {"older revision", GkiPhone(), "", UPDATED, PASS, EmmcEntry("FW000000")},
    {"eMMC 4.5", GkiPhone({{"ext_csd_rev", "6"}}), "",
     "EmmcFfu,line=273: emmc need update...\n"
     "DoEmmcFfu,line=210: emmc revision error (emmcRev=6)\n" +
         UPDATE_FAIL,
     FAIL, With(EmmcEntry(), EMMC_REV_FIELD, "\x06")},
    {"eMMC 5.0", GkiPhone({{"ext_csd_rev", "7"}}), "", UPDATED, PASS,
     With(EmmcEntry(), EMMC_REV_FIELD, "\x07")},

    // GKI mode.
    {"kernel node not resolved", GkiPhone(), "realpath ENOENT",
     "DoEmmc50Ffu,line=378: DoEmmc50Ffu: get realpath /proc/bootdevice/ffu fail\n" + UPDATE_FAIL},
    {"kernel node not opened", GkiPhone(), "open /proc/bootdevice/ffu EACCES",
     "DoEmmc50Ffu,line=384: Could open /proc/bootdevice/ffu\n" + UPDATE_FAIL},
    {"write interrupted once", GkiPhone(), "write /proc/bootdevice/ffu #1 EINTR",
     GKI_MODE + Retry("Interrupted system call", 3) +
         "DoEmmc50Ffu,line=418: eMMC5.0 ffu sucessful\n" + UPDATED,
     PASS},
    {"write fails three times", GkiPhone(), "write /proc/bootdevice/ffu #1-3 EIO",
     GKI_MODE + THREE_RETRIES + "DoEmmc50Ffu,line=418: eMMC5.0 ffu sucessful\n" + UPDATED, PASS},
    {"write fails four times", GkiPhone(), "write /proc/bootdevice/ffu #1-4 EIO",
     GKI_MODE + THREE_RETRIES + Retry("Input/output error", 0) + UPDATE_FAIL},
    {"write is short", GkiPhone(), "write /proc/bootdevice/ffu #1 short=3", GKI_MODE + UPDATE_FAIL},
    {"write takes nothing", GkiPhone(), "write /proc/bootdevice/ffu #1 short=0",
     GKI_MODE + UPDATE_FAIL},
    {"retried write is short", GkiPhone(), "write /proc/bootdevice/ffu #1 EIO",
     GKI_MODE + Retry("Input/output error", 3) + UPDATE_FAIL, FAIL, EmmcEntry(),
     "write /proc/bootdevice/ffu #2 short=3"},

    // Normal mode.
    {"eMMC not resolved", NormalPhone(), "realpath #3 ENOENT",
     "DoEmmc50Ffu,line=378: DoEmmc50Ffu: get realpath /dev/block/mmcblk0 fail\n" + UPDATE_FAIL},
    {"eMMC not opened", NormalPhone(), "open /dev/block/mmcblk0 #3 EACCES",
     "DoEmmc50Ffu,line=384: Could open /dev/block/mmcblk0\n" + UPDATE_FAIL},
    {"download fails", NormalPhone(), "FFU_DOWNLOAD EIO",
     "Ffu50DownloadImage,line=332: emmc ioctl error (ffu50, ret=-1)\n" + DOWNLOAD_FAIL},
    {"download with a positive result", NormalPhone(), "FFU_DOWNLOAD returns=7",
     "Ffu50DownloadImage,line=332: emmc ioctl error (ffu50, ret=7)\n" + DOWNLOAD_FAIL},
    {"install fails", NormalPhone(), "FFU_INSTALL EIO",
     DOWNLOADED + "Ffu50Install,line=353: (ffu50) emmc ioctl error (ffu50, ret=-1)\n" +
         INSTALL_FAIL},
    {"install with a positive result", NormalPhone(), "FFU_INSTALL returns=7",
     DOWNLOADED + "Ffu50Install,line=353: (ffu50) emmc ioctl error (ffu50, ret=7)\n" +
         INSTALL_FAIL},
    {"image of 1 MiB and a byte", NormalPhone(), "",
     "Ffu50DownloadImage,line=315: (ffu50) firmware file size error\n" + DOWNLOAD_FAIL, FAIL,
     EmmcEntry(EMMC_NEW_REV, Body(1048577))},
    {"node lost before the download", GkiPhone(), "access /proc/bootdevice/ffu #3 EACCES",
     "DoEmmc50Ffu,line=389: emmc firmware normal mode \n"
     "Ffu50DownloadImage,line=332: emmc ioctl error (ffu50, ret=-1)\n" +
         DOWNLOAD_FAIL},
};

TEST_F(EmmcTest, EveryStepHasItsMessagesAndVerdict) {
    for (const Case& row : CASES) {
        SCOPED_TRACE(row.name);
        Make(row.phone, {{EMMC_PACKAGE, row.package}});
        const RunResult result = Run({row.fault, row.secondFault});
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(Left(), row.left);
        ExpectEnd(ConsoleText(result), row.console);
        EXPECT_EQ(Get("/device/pending"), row.left == PASS ? "" : MISSING);
        // Only a download that the device has taken is installed.
        const long downloads = Count(Requests(result), "opcode=302 ");
        EXPECT_EQ(Count(Requests(result), "opcode=303 "),
                  row.console.find(DOWNLOADED) == std::string::npos ? 0 : downloads);
    }
}

TEST_F(EmmcTest, WholeImageReachesTheDevice) {
    for (const size_t size : {1, 511, 512, 1000, 1048575, 1048576, 1048577}) {
        SCOPED_TRACE(size);
        const std::string body = Body(size);
        Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry(EMMC_NEW_REV, body) + "after"}});
        EXPECT_EQ(Requests(Run()),
                  Texts{"GKI write " + std::to_string(size) + " -> " + std::to_string(size)});
        EXPECT_TRUE(Get("/device/downloaded.bin") == body);
        if (size > 1048576) {
            continue;
        }
        // Whole blocks, with zeros beyond the end of the package.
        Make(NormalPhone(), {{EMMC_PACKAGE, EmmcEntry(EMMC_NEW_REV, body)}});
        const size_t blocks = (size + 511) / 512;
        EXPECT_EQ(Count(Requests(Run()), "opcode=302 write=1 arg=0 flags=0xb5 blksz=512 blocks=" +
                                             std::to_string(blocks) + " -> 0"),
                  1);
        EXPECT_TRUE(Get("/device/downloaded.bin") == body + std::string(blocks * 512 - size, '\0'));
    }
}

TEST_F(EmmcTest, UnwritableKernelNodeMeansNormalMode) {
    Make(NormalPhone(), {{EMMC_PACKAGE, EmmcEntry()}, {"/proc/bootdevice/ffu", ""}});
    const RunResult result = Run({"access /proc/bootdevice/ffu EACCES"});
    EXPECT_EQ(Left(), PASS);
    EXPECT_EQ(Count(Requests(result), "GKI"), 0);
    for (const CallEntry& call : result.calls) {
        EXPECT_TRUE(call.path != "/proc/bootdevice/ffu" || call.arguments == "mode=2"); // W_OK
    }
}

TEST_F(EmmcTest, NodeIsOpenedWhereItsLinkLeads) {
    Make(NormalPhone(), {{EMMC_PACKAGE, EmmcEntry()}, {"/dev/block/mmcblk0", MISSING}});
    Put("/dev/block/real", "");
    std::filesystem::create_symlink("real", Path("/dev/block/mmcblk0"));
    EXPECT_EQ(Tail(Console(Run({"open /dev/block/real #3 EACCES"})), 2),
              (Texts{"DoEmmc50Ffu,line=384: Could open /dev/block/mmcblk0",
                     "EmmcFfu,line=279: emmc firmware update fail..."}));
    EXPECT_EQ(Console(Run({"open /dev/block/real EACCES"})).back(),
              "EmmcGetExtCsd,line=249: Could not open /dev/block/real");
}

TEST_F(EmmcTest, RegistersAreTakenInEitherCaseAndNeverGarbled) {
    const std::string cidNode = "/sys/class/mmc_host/mmc0/mmc0:0001/cid";
    const std::string extCsdNode = "/proc/bootdevice/ext_csd";
    const Files files = {{EMMC_PACKAGE, With(EmmcEntry(), EMMC_PNM_FIELD, "JKLMNO")},
                         {"/proc/bootdevice/product_name", "JKLMNO\n"}};
    for (const char* cid :
         {"130100 4a4b4c4d4e4f fa 1234abcd 0000", "130100 4A4B4C4D4E4F FA 1234ABCD 0000\n"}) {
        std::string text = cid;
        text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
        Make(GkiPhone(), files);
        Put(cidNode, text);
        std::string extCsd = Get(extCsdNode);
        extCsd.replace(2 * 261, 2, text[12] == 'a' ? "fa" : "FA");
        Put(extCsdNode, extCsd);
        const Texts console = Console(Run());
        EXPECT_EQ(Count(console, "(emmc device) emmcPnm= 4A 4B 4C 4D 4E 4F"), 1);
        EXPECT_EQ(Count(console, "(emmc device) emmcPrv= FA"), 1);
        EXPECT_EQ(Count(console, "(emmc device) emmcFwRev= 46 57 30 30 30 30 30 FA"), 1);
        EXPECT_EQ(Left(), PASS);
    }
    for (const char* garbled : {"0x", " 1", "+1", "g0", "0g", "-1"}) {
        SCOPED_TRACE(garbled);
        const std::string at = std::to_string(isxdigit(garbled[0]) ? 27 : 26);
        Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
        Put(cidNode, Get(cidNode).replace(26, 2, garbled));
        EXPECT_EQ(Count(Console(Run()), "EmmcGetCidFromSysfs,line=180: cid character " + at +
                                            " is no hexadecimal digit"),
                  1);
        EXPECT_EQ(Left(), FAIL);
        Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
        Put(extCsdNode, Get(extCsdNode).replace(26, 2, garbled));
        EXPECT_EQ(Console(Run())[1],
                  "EmmcGetExtCsd,line=267: ext_csd character " + at + " is no hexadecimal digit");
        EXPECT_EQ(Left(), STOP);
    }
}

} // namespace
