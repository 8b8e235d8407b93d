// The UFS update: identity, selection, download, trigger test, verdict. A failure here means a
// phone that gets a firmware not meant for it, gets it in part, or is told a false outcome.
#include "test/phone.h"

#include "simphone/files.h"
#include "ufs/ufs_identity.h"
#include "ufs/ufs_selection.h"
#include "ufs/ufs_update.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <scsi/sg_lib.h>
#include <sys/stat.h>

namespace {

class UfsTest : public PhoneTest {};

const std::string PASS = "ffu.end ffu.ok fw_result";
const std::string FAIL = "ffu.bgn ffu.fail fw_result";
const std::string NOTHING = "ffu.end fw_result";
const std::string BODY_FILE = "/data/vendor/fw/ufs_fw_body.bin";
const std::string TRIGGER_FILE = "/splash2/test_ffu_trigger.tmp";
constexpr size_t TRANSFER_SIZE = 8388608;

// The console without stamps; each request that the device got is a line of its own, at its place.
std::string Story(RunResult run) {
    std::for_each(run.requests.rbegin(), run.requests.rend(), [&](const DeviceRequest& request) {
        run.console.insert(static_cast<size_t>(request.consoleBytes), request.text + "\n");
    });
    return ConsoleText(run);
}

std::string Times128(const std::string& text) {
    std::string repeated;
    for (int i = 0; i < 128; i++) {
        repeated += text;
    }
    return repeated;
}

std::string HexNumber(size_t number) {
    std::ostringstream text;
    text << "0x" << std::hex << number;
    return text.str();
}

// What the run did, in order: each file's name with the successive calls on it, and between them
// the calls without a path. Nothing of clocks, nor what the SCSI library asks the kernel for.
Texts Course(const RunResult& run) {
    static const Texts skipped = {"gettimeofday", "localtime", "time", "ctime", "fstat"};
    Texts course;
    std::string path;
    for (const CallEntry& call : run.calls) {
        if (Count(skipped, call.function) > 0 || call.path == "/proc/devices") {
            continue;
        }
        std::string step = " " + call.function;
        const int flags =
            call.function == "open" ? std::stoi(call.arguments.substr(6), nullptr, 16) : 0;
        if ((flags & O_DIRECT) != 0) {
            step += "-direct-" + HexNumber(static_cast<size_t>(flags & ~O_DIRECT));
        }
        if (call.path == "-") {
            step = step.substr(1) + " " + call.arguments;
            course.push_back(
                step.substr(0, std::min(step.find(" count="), step.find(" pointer="))));
        } else if (call.path == path) {
            course.back() += step;
        } else {
            course.push_back(call.path.substr(call.path.rfind('/') + 1) + ":" + step);
        }
        path = call.path;
    }
    for (std::string& entry : course) {
        for (const std::string step : {" write", " read"}) {
            const size_t burst = entry.find(Times128(step));
            if (burst != std::string::npos) {
                entry.replace(burst, 128 * step.size(), " 128 x" + step);
            }
        }
    }
    return course;
}

const std::string TRIGGER_BUFFER = "posix_memalign alignment=4096 size=8192";
const std::string TRIGGER_WRITES = "test_ffu_trigger.tmp: open-direct-0x41"; // to write, create
const std::string TRIGGER_READS = " open-direct-0x40";                       // to read, create
const std::string TRIGGER_BURSTS =
    TRIGGER_WRITES + " 128 x write fsync close" + TRIGGER_READS + " 128 x read close";
const Texts WHOLE_TRIGGER = {TRIGGER_BUFFER, TRIGGER_BURSTS, "sleep seconds=5",
                             "test_ffu_trigger.tmp: remove"};

// The trigger test's part of the course.
Texts TriggerCourse(const RunResult& run) {
    const Texts course = Course(run);
    const auto begin = std::find(course.begin(), course.end(), TRIGGER_BUFFER);
    return {begin, std::find(begin, course.end(), "free")};
}

// The parts of an expected story.

std::string PackageSize(size_t size) {
    return "GetFwSize,line=118: ufsFwSize=" + HexNumber(size) + "\n";
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

std::string Find(int number, size_t size) {
    return "GetUfsFwFromFwBin,line=316: ufs fw find, fwNum=" + std::to_string(number) +
           ", fwSize=" + HexNumber(size) + "\n";
}
std::string PassOver(int number, size_t size) {
    return Find(number, size) + "GetUfsFwFromFwBin,line=326: firmware not match\n";
}
const std::string NONE = "GetUfsFwFromFwBin,line=331: firmware not match\n";

const std::string NEWER = "FwVerCheck,line=256: firmware match, but ufs_fw_rev not equal\n";
const std::string OLDER = "FwVerCheck,line=248: can not update fw to a lower fw_rev\n";
const std::string EQUAL = "FwVerCheck,line=253: firmware match, but ufs_fw_rev equal\n";
const std::string NO_OLD_BODY = "SaveFwBodyToFile,line=268: SaveFwBodyToFile unlink "
                                "/data/vendor/fw/ufs_fw_body.bin failed, maybe not exist\n";
const std::string NOT_NEEDED = "UfsFfu,line=481: ufs not need update...\n";
const std::string SAVED = "SaveFwBodyToFile,line=282: wirte UFS_FW_BODY_TMP success\n";

std::string Take(int number, size_t bodyOffset, size_t size, const std::string& verdict = NEWER,
                 const std::string& saving = NO_OLD_BODY + SAVED) {
    return Find(number, size) +
           "GetUfsFwFromFwBin,line=320: ufsCurrentFwOffset=" + HexNumber(bodyOffset) +
           "\nGetUfsFwFromFwBin,line=321: ufsCurrentFwSize=" + HexNumber(size) +
           "\nGetUfsFwFromFwBin,line=322: firmware file match\n" + verdict +
           "GetUfsFwFromFwBin,line=335: Save fw body to file ...\n" + saving;
}
const std::string UP_TO_DOWNLOAD = PackageSize(68) + Identity() + Take(1, 0x40, 4);

const std::string BEGIN =
    "ufs_ffu_write_buffer,line=288: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT begin to execute!\n";
const std::string BEGIN_S = "ufs_ffu_write_buffer,line=260: device: S******\n" + BEGIN;
const std::string END = "ufs_ffu_write_buffer,line=428: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT done!\n";

// A body of this length is read and its command goes out; without an answer it does not.
std::string Send(size_t length, const std::string& answer) {
    const std::string size = std::to_string(length);
    const std::string cdb = "\x3b\x0e" + std::string(4, '\0') +
                            BigEndian32(static_cast<uint32_t>(length)).substr(1) + '\0';
    std::string said;
    if (length < TRANSFER_SIZE) {
        said = "ufs_ffu_write_buffer,line=372: tried to read 8388608 bytes from " + BODY_FILE +
               ", got " + size + " bytes\nufs_ffu_write_buffer,line=373: will write " + size +
               " bytes\nufs_ffu_write_buffer,line=378: \n";
    }
    said += "ufs_ffu_write_buffer,line=414: sending single write buffer, mode=0xe, mpsec=0, id=0, "
            "offset=0, len=" +
            size + "\nsg_ll_write_buffer_v2,line=157:     Write buffer cmd: \n";
    for (const char byte : cdb) {
        said += "sg_ll_write_buffer_v2,line=159: " + Hex(&byte, 1) + " \n";
    }
    said += "sg_ll_write_buffer_v2,line=160: \n";
    return answer.empty() ? said
                          : said + "SG_IO WRITE BUFFER cdb=" + Hex(cdb.data(), cdb.size()) +
                                " data=" + size + " timeout=300000ms -> " + answer + "\n";
}

// The words for a category are the SCSI library's own, at verbosity 1.
std::string Refused(int status) {
    char words[80] = "Sense category: -1";
    if (status != -1) {
        sg_get_category_sense_str(status, sizeof(words), words, 1);
    }
    return std::string("ufs_ffu_write_buffer,line=424: Write buffer failed: ") + words + "\n";
}
const std::string ASK_RESET = "scsi_reset,line=204: reset after ffu fail, reset type = 3\n";
const std::string RESET = ASK_RESET + "SG_SCSI_RESET type=3 -> 0\n";
const std::string TRIGGER = "FileWriteForTrigger,line=361: trigger test begin\n";

std::string Verdict(int code) {
    return "DoUfsFfu,line=431: ufs firmware update ret code = " + std::to_string(code) + "\n" +
           (code == 0 ? "DoUfsFfu,line=433: ufs firmware update success...\n"
                      : "DoUfsFfu,line=435: ufs firmware update fail...\n");
}

TEST_F(UfsTest, OneTypicalRunInItsNineSteps) {
    const std::string body = Body(0x1A2B4);
    const std::string record = CLOCK_TEXT + "product name:SIMUFS128G-B0B1 , current fw version:";
    const std::string earlier = record + "0700, upgrading to version:0800\n";
    Make(UfsPhone(),
         {{UFS_PACKAGE, With(UfsEntry("0900", body), UFS_BASE_FIELD, "0700075008000850")},
          {STATE + "/fw_result", earlier},
          {STATE + "/ffu.ok", "old"},
          {STATE + "/ffu.end", ""}});
    const RunResult run = Run();
    EXPECT_EQ(run.exitStatus, 0);
    const std::string log = "__android_log_print ";
    const Texts course = {
        // 1. The flags say that a run has begun.
        "fw: access", "ffu.end: remove", "ffu.bgn: open close",
        // 2. The device is UFS; its name, its revision.
        "sdc: access", "product_name: open read close", "rev: open read close",
        // 3. The package holds another revision, which may follow the one that runs.
        "ufs_emer_fw.bin: access open mmap", "munmap", "ufs_emer_fw.bin: close", log, log, log,
        // 4. It was not attempted yet; now the attempt is on record.
        "fw_result: access fopen fgets fgets fgets fclose", "ffu.ok: access", log, log,
        "fw_result: open write close",
        // 5. What the last update left is cleared.
        "ffu.ok: remove", "ffu.fail: remove", "ufs_fw_body.bin: remove",
        // 6. The whole package, the device's record, the entry again, its body in a file.
        "ufs_emer_fw.bin: realpath access open lseek close", "calloc",
        "ufs_emer_fw.bin: realpath open read close", "manfid: open read close",
        "product_name: open read close", "rev: open read close",
        "ufs_fw_body.bin: unlink creat write close",
        // 7. The download, and the traffic that the device needs behind it.
        "sdc: open", "memalign alignment=4096 size=8388608", "ufs_fw_body.bin: open read close",
        "calloc", "sdc: ioctl", "free", "free", "sdc: close", TRIGGER_BUFFER, TRIGGER_BURSTS,
        "sleep seconds=5", "test_ffu_trigger.tmp: remove", "free", "free",
        // 8. The outcome.
        "ufs_fw_body.bin: remove", log, "ffu.ok: open write close",
        // 9. The flags say that the run has ended.
        "ffu.bgn: remove", "ffu.end: open close"};
    EXPECT_EQ(Course(run), course);
    EXPECT_EQ(Steps(run),
              "CheckFwBin: pnm:SIMUFS128G-B0B1  current:0800, fwBinRev:0900\n"
              "CheckBaseRev: Revision validity check is necessary\n"
              "CheckBaseRev: current rev is valid for update.\n"
              "CheckResultFile: lastBaseRev:0700, lastTargetRev:0800, fwBinRev:0900\n"
              "CheckResultFile: firmware in fw file has not been applied yet, try to update."
              "UpdateResultFlag: update to 0900 pass");
    EXPECT_EQ(Requests(run), Texts{"SG_IO WRITE BUFFER cdb=3b0e0000000001a2b400 data=107188 "
                                   "timeout=300000ms -> GOOD"});
    EXPECT_EQ(Story(run), PackageSize(0x1A2F4) + Identity() + Take(1, 0x40, 0x1A2B4) + BEGIN_S +
                              Send(0x1A2B4, "GOOD") + END + TRIGGER + Verdict(0));
    std::istringstream errors(run.errors); // the host's copy of the system log comes here, too
    for (std::string line; std::getline(errors, line);) {
        EXPECT_TRUE(line.empty() || line.find("FFU process ") != std::string::npos) << line;
    }
    const Files state = {{"ffu.end", ""},
                         {"ffu.ok", CLOCK_TEXT},
                         {"fw_result", earlier + record + "0800, upgrading to version:0900\n"}};
    EXPECT_EQ(State(), state);
    EXPECT_TRUE(Get("/device/downloaded.bin") == body);
    EXPECT_EQ(Get(TRIGGER_FILE), MISSING);

    Reboot();
    const RunResult second = Run();
    EXPECT_EQ(Steps(second), "CheckFwBin: local fw rev 0900 is as new as fwBin\n");
    EXPECT_EQ(second.console, "");
    EXPECT_EQ(State(), state);
}

std::string Refuse(const std::string& answer, int status) {
    return BEGIN_S + Send(4, answer) + Refused(status) + RESET + END;
}
const std::string TAKEN = BEGIN_S + Send(4, "GOOD") + END;
const std::string BUSY = "status 8"; // as requests.log has it
const std::string NOT_CLOSED = "ufs_ffu_write_buffer,line=435: close error: Input/output error\n";

const struct {
    const char* answer; // of the device, to the one command
    std::string fault;
    std::string told; // between selection and trigger test
    int code;
    const char* errors = ""; // on the standard error, among others
} OUTCOMES[] = {
    {"good", "", TAKEN, 0},
    {"sense 0/00/00", "", BEGIN_S + Send(4, "CHECK CONDITION 00/00/00") + END, 0, "Write buffer:"},
    {"sense 1/17/01", "", BEGIN_S + Send(4, "CHECK CONDITION 01/17/01") + END, 0, "Write buffer:"},
    {"descriptor-sense 1/17/01", "", BEGIN_S + Send(4, "CHECK CONDITION 01/17/01") + END, 0},
    {"sense 2/04/01", "", Refuse("CHECK CONDITION 02/04/01", 2), 2, "Write buffer:"},
    {"sense 4/44/00", "", Refuse("CHECK CONDITION 04/44/00", 3), 3},
    {"sense 5/20/00", "", Refuse("CHECK CONDITION 05/20/00", 9), 9},
    {"sense 5/24/00", "", Refuse("CHECK CONDITION 05/24/00", 5), 5},
    {"descriptor-sense 5/24/00", "", Refuse("CHECK CONDITION 05/24/00", 5), 5},
    {"sense 6/29/00", "", Refuse("CHECK CONDITION 06/29/00", 6), 6},
    {"descriptor-sense 6/29/00", "", Refuse("CHECK CONDITION 06/29/00", 6), 6},
    {"sense b/47/03", "", Refuse("CHECK CONDITION 0b/47/03", 11), 11},
    {"status 0x18", "", Refuse("status 24", 24), 24},
    {"status 0x08", "", Refuse(BUSY, 26), 26},
    {"status 0x28", "", Refuse("status 40", 27), 27},
    {"status 0x10", "", Refuse("status 16", -1), 99, "Write buffer:"}, // has no category
    {"host 3", "", Refuse("host status 3", -1), 99, "Write buffer:"},
    {"driver 6", "", Refuse("driver status 6", -1), 99, "Write buffer:"},
    {"good", "SG_IO ENODEV", Refuse("-1 ENODEV", -1), 99, "Write buffer"},
    {"good", "calloc #2 ENOMEM", // of the SCSI library, for its object
     BEGIN_S + Send(4, "") +
         "sg_ll_write_buffer_v2,line=171: sg_ll_write_buffer_v2: out of memory\n" + Refused(-1) +
         RESET + END,
     99},
    {"good", "memalign ENOMEM",
     BEGIN_S + "ufs_ffu_write_buffer,line=320: sg_write_buffer: out of memory\n", 1},
    {"good", "open /dev/block/sdc ENXIO",
     BEGIN_S + "ufs_ffu_write_buffer,line=313: sg_write_buffer: open error: /dev/block/sdc: No "
               "such device or address\n",
     15},
    {"good", "open " + BODY_FILE + " EACCES", BEGIN_S, 15,
     "sg_write_buffer: could not open /data/vendor/fw/ufs_fw_body.bin for reading: Permission "
     "denied\n"},
    {"good", "read " + BODY_FILE + " EIO", BEGIN_S, 15,
     "sg_write_buffer: couldn't read from /data/vendor/fw/ufs_fw_body.bin: Input/output error\n"},
    {"good", "close /dev/block/sdc EIO", TAKEN + NOT_CLOSED, 15},
    {"status 0x08", "close /dev/block/sdc EIO", Refuse(BUSY, 26) + NOT_CLOSED, 26},
    {"status 0x08", "SG_SCSI_RESET EBUSY",
     BEGIN_S + Send(4, BUSY) + Refused(26) + ASK_RESET + "SG_SCSI_RESET type=3 -> -1 EBUSY\n" +
         "scsi_reset,line=207: sg_reset fail, ret = -1\n" + END,
     26},
};

// Whatever the outcome: at most one command is sent, and the whole trigger test follows.
TEST_F(UfsTest, EveryOutcomeOfADownload) {
    for (const auto& row : OUTCOMES) {
        SCOPED_TRACE(row.answer + (" " + row.fault));
        Make(UfsPhone({{"write_buffer", "'" + std::string(row.answer) + "'"}}),
             {{UFS_PACKAGE, UfsEntry()}});
        const RunResult run = Run({row.fault});
        EXPECT_EQ(run.exitStatus, 0);
        EXPECT_EQ(Story(run), UP_TO_DOWNLOAD + row.told + TRIGGER + Verdict(row.code));
        EXPECT_EQ(TriggerCourse(run), WHOLE_TRIGGER);
        EXPECT_NE(run.errors.find(row.errors), std::string::npos) << run.errors;
        EXPECT_EQ(Left(), row.code == 0 ? PASS : FAIL);
        EXPECT_EQ(
            Count(SystemLog(run), row.code == 0 ? "update to 0900 pass" : "upgrade to 0900 fail"),
            1);
    }
}

TEST_F(UfsTest, OneManufacturersHostIsResetAfterAFailure) {
    const std::string unknown = "281: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT MID_UNKNOWN, use default !";
    const Keys makers = {{"0x0001ad", "250: device: H****"},
                         {"0x000198", "255: device: T******"},
                         {"0x0001ce", "260: device: S******"},
                         {"0x00012c", "266: device: M*****"},
                         {"0x0008b6", "271: device: KQ****"},
                         {"0x000145", "276: device: SAN****"},
                         {"0x0001CE", unknown},
                         {"0x0001cf", unknown},
                         {"0x1ce\n", unknown}};
    for (const auto& [mid, message] : makers) {
        SCOPED_TRACE(mid);
        Make(UfsPhone({{"manfid", "'''" + mid + "'''"}, {"write_buffer", "'status 0x08'"}}),
             {{UFS_PACKAGE, With(UfsEntry(), UFS_MID_FIELD, mid)}});
        EXPECT_EQ(Story(Run()), PackageSize(68) + Identity(mid) + Take(1, 0x40, 4) +
                                    "ufs_ffu_write_buffer,line=" + message + "\n" + BEGIN +
                                    Send(4, BUSY) + Refused(26) + (mid == UFS_MID ? RESET : "") +
                                    END + TRIGGER + Verdict(26));
    }
}

TEST_F(UfsTest, OneCommandCarriesTheBodyUpTo8MiB) {
    for (const size_t size : {size_t{0}, size_t{1}, TRANSFER_SIZE, TRANSFER_SIZE + 1}) {
        SCOPED_TRACE(size);
        const std::string body = Body(size);
        Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry(UFS_NEW_REV, body)}});
        EXPECT_EQ(Story(Run()), PackageSize(size + 64) + Identity() + Take(1, 0x40, size) +
                                    BEGIN_S + Send(std::min(size, TRANSFER_SIZE), "GOOD") + END +
                                    TRIGGER + Verdict(0));
        EXPECT_TRUE(Get("/device/downloaded.bin") ==
                    (size == 0 ? MISSING : body.substr(0, TRANSFER_SIZE)));
    }
}

// No step of the trigger test keeps another one from its turn, or changes the verdict.
TEST_F(UfsTest, TriggerTestGoesItsWay) {
    const std::string write = "FileWriteForTrigger,line=369: trigger write error! ret = ";
    const std::string read = "FileReadForTrigger,line=390: trigger read error! ret = ";
    const struct {
        std::string fault, told;
        Texts course = WHOLE_TRIGGER;
    } rows[] = {
        {"posix_memalign ENOMEM",
         "FfuFlashFileForTrigger,line=411: memalign testBufTrigger fail\n",
         {TRIGGER_BUFFER}},
        {"open " + TRIGGER_FILE + " #1 EROFS",
         "FileWriteForTrigger,line=358: Open " + TRIGGER_FILE + " WR fail,Test Fail Exit!\n" +
             Times128(read + "0\n"),
         {TRIGGER_BUFFER, TRIGGER_WRITES + TRIGGER_READS + " 128 x read close", "sleep seconds=5",
          "test_ffu_trigger.tmp: remove"}},
        {"open " + TRIGGER_FILE + " #2 EROFS",
         TRIGGER + "FileReadForTrigger,line=384: Open " + TRIGGER_FILE +
             " RD fail,Test Fail Exit!\n",
         {TRIGGER_BUFFER, TRIGGER_WRITES + " 128 x write fsync close" + TRIGGER_READS + " remove"}},
        {"write " + TRIGGER_FILE + " #128 short=4096",
         TRIGGER + write + "4096\n" + read + "4096\n"},
        {"write " + TRIGGER_FILE + " ENOSPC",
         TRIGGER + Times128(write + "-1\n") + Times128(read + "0\n")},
        {"read " + TRIGGER_FILE + " EIO", TRIGGER + Times128(read + "-1\n")},
        {"remove " + TRIGGER_FILE + " EROFS",
         TRIGGER + "RemoveTriggerFile,line=400: remove trigger file error " + TRIGGER_FILE + "\n"},
    };
    const mode_t mask = umask(0);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry()}});
        const RunResult run = Run({row.fault});
        EXPECT_EQ(Story(run), UP_TO_DOWNLOAD + TAKEN + row.told + Verdict(0));
        EXPECT_EQ(TriggerCourse(run), row.course);
        EXPECT_EQ(Left(), PASS);
    }
    umask(mask);
    // The last run could not remove its file.
    EXPECT_TRUE(Get(TRIGGER_FILE) == std::string(128 * 8192, 'Z'));
    EXPECT_EQ(static_cast<int>(std::filesystem::status(Path(TRIGGER_FILE)).permissions()), 0755);
}

TEST_F(UfsTest, NothingIsAppliedAfterAnEarlyFailure) {
    const auto expect = [&](const Texts& faults, const std::string& story) {
        SCOPED_TRACE(faults[0]);
        Make(UfsPhone(), {{"/vendor/firmware/real.bin", UfsEntry()}});
        std::filesystem::create_symlink("real.bin", Path(UFS_PACKAGE));
        const RunResult run = Run(faults);
        EXPECT_EQ(run.exitStatus, 0);
        EXPECT_EQ(Story(run), story);
        EXPECT_EQ(TriggerCourse(run), Texts{});
        EXPECT_EQ(Left(), NOTHING);
    };
    for (const auto& [fault, told] :
         Keys{{"realpath #1 EACCES", "GetFwSize,line=100: get real path fail\n"},
              {"access /vendor/firmware/real.bin ENOENT",
               "GetFwSize,line=104: ufsFwFilePath not exist!\n"},
              {"open /vendor/firmware/real.bin #1 EACCES",
               "GetFwSize,line=109: could not open ufs firmware file /vendor/firmware/real.bin "
               "(fd=-1)\n"},
              {"lseek EIO", ""},
              {"lseek returns=0", ""},
              {"lseek returns=2147483648", ""},
              {"lseek returns=4294967364", ""}}) { // 4 GiB and the size
        expect({fault}, told + "UfsFfu,line=461: Get fw size error!\n");
    }
    expect({"lseek returns=2147483647", "calloc ENOMEM"},
           PackageSize(0x7FFFFFFF) +
               "UfsFfu,line=466: could calloc buffer (ufsFwSize=2147483647)\n");
    for (const auto& [fault, told] :
         Keys{{"realpath #2 EACCES", "129: get real path fail"},
              {"open /vendor/firmware/real.bin #2 EACCES",
               "134: could not open ufs firmware file /vendor/firmware/ufs_emer_fw.bin (fd=-1)"},
              {"read /vendor/firmware/real.bin short=67", "139: firmware file read error (ret=67)"},
              {"read /vendor/firmware/real.bin EIO", "139: firmware file read error (ret=-1)"}}) {
        expect({fault}, PackageSize(68) + "UfsFwRead,line=" + told +
                            "\nUfsFfu,line=470: Read ufs fw error!\n");
    }
    const struct {
        std::string node, label, told;
    } nodes[] = {{"manfid #1", "UFS_MID", "187: read manufacture ID error!"},
                 {"product_name #2", "UFS_PNM", "192: read product name error!"},
                 {"rev #2", "UFS_PRODUCT_REV_PATH", "199: read_ufs_info read error!"}};
    for (const auto& [node, label, told] : nodes) {
        const std::string end = "\nGetUfsLocalDevInfo,line=" + told +
                                "\nUfsFfu,line=475: get ufs local device info fail!\n";
        expect({"open /proc/bootdevice/" + node + " ENOENT"},
               PackageSize(68) + "ReadUfsInfo,line=166: " + label + " fd fail!" + end);
        expect({"read /proc/bootdevice/" + node + " EIO"},
               PackageSize(68) + "ReadUfsInfo,line=172: read_ufs_info " + label + " read error!" +
                   end);
    }
    for (const auto& [fault, told] :
         Keys{{"creat ENOSPC", "273: can't create " + BODY_FILE},
              {"write " + BODY_FILE + " short=3", "279: wirte UFS_FW_BODY_TMP fail"},
              {"write " + BODY_FILE + " ENOSPC", "279: wirte UFS_FW_BODY_TMP fail"}}) {
        const std::string saving = NO_OLD_BODY + "SaveFwBodyToFile,line=" + told + "\n";
        expect({fault},
               PackageSize(68) + Identity() + Take(1, 0x40, 4, NEWER, saving) + NOT_NEEDED);
    }
}

TEST_F(UfsTest, IdentityIsWhatTheNodesYield) {
    const auto expect = [&](const Keys& phone, const std::string& package, const std::string& fault,
                            const std::string& identity, const std::string& left) {
        SCOPED_TRACE(identity);
        Make(UfsPhone(phone), {{UFS_PACKAGE, package}});
        const std::string expected = PackageSize(package.size()) + identity;
        EXPECT_EQ(Story(Run({fault})).substr(0, expected.size()), expected);
        EXPECT_EQ(Left(), left);
    };
    const std::string entry = UfsEntry();
    const std::string name = "read /proc/bootdevice/product_name #2 ";
    expect({{"manfid", "''"}}, entry, "", Identity(""), NOTHING);
    expect({{"manfid", "'0x0001cef'"}}, entry, "", Identity(), PASS);
    expect({{"product_name", "'SIMUFS128G-B0B1 B2'"}}, entry, "", Identity(), PASS);
    expect({}, entry, name + "short=0", Identity(UFS_MID, ""), PASS);
    expect({}, entry, name + "short=5", Identity(UFS_MID, "SIMUF"), PASS);
    expect({}, entry, "read /proc/bootdevice/rev #2 short=0", Identity(UFS_MID, UFS_PNM, ""), PASS);
    expect({{"product_name", "\"SIM\\n\""}}, With(entry, UFS_PNM_FIELD, "SIM\n"),
           "read /proc/bootdevice/rev #2 short=2", Identity(UFS_MID, "SIM\n", "08"), PASS);
    // The entry for the name that the device had is passed over.
    expect({{"product_name", "'KLUEG8U1EM-B0B1!'"}, {"revision", "'0900'"}},
           With(UfsEntry("1000", "usual"), UFS_PNM_FIELD, "KLUEG8U1EM-B0B1!") +
               With(UfsEntry("1000", "rework"), UFS_PNM_FIELD, "KLUEG8U1EM-REWK"),
           "",
           "UpdateProductName,line=155: productName after update: KLUEG8U1EM-REWK\n" +
               Identity(UFS_MID, "KLUEG8U1EM-REWK", "0900") + PassOver(1, 5) + Take(2, 0x85, 6),
           PASS);
    EXPECT_EQ(Get("/device/downloaded.bin"), "rework");
}

UfsFwHeader Header(const std::string& mid, const std::string& pnm, const std::string& rev) {
    const std::string entry = With(With(UfsEntry(rev), UFS_MID_FIELD, mid), UFS_PNM_FIELD, pnm);
    UfsFwHeader header;
    memcpy(&header, entry.data(), sizeof(header));
    return header;
}

TEST(UfsIdentity, ReworkedModelGetsItsNameFromRevision09On) {
    const auto renamed = [](const std::string& pnm, const std::string& rev) {
        UfsFwHeader device = Header(UFS_MID, pnm, rev);
        UpdateProductName(device);
        return std::string(std::begin(device.ufsPnm), std::end(device.ufsPnm));
    };
    for (const char* rev : {"0900", "09", "0:00", "0\xFF", "1000", "A000", "\xFF", "/900"}) {
        for (const char* pnm : {"KLUEG8U1EM-B0B1", "KLUEG8U1EM-B0B1 ", "KLUEG8U1EM-B0B1X"}) {
            EXPECT_EQ(renamed(pnm, rev), std::string("KLUEG8U1EM-REWK", 16)) << pnm << rev;
        }
    }
    for (const char* rev : {"0800", "08\xFF\xFF", "/899", ""}) {
        EXPECT_EQ(renamed("KLUEG8U1EM-B0B1X", rev), "KLUEG8U1EM-B0B1X") << rev;
    }
    for (const char* pnm : {"KLUEG8U1EM-B0B2X", "kLUEG8U1EM-B0B1X", " KLUEG8U1EM-B0B1"}) {
        EXPECT_EQ(renamed(pnm, "0900"), pnm);
    }
}

TEST(UfsSelection, ManufacturerIsExactAndNameLenient) {
    const std::string blanks("SIM \r\n\0 8G-B0B1X", 16);
    const auto matches = [](const std::string& pnm, const std::string& entryPnm,
                            const std::string& entryMid = UFS_MID) {
        return UfsEntryMatches(Header(UFS_MID, pnm, UFS_REV),
                               Header(entryMid, entryPnm, UFS_NEW_REV));
    };
    const std::string name = "SIMUFS128G-B0B1X";
    for (const std::string& other : {name, blanks, blanks.substr(0, 9), std::string()}) {
        EXPECT_TRUE(matches(name, other) && matches(other, name)) << other;
    }
    // Nothing is shifted, and a tab is no blank.
    for (const char* other : {"SIMUFS128G-B0B1Y", "TIMUFS128G-B0B1X", "SIM\tFS128G-B0B1X",
                              "SIM       G-B0B2X", " SIMUFS128G-B0B1"}) {
        EXPECT_FALSE(matches(name, other) || matches(other, name)) << other;
    }
    for (const char* mid : {"0x0001cf", "1x0001ce", "0x0001c "}) {
        EXPECT_FALSE(matches(name, name, mid)) << mid;
    }
}

TEST(UfsSelection, RevisionsAreComparedBeyondAZeroByte) {
    const UfsFwHeader first = Header(UFS_MID, UFS_PNM, {"08\0\x01", 4});
    const UfsFwHeader second = Header(UFS_MID, UFS_PNM, {"08\0\x02", 4});
    EXPECT_EQ(FwVerCheck(first, second), 0);
    EXPECT_EQ(FwVerCheck(second, first), -1);
}

// The pre-check takes the lure, by its name; the update does not, by its manufacturer.
const std::string LURE = With(UfsEntry(UFS_NEW_REV, "x"), UFS_MID_FIELD, "0x0001ad"); // 65 bytes

std::string TakeSecond(const std::string& verdict) {
    return PassOver(1, 1) + Take(2, 0x81, 4, verdict);
}

const struct {
    const char* name;
    std::string package;
    std::string story; // of the selection
    std::string saved = "body";
} SELECTIONS[] = {
    {"first of two", UfsEntry("0801", "one") + UfsEntry("0900", "two"), Take(1, 0x40, 3), "one"},
    {"first of two, although older", UfsEntry("0700", "old") + UfsEntry("0900", "two"),
     Take(1, 0x40, 3, OLDER), "old"},
    {"equal", LURE + UfsEntry("0800", "same") + UfsEntry(), TakeSecond(EQUAL), "same"},
    {"newer in the last byte", LURE + UfsEntry("0801"), TakeSecond(NEWER)},
    {"newer by the first byte that differs", LURE + UfsEntry("0810"), TakeSecond(NEWER)},
    {"older by the first byte that differs", LURE + UfsEntry("0799"), TakeSecond(OLDER)},
    {"newer by an unsigned byte", LURE + UfsEntry("0\x80"), TakeSecond(NEWER)},
    {"none for the device", LURE + With(UfsEntry(), UFS_PNM_FIELD, "OTHER"),
     PassOver(1, 1) + PassOver(2, 4) + NONE, MISSING},
    {"one whose name has blanks", LURE + With(UfsEntry(), UFS_PNM_FIELD, "SIM       -B0B1X"),
     TakeSecond(NEWER)},
    {"entry in a body", With(UfsEntry("0900", UfsEntry()), UFS_MID_FIELD, "0x0001ad"),
     PassOver(1, 68) + Take(2, 0x80, 4)},
    {"entry from a header on",
     With(LURE, UFS_BASE_FIELD, "080008000800UFSM").substr(0, 64) + UfsEntry().substr(4),
     PassOver(1, 1) + Take(2, 0x7C, 4)},
    {"magic in a body", LURE + "UFSM" + std::string(64, '\0') + UfsEntry(),
     PassOver(1, 1) + PassOver(2, 0) + Take(3, 0xC5, 4)},
    {"body a byte beyond the end",
     With(UfsEntry("0801", ""), UFS_SIZE_FIELD, BigEndian32(69)) + UfsEntry(),
     PassOver(1, 69) + Take(2, 0x80, 4)},
    {"body of 4 GiB", With(UfsEntry("0801", ""), UFS_SIZE_FIELD, "\xFF\xFF\xFF\xFF") + UfsEntry(),
     PassOver(1, 0xFFFFFFFF) + Take(2, 0x80, 4)},
    {"header a byte beyond the end", LURE + UfsEntry().substr(0, 63), PassOver(1, 1) + NONE,
     MISSING},
    {"bytes before the first", "UFS" + UfsEntry(), Take(1, 0x43, 4)},
};

TEST_F(UfsTest, FirstEntryForTheDeviceIsSavedAndJudged) {
    for (const auto& row : SELECTIONS) {
        SCOPED_TRACE(row.name);
        Make(UfsPhone(), {{UFS_PACKAGE, row.package}});
        // The body file outlives the run.
        const std::string story = Story(Run({"remove " + BODY_FILE + " #2 EROFS"}));
        const size_t begin = std::min(story.find("GetUfsFwFromFwBin"), story.size());
        const bool newer = row.story.find(NEWER) != std::string::npos;
        const std::string end = newer ? BEGIN_S : NOT_NEEDED;
        EXPECT_EQ(story.substr(begin, row.story.size() + end.size()), row.story + end);
        EXPECT_EQ(Get(BODY_FILE), row.saved);
        EXPECT_EQ(Get("/device/downloaded.bin"), newer ? row.saved : MISSING);
    }
}

TEST_F(UfsTest, BodyFileIsReplacedWhole) {
    const std::string keep = "remove " + BODY_FILE + " EROFS"; // before and after the update
    const mode_t mask = umask(0);
    for (const auto& [fault, told] : Keys{{"", SAVED}, {"unlink EPERM", NO_OLD_BODY + SAVED}}) {
        Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry()}, {BODY_FILE, "an older, longer body"}});
        EXPECT_EQ(Story(Run({keep, fault})), PackageSize(68) + Identity() +
                                                 Take(1, 0x40, 4, NEWER, told) + TAKEN + TRIGGER +
                                                 Verdict(0));
        EXPECT_EQ(Get(BODY_FILE), "body");
        EXPECT_EQ(std::filesystem::status(Path(BODY_FILE)).permissions() ==
                      std::filesystem::perms(0777),
                  fault.empty()); // else it is still the old file
    }
    umask(mask);
}

// Arguments that no run has; a workstation has none of the identity nodes.
TEST_F(UfsTest, CalledDirectly) {
    const UfsFwHeader device = Header(UFS_MID, UFS_PNM, UFS_REV);
    const std::string entry = UfsEntry();
    const std::string link = directory + ".missing", file = directory + ".bin";
    const char *missing = link.c_str(), *package = file.c_str();
    ASSERT_TRUE(WriteWholeFile(file, entry.data(), entry.size()));
    EXPECT_STREQ(UfsFwBodyPath(0), "/tmp/ufs_fw_body.bin");

    testing::internal::CaptureStdout();
    for (const int32_t size : {63, 0, -1}) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(entry.data());
        EXPECT_EQ(GetUfsFwFromFwBin(device, bytes, size, 1), -1);
    }
    EXPECT_EQ(UfsFfu(nullptr, package, 1, 1), -2);
    EXPECT_EQ(UfsFfu(package, nullptr, 1, 0), -2);
    EXPECT_EQ(UfsFfu(missing, package, 1, 0), -2);
    EXPECT_EQ(UfsFfu(missing, package, 1, 1), -2);
    RunResult said = {};
    said.console = testing::internal::GetCapturedStdout();
    const std::string noPath = "UfsFfu,line=455: Error: ufsFwFile or ufsBackupFile is NULL\n";
    EXPECT_EQ(Story(said), NONE + NONE + NONE + noPath + noPath +
                               "GetFwSize,line=100: get real path fail\n"
                               "UfsFfu,line=461: Get fw size error!\n" +
                               PackageSize(68) +
                               "ReadUfsInfo,line=166: UFS_MID fd fail!\n"
                               "GetUfsLocalDevInfo,line=187: read manufacture ID error!\n"
                               "UfsFfu,line=475: get ufs local device info fail!\n");
}

} // namespace
