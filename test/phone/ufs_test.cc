// The UFS update: identity, selection, download, trigger test, verdict. A failure here means a
// phone that gets a firmware not meant for it, gets it in part, or is told a false outcome.
#include "test/phone/in_process.h"

#include "run/update_run.h"
#include "ufs/ufs_identity.h"
#include "ufs/ufs_selection.h"
#include "ufs/ufs_update.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <scsi/sg_lib.h>

namespace {

class UfsTest : public PhoneTest {};

const std::string BODY_FILE = "/data/vendor/fw/ufs_fw_body.bin";
const std::string TRIGGER_FILE = "/splash2/test_ffu_trigger.tmp";

// What the run did, in order: each file's name with the successive calls on it, the pauses and what
// asks for aligned memory. Without what the SCSI library asks the kernel for.
Texts Course(const RunResult& run) {
    Texts course;
    std::string path;
    for (const CallEntry& call : run.calls) {
        const bool isDirect = call.function == "open" && (OpenFlags(call) & O_DIRECT) != 0;
        const std::string name = call.path.substr(call.path.rfind('/') + 1);
        const std::string step = " " + call.function + (isDirect ? "-direct" : "");
        if (call.function == "sleep" || call.function.find("memalign") != std::string::npos) {
            course.push_back(step + " " + call.arguments);
        } else if (name == "-" || name == "devices" || call.function == "fstat") {
            continue;
        } else if (call.path == path) {
            course.back() += step;
        } else {
            course.push_back(name + step);
        }
        path = call.path;
    }
    for (std::string& entry : course) {
        entry = std::regex_replace(entry, std::regex("( read| write)\\1{127}"), " 128 x$1");
    }
    return course;
}

std::string Characters(std::string field, size_t size) {
    field.resize(size);
    std::string line;
    for (const char character : field) {
        line += std::string("PrintChar,line=65: ") + character;
    }
    return line + "PrintChar,line=67: \n";
}

std::string Identity(const std::string& mid = UFS_MID, const std::string& pnm = UFS_PNM,
                     const std::string& rev = UFS_REV) {
    return "PrintUfsFwHdr,line=72: (ufs device) ufsMagic=\n" + Characters("UFSM", 4) +
           "PrintUfsFwHdr,line=74: (ufs device) ufsMid=\n" + Characters(mid, 8) +
           "PrintUfsFwHdr,line=76: (ufs device) ufsPnm=\n" + Characters(pnm, 16) +
           "PrintUfsFwHdr,line=78: (ufs device) ufsProductRevisionLevel=\n" + Characters(rev, 4) +
           "PrintUfsFwHdr,line=85: (ufs device) ufsFwSize=0x00000000\n"
           "UfsFfu,line=479: get ufs local device info success!\n";
}

// Messages that more than one test expects.
const std::string NO_SIZE = "UfsFfu,line=461: Get fw size error!\n";
const std::string NO_DEVICE = "UfsFfu,line=475: get ufs local device info fail!\n";
const std::string PASS_OVER = "GetUfsFwFromFwBin,line=326: firmware not match\n";
const std::string NOT_NEEDED = "UfsFfu,line=481: ufs not need update...\n";
const std::string BEGIN =
    "ufs_ffu_write_buffer,line=288: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT begin to execute!\n";
const std::string BEGIN_S = "ufs_ffu_write_buffer,line=260: device: S******\n" + BEGIN;
const std::string END = "ufs_ffu_write_buffer,line=428: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT done!\n";
const std::string RESET = "scsi_reset,line=204: reset after ffu fail, reset type = 3\n";
const std::string SENT = "sg_ll_write_buffer_v2,line=160: \n"; // the last before the command

// The words for a category are the SCSI library's own, at verbosity 1.
std::string Refused(int category) {
    char words[80] = {};
    sg_get_category_sense_str(category, sizeof(words), words, 1);
    return std::string("ufs_ffu_write_buffer,line=424: Write buffer failed: ") + words + "\n";
}

// The verdict, with or without the trigger test before it.
const std::string TRIGGER = "FileWriteForTrigger,line=361: trigger test begin\n";
std::string Verdict(int code, const std::string& trigger = TRIGGER) {
    return trigger + "DoUfsFfu,line=431: ufs firmware update ret code = " + std::to_string(code) +
           (code == 0 ? "\nDoUfsFfu,line=433: ufs firmware update success...\n"
                      : "\nDoUfsFfu,line=435: ufs firmware update fail...\n");
}

TEST_F(UfsTest, OneTypicalRunInItsNineSteps) {
    const std::string body = Body(0x1A2B4);
    const std::string earlier = AttemptRecord("0700", "0800", UFS_PNM);
    const std::string other = With(UfsEntry("1000", Body(65536)), UFS_PNM_FIELD, "OTHER");
    Make(UfsPhone(), {{UFS_PACKAGE, other + UfsEntry("0900", body)},
                      {STATE + "/fw_result", earlier},
                      {STATE + "/ffu.ok", "old"},
                      {STATE + "/ffu.end", ""}});
    const RunResult run = Run();
    const Texts course = {
        // 1. The flags say that a run has begun.
        "fw access", "ffu.end remove", "ffu.bgn open close",
        // 2. The device is UFS; its name, its revision.
        "sdc access", "product_name open read close", "rev open read close",
        // 3. The package holds another revision, which may follow the one that runs.
        "ufs_emer_fw.bin access open mmap close",
        // 4. It was not attempted yet; now the attempt is on record.
        "fw_result access fopen fgets fgets fgets fclose", "ffu.ok access",
        "fw_result open write fsync close",
        // 5. What the last update left is cleared.
        "ffu.ok remove", "ffu.fail remove", "ufs_fw_body.bin remove",
        // 6. The whole package, the device's record, the entry again, its body in a file.
        "ufs_emer_fw.bin realpath access open lseek close realpath open read close",
        "manfid open read close", "product_name open read close", "rev open read close",
        "ufs_fw_body.bin unlink creat write close",
        // 7. The download, and the traffic that the device needs behind it.
        "sdc open", " memalign alignment=4096 size=8388608", "ufs_fw_body.bin open read close",
        "sdc ioctl close", " posix_memalign alignment=4096 size=8192",
        "test_ffu_trigger.tmp open-direct 128 x write fsync close open-direct 128 x read close",
        " sleep seconds=5", "test_ffu_trigger.tmp remove",
        // 8. The outcome.
        "ufs_fw_body.bin remove", "ffu.ok open write close",
        // 9. The flags say that the run has ended.
        "ffu.bgn remove", "ffu.end open close"};
    EXPECT_EQ(Course(run), course);
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(Console(run), "GetFwSize,line=118: ufsFwSize=0x2a334\n" + Identity() +
                                R"(GetUfsFwFromFwBin,line=316: ufs fw find, fwNum=1, fwSize=0x10000
GetUfsFwFromFwBin,line=326: firmware not match
GetUfsFwFromFwBin,line=316: ufs fw find, fwNum=2, fwSize=0x1a2b4
GetUfsFwFromFwBin,line=320: ufsCurrentFwOffset=0x10080
GetUfsFwFromFwBin,line=321: ufsCurrentFwSize=0x1a2b4
GetUfsFwFromFwBin,line=322: firmware file match
FwVerCheck,line=256: firmware match, but ufs_fw_rev not equal
GetUfsFwFromFwBin,line=335: Save fw body to file ...
SaveFwBodyToFile,line=268: SaveFwBodyToFile unlink /data/vendor/fw/ufs_fw_body.bin failed, maybe not exist
SaveFwBodyToFile,line=282: wirte UFS_FW_BODY_TMP success
ufs_ffu_write_buffer,line=260: device: S******
ufs_ffu_write_buffer,line=288: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT begin to execute!
ufs_ffu_write_buffer,line=372: tried to read 8388608 bytes from /data/vendor/fw/ufs_fw_body.bin, got 107188 bytes
ufs_ffu_write_buffer,line=373: will write 107188 bytes
ufs_ffu_write_buffer,line=378: 
ufs_ffu_write_buffer,line=414: sending single write buffer, mode=0xe, mpsec=0, id=0, offset=0, len=107188
sg_ll_write_buffer_v2,line=157:     Write buffer cmd: 
sg_ll_write_buffer_v2,line=159: 3b 
sg_ll_write_buffer_v2,line=159: 0e 
sg_ll_write_buffer_v2,line=159: 00 
sg_ll_write_buffer_v2,line=159: 00 
sg_ll_write_buffer_v2,line=159: 00 
sg_ll_write_buffer_v2,line=159: 00 
sg_ll_write_buffer_v2,line=159: 01 
sg_ll_write_buffer_v2,line=159: a2 
sg_ll_write_buffer_v2,line=159: b4 
sg_ll_write_buffer_v2,line=159: 00 
sg_ll_write_buffer_v2,line=160: 
ufs_ffu_write_buffer,line=428: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT done!
FileWriteForTrigger,line=361: trigger test begin
DoUfsFfu,line=431: ufs firmware update ret code = 0
DoUfsFfu,line=433: ufs firmware update success...
)");
    EXPECT_EQ(Requests(run), "SG_IO WRITE BUFFER cdb=3b0e0000000001a2b400 data=107188 "
                             "timeout=300000ms -> GOOD\n");
    const std::regex copy("[^\n]* FFU process [^\n]*\n\n?"); // of the system log, by the host
    EXPECT_EQ(std::regex_replace(run.errors, copy, ""), "");
    const Files state = {{"ffu.end", ""},
                         {"ffu.ok", CLOCK_TEXT},
                         {"fw_result", earlier + AttemptRecord("0800", "0900", UFS_PNM)}};
    EXPECT_EQ(State(), state);
    EXPECT_TRUE(Get("/device/downloaded.bin") == body);
    EXPECT_EQ(Get(TRIGGER_FILE), MISSING);
}

std::string Refuse(int category) {
    return SENT + Refused(category) + RESET + END;
}

// Whatever the outcome: at most one command is sent, and the trigger test follows. What the SCSI
// library keeps of an answer is freed with its object, after it was read. The text that is told
// with an error is formatted by a function that may set errno, see in_process.cc.
TEST_F(UfsTest, EveryOutcomeOfADownload) {
    const std::string noReset = "scsi_reset,line=207: sg_reset fail, ret = -1\n" + END;
    const std::string noNode = "ufs_ffu_write_buffer,line=313: sg_write_buffer: open error: "
                               "/dev/block/sdc: No such device or address\n";
    const std::string notClosed =
        "ufs_ffu_write_buffer,line=435: close error: Input/output error\n";
    const std::string noMemory = "ufs_ffu_write_buffer,line=320: sg_write_buffer: out of memory\n";
    const std::string noObject =
        "sg_ll_write_buffer_v2,line=171: sg_ll_write_buffer_v2: out of memory\n";
    const std::string notOpened =
        "sg_write_buffer: could not open "
        "/data/vendor/fw/ufs_fw_body.bin for reading: Permission denied\n";
    const std::string notRead = "sg_write_buffer: couldn't read from "
                                "/data/vendor/fw/ufs_fw_body.bin: Input/output error\n";
    const struct {
        std::string answer, fault; // of the device, to the one command
        std::string told;          // up to the trigger test
        int code;
        std::string errors = ""; // on the standard error, among others
    } rows[] = {
        {"sense 0/00/00", "", SENT + END, 0, "Write buffer:"},
        {"sense 1/17/01", "", SENT + END, 0, "Write buffer:"},
        {"descriptor-sense 1/17/01", "", SENT + END, 0},
        {"sense 2/04/01", "", Refuse(2), 2, "Write buffer:"},
        {"sense 5/20/00", "", Refuse(9), 9},
        {"descriptor-sense 5/24/00", "", Refuse(5), 5},
        {"sense b/47/03", "", Refuse(11), 11},
        {"status 0x18", "", Refuse(24), 24},
        {"status 0x10", "", Refuse(-1), 99, "Write buffer:"}, // has no category
        {"host 3", "", Refuse(-1), 99, "Write buffer:"},
        {"driver 6", "", Refuse(-1), 99, "Write buffer:"},
        {"good", "SG_IO ENODEV", Refuse(-1), 99, "Write buffer"},
        {"good", "SG_IO ENXIO", Refuse(2), 2, "Write buffer"}, // the device is gone
        {"good", "calloc #2 ENOMEM", noObject + Refused(-1) + RESET + END, 99},
        {"good", "memalign ENOMEM", BEGIN_S + noMemory, 1},
        {"good", "open /dev/block/sdc ENXIO", BEGIN_S + noNode, 15},
        {"good", "open " + BODY_FILE + " EACCES", BEGIN_S, 15, notOpened},
        {"good", "read " + BODY_FILE + " EIO", BEGIN_S, 15, notRead},
        {"good", "close /dev/block/sdc EIO", SENT + END + notClosed, 15},
        {"status 0x08", "close /dev/block/sdc EIO", Refuse(26) + notClosed, 26},
        {"host 3", "close /dev/block/sdc EIO", Refuse(-1) + notClosed, 99},
        {"status 0x08", "SG_SCSI_RESET EBUSY", Refused(26) + RESET + noReset, 26},
    };
    const Texts answered = {"construct", "process_resp", "destruct"};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.answer + " " + row.fault);
        const bool isAnswered = row.fault.empty();
        Make(UfsPhone({{"write_buffer", "'" + row.answer + "'"},
                       {"faults", isAnswered ? "[]" : "'" + row.fault + "'"}}),
             {{UFS_PACKAGE, UfsEntry()}});
        const RunResult run = RunInProcess(directory, [] { EXPECT_EQ(UpdateRun(), 0); });
        ExpectEnd(Console(run), row.told + Verdict(row.code));
        EXPECT_LE(Count(Requests(run), "SG_IO"), 1);
        EXPECT_EQ(Count(Requests(run), "SG_SCSI_RESET type=3 "), Count(row.told, RESET));
        EXPECT_NE(run.errors.find(row.errors), std::string::npos) << run.errors;
        EXPECT_TRUE(!isAnswered || passThroughCalls == answered);
        EXPECT_EQ(Left(), row.code == 0 ? PASS : FAIL);
    }
}

UfsFwHeader Header(const std::string& mid, const std::string& pnm, const std::string& rev) {
    const std::string entry = With(With(UfsEntry(rev), UFS_MID_FIELD, mid), UFS_PNM_FIELD, pnm);
    UfsFwHeader header;
    memcpy(&header, entry.data(), sizeof(header));
    return header;
}

TEST_F(UfsTest, OneManufacturersHostIsResetAfterAFailure) {
    const std::string unknown =
        R"(ufs_ffu_write_buffer,line=281: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT MID_UNKNOWN, use default !)";
    const std::map<std::string, std::string> makers = {
        {"0x0001ad", "ufs_ffu_write_buffer,line=250: device: H****"},
        {"0x000198", "ufs_ffu_write_buffer,line=255: device: T******"},
        {"0x0001ce", "ufs_ffu_write_buffer,line=260: device: S******"},
        {"0x00012c", "ufs_ffu_write_buffer,line=266: device: M*****"},
        {"0x0008b6", "ufs_ffu_write_buffer,line=271: device: KQ****"},
        {"0x000145", "ufs_ffu_write_buffer,line=276: device: SAN****"},
        {"0x0001CE", unknown}};
    Make(UfsPhone({{"write_buffer", "'status 0x08'"}}), {{BODY_FILE, "body"}});
    const auto download = [&](const std::string& mid) {
        return RunInProcess(directory, [&] { EXPECT_EQ(DoUfsFfu(Header(mid, "", ""), 1), -1); });
    };
    for (const auto& [mid, message] : makers) {
        SCOPED_TRACE(mid);
        const RunResult run = download(mid);
        EXPECT_EQ(Console(run).find(message + "\n" + BEGIN), 0U);
        EXPECT_EQ(Count(Requests(run), "SG_SCSI_RESET"), mid == UFS_MID ? 1 : 0);
        ExpectEnd(Console(run), Refused(26) + (mid == UFS_MID ? RESET : "") + END + Verdict(26));
        for (const std::string& other : {"#" + mid.substr(1), mid.substr(0, 7) + "#"}) {
            EXPECT_EQ(Console(download(other)).find(unknown), 0U) << other;
        }
    }
}

TEST_F(UfsTest, OneCommandCarriesTheBodyUpTo8MiB) {
    for (const size_t size : {0UL, 8388607UL, 8388609UL}) {
        SCOPED_TRACE(size);
        const std::string body = Body(size), sent = body.substr(0, 8388608);
        Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry(UFS_NEW_REV, body)}});
        const RunResult run = Run();
        EXPECT_EQ(Count(Requests(run), "00 data=" + std::to_string(sent.size()) + " "), 1);
        EXPECT_EQ(Count(Console(run), "line=372: tried to read 8388608 bytes from "), sent == body);
        EXPECT_TRUE(Get("/device/downloaded.bin") == (size == 0 ? MISSING : sent));
    }
}

// No step of the trigger test keeps another one from its turn, or changes the verdict.
TEST_F(UfsTest, TriggerTestGoesItsWay) {
    const std::string removal = "remove /splash2/test_ffu_trigger.tmp EROFS";
    const struct {
        std::string fault;
        long pauses, messages;
        std::string message;
    } rows[] = {
        {"posix_memalign ENOMEM", 0, 1,
         "FfuFlashFileForTrigger,line=411: memalign testBufTrigger fail"},
        {"open /splash2/test_ffu_trigger.tmp #1 EROFS", 1, 1,
         "FileWriteForTrigger,line=358: Open /splash2/test_ffu_trigger.tmp WR fail,Test Fail "
         "Exit!"},
        {"open /splash2/test_ffu_trigger.tmp #1 EROFS", 1, 128, // the file is empty then
         "FileReadForTrigger,line=390: trigger read error! ret = 0"},
        {"open /splash2/test_ffu_trigger.tmp #2 EROFS", 0, 1,
         "FileReadForTrigger,line=384: Open /splash2/test_ffu_trigger.tmp RD fail,Test Fail Exit!"},
        {"write /splash2/test_ffu_trigger.tmp #128 short=4096", 1, 1,
         "FileWriteForTrigger,line=369: trigger write error! ret = 4096"},
        {"write /splash2/test_ffu_trigger.tmp ENOSPC", 1, 128,
         "FileWriteForTrigger,line=369: trigger write error! ret = -1"},
        {"read /splash2/test_ffu_trigger.tmp EIO", 1, 128,
         "FileReadForTrigger,line=390: trigger read error! ret = -1"},
        {removal, 1, 1,
         "RemoveTriggerFile,line=400: remove trigger file error /splash2/test_ffu_trigger.tmp"},
    };
    const auto isPause = [](const CallEntry& call) { return call.function == "sleep"; };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry()}});
        const RunResult run = Run({row.fault});
        EXPECT_EQ(Count(Console(run), row.message + "\n"), row.messages);
        EXPECT_EQ(std::count_if(run.calls.begin(), run.calls.end(), isPause), row.pauses);
        EXPECT_EQ(Get(TRIGGER_FILE) == MISSING, row.fault != removal);
        ExpectEnd(Console(run), Verdict(0, ""));
    }
    // The last run could not remove its file.
    EXPECT_TRUE(Get(TRIGGER_FILE) == std::string(128 * 8192, 'Z'));
}

TEST_F(UfsTest, NothingIsAppliedAfterAnEarlyFailure) {
    const std::string noMemory = "UfsFfu,line=466: could calloc buffer (ufsFwSize=2147483647)\n";
    const std::string noRead = "UfsFfu,line=470: Read ufs fw error!\n";
    const struct {
        std::string fault, end; // the last message
        const char* told = "";  // before it
    } rows[] = {
        {"realpath #1 EACCES", NO_SIZE, "GetFwSize,line=100: get real path fail\n"},
        {"access /vendor/firmware/real.bin ENOENT", NO_SIZE,
         "GetFwSize,line=104: ufsFwFilePath not exist!\n"},
        {"open /vendor/firmware/real.bin #1 EACCES", NO_SIZE,
         "GetFwSize,line=109: could not open ufs firmware file /vendor/firmware/real.bin "
         "(fd=-1)\n"},
        {"lseek EIO", NO_SIZE},
        {"lseek returns=0", NO_SIZE},
        {"lseek returns=2147483647", noMemory},
        {"lseek returns=2147483648", NO_SIZE},
        {"lseek returns=4294967364", NO_SIZE}, // 4 GiB and the size
        {"realpath #2 EACCES", noRead, "UfsFwRead,line=129: get real path fail\n"},
        {"open /vendor/firmware/real.bin #2 EACCES", noRead,
         "UfsFwRead,line=134: could not open ufs firmware file "
         "/vendor/firmware/ufs_emer_fw.bin (fd=-1)\n"},
        {"read /vendor/firmware/real.bin short=67", noRead,
         "UfsFwRead,line=139: firmware file read error (ret=67)\n"},
        {"read /proc/bootdevice/manfid EIO", NO_DEVICE,
         "ReadUfsInfo,line=172: read_ufs_info UFS_MID read error!\n"
         "GetUfsLocalDevInfo,line=187: read manufacture ID error!\n"},
        {"open /proc/bootdevice/product_name #2 ENOENT", NO_DEVICE,
         "ReadUfsInfo,line=166: UFS_PNM fd fail!\n"
         "GetUfsLocalDevInfo,line=192: read product name error!\n"},
        {"open /proc/bootdevice/rev #2 ENOENT", NO_DEVICE,
         "ReadUfsInfo,line=166: UFS_PRODUCT_REV_PATH fd fail!\n"
         "GetUfsLocalDevInfo,line=199: read_ufs_info read error!\n"},
        {"creat ENOSPC", NOT_NEEDED,
         "SaveFwBodyToFile,line=273: can't create /data/vendor/fw/ufs_fw_body.bin\n"},
        {"write /data/vendor/fw/ufs_fw_body.bin short=3", NOT_NEEDED,
         "SaveFwBodyToFile,line=279: wirte UFS_FW_BODY_TMP fail\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        Make(UfsPhone(), {{"/vendor/firmware/real.bin", UfsEntry()}});
        std::filesystem::create_symlink("real.bin", Path(UFS_PACKAGE));
        const RunResult run = Run({row.fault, row.end == noMemory ? "calloc ENOMEM" : ""});
        ExpectEnd(Console(run), row.told + row.end);
        EXPECT_EQ(Left(), NOTHING);
    }
}

TEST_F(UfsTest, IdentityIsWhatTheNodesYield) {
    const std::string model = "KLUEG8U1EM-B0B1!", reworked = "KLUEG8U1EM-REWK";
    const std::string renamed = "UpdateProductName,line=155: productName after update: ";
    const std::string node = "read /proc/bootdevice/", size = "ufsFwSize=0x112\n";
    // The entry for the name that a reworked device had is passed over.
    const std::string package = With(UfsEntry("1000"), UFS_PNM_FIELD, model) +
                                With(UfsEntry("1000", "rework"), UFS_PNM_FIELD, reworked) +
                                With(UfsEntry(), UFS_PNM_FIELD, "SIM\n") + UfsEntry();
    const struct {
        Overrides phone;
        std::string fault, identity, left = PASS;
    } rows[] = {
        {{{"manfid", "''"}}, "", Identity(""), NOTHING},
        {{}, node + "product_name #2 short=5", Identity(UFS_MID, "SIMUF")},
        {{{"product_name", "\"SIM\\n\""}},
         node + "rev #2 short=2",
         Identity(UFS_MID, "SIM\n", "08")},
        {{{"product_name", "'" + model + "'"}, {"revision", "'0900'"}},
         "",
         renamed + reworked + "\n" + Identity(UFS_MID, reworked, "0900")},
    };
    for (const auto& row : rows) {
        Make(UfsPhone(row.phone), {{UFS_PACKAGE, package}});
        EXPECT_EQ(Count(Console(Run({row.fault})), size + row.identity), 1);
        EXPECT_EQ(Left(), row.left);
    }
    EXPECT_EQ(Get("/device/downloaded.bin"), "rework");
}

TEST(UfsIdentity, ReworkedModelGetsItsNameFromRevision09On) {
    const auto renamed = [](const std::string& pnm, const std::string& rev) {
        UfsFwHeader device = Header(UFS_MID, pnm, rev);
        UpdateProductName(device);
        return std::string(std::begin(device.ufsPnm), std::end(device.ufsPnm));
    };
    const std::string model = "KLUEG8U1EM-B0B1X", reworked("KLUEG8U1EM-REWK", 16);
    for (const char* rev : {"0900", "09", "0:00", "0\xFF", "1000", "\xFF", "/900"}) {
        EXPECT_EQ(renamed(model, rev), reworked) << rev;
    }
    for (const char* rev : {"0800", "08\xFF\xFF", "/899", ""}) {
        EXPECT_EQ(renamed(model, rev), model) << rev;
    }
    for (const char* pnm : {"KLUEG8U1EM-B0B2X", "kLUEG8U1EM-B0B1X", " KLUEG8U1EM-B0B1"}) {
        EXPECT_EQ(renamed(pnm, "0900"), pnm);
    }
}

TEST(UfsSelection, ManufacturerIsExactAndNameLenient) {
    const std::string name = "SIMUFS128G-B0B1X", blanks("SIM \r\n\0 8G-B0B1X", 16);
    const auto matches = [](const std::string& pnm, const std::string& entryPnm,
                            const std::string& entryMid = UFS_MID) {
        return UfsEntryMatches(Header(UFS_MID, pnm, ""), Header(entryMid, entryPnm, ""));
    };
    for (const std::string& other : {name, blanks, blanks.substr(0, 9), std::string()}) {
        EXPECT_TRUE(matches(name, other) && matches(other, name)) << other;
    }
    // Nothing is shifted, and a tab is no blank.
    for (const char* other :
         {"SIMUFS128G-B0B1Y", "TIMUFS128G-B0B1X", "SIM\tFS128G-B0B1X", " SIMUFS128G-B0B1"}) {
        EXPECT_FALSE(matches(name, other) || matches(other, name)) << other;
    }
    for (const char* mid : {"0x0001cf", "1x0001ce", "0x0001c "}) {
        EXPECT_FALSE(matches(name, name, mid)) << mid;
    }
    const std::string one("0x1ce\0\0A", 8), two("0x1ce\0\0B", 8); // bytes, not text
    EXPECT_TRUE(UfsEntryMatches(Header(one, name, ""), Header(one, name, "")));
    EXPECT_FALSE(UfsEntryMatches(Header(one, name, ""), Header(two, name, "")));
}

TEST(UfsSelection, RevisionsAreComparedAsFourBytes) {
    const std::string zero("08\0\x01", 4);
    const std::string ascending[] = {"0799", "08", zero, "0800", "0801", "0\x80"};
    for (const std::string& one : ascending) {
        for (const std::string& other : ascending) {
            const UfsFwHeader device = Header("", "", one), entry = Header("", "", other);
            EXPECT_EQ(FwVerCheck(device, entry), &one < &other ? 0 : -1) << one << other;
        }
    }
}

TEST_F(UfsTest, FirstEntryForTheDeviceIsSavedAndJudged) {
    const std::string newer = "FwVerCheck,line=256: firmware match, but ufs_fw_rev not equal\n";
    const std::string older = "FwVerCheck,line=248: can not update fw to a lower fw_rev\n";
    const std::string equal = "FwVerCheck,line=253: firmware match, but ufs_fw_rev equal\n";
    const std::string none = PASS_OVER + "GetUfsFwFromFwBin,line=331: firmware not match\n";
    const std::string old = "an older, longer body";
    // The pre-check takes the lure, by its name; the update does not, by its manufacturer.
    const std::string lure = With(UfsEntry("0900", "x"), UFS_MID_FIELD, "0x0001ad");
    const std::string inHeader = With(lure, UFS_BASE_FIELD, "080008000800UFSM").substr(0, 64);
    const std::string tooLong = With(UfsEntry("0801", ""), UFS_SIZE_FIELD, BigEndian32(69));
    const struct {
        const char* name;
        std::string package, told, saved = "body";
    } rows[] = {
        {"first of two", UfsEntry("0700") + UfsEntry("0900", "other"), older},
        {"equal", lure + UfsEntry("0800"), equal},
        {"none", lure, none, old},
        {"in a header", inHeader + UfsEntry().substr(4), newer},
        {"behind a body cut off", tooLong + UfsEntry(), newer},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Make(UfsPhone(), {{UFS_PACKAGE, row.package}, {BODY_FILE, old}});
        const RunResult run = Run({"remove " + BODY_FILE + " EROFS"}); // neither before nor after
        EXPECT_EQ(Count(Console(run), row.told), 1);
        ExpectEnd(Console(run), row.told == newer ? Verdict(0) : NOT_NEEDED);
        EXPECT_EQ(Get(BODY_FILE), row.saved);
        EXPECT_EQ(Count(Console(run), "SaveFwBodyToFile,line=268: "), 0); // the old one went
    }
}

} // namespace
