// The simulated device refuses what a device would refuse: a tool that sends it cannot pass its
// rehearsal. A power cut leaves what a file system may leave, and a fault that did nothing is told.
#include "simphone/device/device.h"
#include "simphone/power_loss.h"
#include "simphone/show.h"
#include "test/phone/phone.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sched.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace {

class SimphoneTest : public PhoneTest {
protected:
    RunResult CutGkiUpdate(const Texts& faults, const Files& before) {
        Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
        for (const auto& [name, content] : before) {
            Put(STATE + "/" + name, content);
        }
        return TryRun(faults);
    }

    void ExpectShown(const Phone& phone, const Texts& parts) {
        const std::string shown = ShowPhone(phone);
        for (const std::string& part : parts) {
            EXPECT_NE(shown.find(part), std::string::npos) << part << " is not in " << shown;
        }
    }
};

class ShortageTest : public PhoneTest {
protected:
    // Leaves less and less, so many amounts, and then as much as ever, for runs of both
    // technologies.
    void ExpectAsEverOr(const Texts& reasons, rlim_t amounts,
                        const std::function<void(rlim_t)>& leave);
};

// Why something cannot be done; empty if it can.
std::string ErrorOf(const std::function<void()>& something) {
    try {
        something();
    } catch (const std::runtime_error& wrong) {
        return wrong.what();
    }
    return "";
}

void Limit(decltype(RLIMIT_NOFILE) what, rlim_t most) {
    rlimit limit = {};
    ASSERT_EQ(getrlimit(what, &limit), 0);
    limit.rlim_cur = std::min(most, limit.rlim_max);
    ASSERT_EQ(setrlimit(what, &limit), 0);
}

TEST_F(SimphoneTest, EmmcDriverRefusesOddRequests) {
    static uint8_t data[512];
    mmc_ioc_cmd install = {};
    install.opcode = 303;
    install.flags = 0xB5;
    install.blksz = 512;
    mmc_ioc_cmd download = install;
    download.write_flag = 1;
    download.opcode = 302;
    download.blocks = 1;
    mmc_ioc_cmd_set_data(download, data);
    Make(NormalPhone());
    const Phone phone = OpenPhone(directory);
    // A request that is in order, but for the change.
    const auto expect = [&](const char* what, int error, mmc_ioc_cmd request,
                            void (*change)(mmc_ioc_cmd & request), int openFlags = O_RDWR) {
        change(request);
        Reply reply;
        EXPECT_EQ(AnswerMmc(phone, openFlags, request, reply), error) << what;
        EXPECT_EQ(reply.taken == Taken::WHOLE, error == 0) << what;
    };
    const auto none = [](mmc_ioc_cmd&) {};
    expect("install before download", EINVAL, install, none);
    expect("download as a read", EINVAL, download, [](auto& request) { request.write_flag = 0; });
    expect("download of no block", EINVAL, download, [](auto& request) { request.blocks = 0; });
    expect("download without data", EFAULT, download, [](auto& request) { request.data_ptr = 0; });
    expect("block size", EINVAL, download, [](auto& request) { request.blksz = 4096; });
    expect("flags", EINVAL, download, [](auto& request) { request.flags = 0x35; });
    expect("argument", EINVAL, download, [](auto& request) { request.arg = 1; });
    expect("application command", EINVAL, download, [](auto& request) { request.is_acmd = 1; });
    expect("SWITCH", EINVAL, download, [](auto& request) { request.opcode = 6; });
    expect("EXT_CSD as a write", EINVAL, download, [](auto& request) { request.opcode = 8; });
    expect("read-only descriptor", EPERM, download, none, O_RDONLY);
    expect("download", 0, download, none);
    expect("install with data", EINVAL, install,
           [](auto& request) { mmc_ioc_cmd_set_data(request, data); });
    expect("install", 0, install, none);
}

// SPC: key 5 is ILLEGAL REQUEST; ASC 20 operation code, 24 field in CDB, 1A parameter list length.
TEST_F(SimphoneTest, UfsDeviceRefusesOddCommands) {
    Make(UfsPhone());
    const Phone phone = OpenPhone(directory);
    // A command that is in order, but for the change: its error, status, key and ASC.
    const auto expect = [&](const std::string& answer, const auto& change) {
        uint8_t data[512] = {}, sense[32] = {};
        uint8_t cdb[16] = {0x3B, 0x0E, 0, 0, 0, 0, 0, 2, 0, 0};
        sg_io_hdr request = {};
        request.interface_id = 'S';
        request.dxfer_direction = SG_DXFER_TO_DEV;
        request.cmd_len = 10;
        request.mx_sb_len = sizeof(sense);
        request.dxfer_len = sizeof(data);
        request.dxferp = data;
        request.cmdp = cdb;
        request.sbp = sense;
        change(request, cdb);
        Reply reply;
        const int error = AnswerScsi(phone, 0, O_RDWR, request, reply);
        char text[40];
        snprintf(text, sizeof(text), "%d %x/%x/%x", error, request.status, sense[2], sense[12]);
        EXPECT_EQ(text, answer) << Hex(cdb, 10);
        const bool isTaken = answer == "0 0/0/0";
        EXPECT_EQ(Get("/device/pending") != MISSING, isTaken);
        EXPECT_EQ(reply.taken == Taken::WHOLE, isTaken);
    };
    const std::tuple<const char*, int, uint8_t> bytes[] = {
        // of the CDB
        {"20", 0, 0x3C}, {"24", 1, 0x0F}, {"24", 1, 0x2E}, {"24", 2, 1},
        {"24", 5, 1},    {"24", 9, 4},    {"1a", 8, 1}};
    for (const auto& [asc, at, byte] : bytes) {
        expect(std::string("0 2/5/") + asc,
               [at = at, byte = byte](auto&, uint8_t* cdb) { cdb[at] = byte; });
    }
    expect("0 2/5/24", [](auto& request, uint8_t*) { request.cmd_len = 12; });
    expect("0 2/5/1a",
           [](auto& request, uint8_t*) { request.dxfer_direction = SG_DXFER_FROM_DEV; });
    expect("14 0/0/0", [](auto& request, uint8_t*) { request.dxferp = nullptr; });   // EFAULT
    expect("22 0/0/0", [](auto& request, uint8_t*) { request.interface_id = 'Q'; }); // EINVAL
    expect("0 0/0/0", [](auto&, uint8_t*) {});
}

const std::string ATTEMPT = AttemptRecord(EMMC_REV, EMMC_NEW_REV);
const std::string ZEROS(ATTEMPT.size(), '\0');
const std::string EARLIER = "current fw version:A, upgrading to version:B\n";
const Files OLD = {{"fw_result", EARLIER}, {"ffu.ok", "passed"}, {"ffu.end", ""}};
const Files NO_DIRECTORY = {{"no", "directory"}}, BEGUN = {{"ffu.bgn", ""}},
            BEGUN_OK = BEGUN + Files{{"ffu.ok", "passed"}};

Files Recorded(const std::string& record) {
    return {{"fw_result", record}};
}

// The power fails in a GKI update: on a first run, or where an older one has left its files.
TEST_F(SimphoneTest, PowerCutLeavesWhatWasSynced) {
    const std::string closed = "close /data/vendor/fw/fw_result end ",
                      ok = "close /data/vendor/fw/ffu.ok end ";
    const struct {
        std::string fault;
        Files before, left;
    } rows[] = {
        {"fsync end", {}, BEGUN + Recorded(ATTEMPT)},
        {"fsync end lost=fw_result", {}, BEGUN},
        {"fsync end empty=fw_result lost=ffu.bgn", {}, Recorded("")},
        {"fsync end zeros=fw_result", {}, BEGUN + Recorded(ZEROS)},
        {"fsync end lost=.", {}, NO_DIRECTORY},
        {closed + "lost=ffu.bgn", {}, Recorded(ATTEMPT)},
        {"write /data/vendor/fw/fw_result torn=3 lost=ffu.bgn", {}, Recorded("Sat")},
        {"open /data/vendor/fw/ffu.end end empty=ffu.bgn,ffu.ok",
         {},
         BEGUN + Files{{"ffu.ok", ""}} + Recorded(ATTEMPT)},
        {"fsync end lost=fw_result,ffu.end", OLD, OLD + BEGUN},
        {"fsync end lost=ffu.end zeros=fw_result", OLD, Recorded(EARLIER + ZEROS) + OLD + BEGUN},
        {"remove /data/vendor/fw/ffu.fail end lost=ffu.ok", OLD,
         BEGUN_OK + Recorded(EARLIER + ATTEMPT)},
        {ok + "lost=ffu.ok,ffu.bgn", OLD,
         Files{{"ffu.ok", "passed"}} + Recorded(EARLIER + ATTEMPT)},
        {ok + "gone=ffu.ok lost=ffu.bgn", OLD, Recorded(EARLIER + ATTEMPT)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        const RunResult cut = CutGkiUpdate({row.fault}, row.before);
        EXPECT_EQ(cut.signal, 9);
        const StateDirectory left = ReadStateDirectory(directory);
        EXPECT_EQ(left.isThere ? left.files : NO_DIRECTORY, row.left);
    }
    const auto expectImpossible = [this](const std::string& fault, const Files& before) {
        EXPECT_EQ(ErrorOf([&] { (void)CutGkiUpdate({fault}, before); }),
                  "fault " + Quoted(fault) + ": the cut cannot leave that");
    };
    for (const std::string losses :
         {"zeros=ffu.bgn", "lost=.,ffu.bgn", "lost=ffu.fail", "gone=fw_result"}) {
        expectImpossible("fsync end " + losses, {});
    }
    for (const std::string losses : {"lost=.", "lost=fw_result", "empty=fw_result"}) {
        expectImpossible(closed + losses, {});
    }
    for (const std::string& fault :
         {closed + "zeros=fw_result", std::string("fsync end empty=fw_result"),
          std::string("fsync end lost=.")}) {
        expectImpossible(fault, OLD);
    }
}

// What the run has made and removed may be back as it was then.
TEST_F(SimphoneTest, PowerCutBringsARemovedFileBack) {
    const std::string end = "open /data/vendor/fw/ffu.end end ";
    const std::map<std::string, std::string> bodies = {
        {end, MISSING},
        {end + "lost=ufs_fw_body.bin", MISSING},
        {end + "empty=ufs_fw_body.bin", ""},
        {end + "back=ufs_fw_body.bin", "body"},
        {end + "zeros=ufs_fw_body.bin", std::string(4, '\0')},
        {"SG_IO end back=ufs_fw_body.bin", "body"}}; // as it was not removed yet
    for (const auto& [fault, body] : bodies) {
        SCOPED_TRACE(fault);
        Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry()}});
        EXPECT_EQ(ErrorOf([&, cut = fault] { (void)TryRun({cut}); }).empty(),
                  fault.rfind("SG_IO", 0) != 0);
        EXPECT_EQ(Get(STATE + "/ufs_fw_body.bin"), body);
    }
}

// What is enumerated can be asked for. A sync that a fault stands in for has synced nothing.
TEST_F(SimphoneTest, EachStateAfterAPowerCutCanBeMade) {
    const struct {
        std::string cut;
        Files before;
        size_t states; // by the choices of each file: directory, begin, end, record, pass
    } rows[] = {
        {"remove /data/vendor/fw/ffu.end end", {}, 1 + 1},
        {"fsync end", {}, 1 + 2 * 4},
        {"fsync end", OLD, 2 * 2 * 3},
        {"close /data/vendor/fw/ffu.ok end", {}, 1 + 2 * 4 * 4},
        {"close /data/vendor/fw/ffu.end end", OLD, 2 * 2 * 3 * 5},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.cut);
        const std::string noSync = "fsync returns=0";
        const RunResult cut = CutGkiUpdate({row.cut, noSync}, row.before);
        const StateDirectory before = {!row.before.empty(), row.before};
        const auto survivals = Survivals(before, ReadStateDirectory(directory), cut.calls);
        EXPECT_EQ(survivals.size(), row.states);
        for (const Survival& survival : survivals) {
            const std::string losses = LossText(survival.losses);
            (void)CutGkiUpdate({row.cut + " " + losses, noSync}, row.before);
            EXPECT_TRUE(ReadStateDirectory(directory) == survival.state) << losses;
        }
    }
}

// A tool whose calls did not reach the phone would work on this machine instead.
TEST_F(SimphoneTest, ToolNeverRunsWithoutItsPhone) {
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}, {"/tool", "#!/bin/sh\ntouch \"$0.ran\"\n"}});
    const std::string library = Path("/a b:c/libsimphone.so"), tool = Path("/tool");
    std::filesystem::create_directory(Path("/a b:c"));
    std::filesystem::copy_file(SIMPHONE_LIBRARY, library);
    EXPECT_EQ(Requests(TryRun({}, FFU_PATH, library)), "GKI write 4 -> 4\n");

    std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
    EXPECT_THROW((void)TryRun({}, tool), std::runtime_error);
    EXPECT_EQ(Get("/tool.ran"), MISSING);
    Put("/damaged.so", "simphone_attach");
    EXPECT_THROW((void)TryRun({}, FFU_PATH, Path("/damaged.so")), std::runtime_error);
    EXPECT_THROW((void)TryRun({}, FFU_PATH, tool), std::runtime_error);
    const Phone phone = OpenPhone(directory);
    EXPECT_THROW(MakePhone(phone), std::runtime_error); // one is there
}

// What a run leaves is all of it, and its own.
TEST_F(SimphoneTest, RunThatCannotBeKeptIsAnError) {
    const struct {
        std::string log, target; // a symbolic link in the phone's directory
        std::string error;
    } rows[] = {
        {"/console.log", "/dev/full", "console.log: No space left on device"},
        {"/console.log", "/", "console.log: Is a directory"},
        {"/errors.log", "/nowhere/file", "errors.log: No such file or directory"},
        {"/device/downloaded.bin", "/dev/full", "downloaded.bin: No space left on device"},
        {"/device/pending", "/", "pending: Is a directory"},
        {"/removed", "/dev/null", "removed/ffu.bgn.removed: "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log + row.target);
        Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
        std::filesystem::create_symlink(row.target, Path(row.log));
        const std::string error = ErrorOf([&] { (void)TryRun(); });
        EXPECT_NE(error.find(row.error), std::string::npos) << error;
    }
    Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
    const int other = open(directory.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(flock(other, LOCK_EX), 0);
    EXPECT_EQ(ErrorOf([&] { (void)TryRun(); }), directory + ": another run is on this phone");
    EXPECT_EQ(Left(), "");
    close(other);
    (void)TryRun();
}

// With less and less of something of this machine, a run is as it always is, or it is an error that
// says what was missing; never another course of the phone.
void ShortageTest::ExpectAsEverOr(const Texts& reasons, rlim_t amounts,
                                  const std::function<void(rlim_t)>& leave) {
    for (const bool isUfs : {false, true}) {
        const std::string body = Body(20000);
        const auto make = [&] {
            isUfs ? Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry(UFS_NEW_REV, body)}})
                  : Make(NormalPhone(), {{EMMC_PACKAGE, EmmcEntry(EMMC_NEW_REV, body)}});
        };
        make();
        leave(RLIM_INFINITY);
        const RunResult whole = RunAnyhow({});
        const Files left = State();
        size_t refused = 0;
        for (rlim_t amount = 0; amount < amounts; amount++) {
            SCOPED_TRACE(reasons[0] + " " + std::to_string(amount));
            make();
            leave(amount);
            RunResult run = {};
            const std::string error = ErrorOf([&] { run = TryRun(); });
            leave(RLIM_INFINITY);
            if (error.empty()) {
                EXPECT_EQ(Console(run), Console(whole));
                EXPECT_EQ(Steps(run) + Requests(run), Steps(whole) + Requests(whole));
                EXPECT_EQ(State(), left);
                continue;
            }
            refused++;
            EXPECT_TRUE(std::any_of(reasons.begin(), reasons.end(), [&](const std::string& reason) {
                return error.find(reason) != std::string::npos;
            })) << error;
        }
        EXPECT_GT(refused, 0U);
        EXPECT_LT(refused, amounts); // the last ones had enough
    }
}

TEST_F(ShortageTest, FilesStayOpenable) {
    ExpectAsEverOr({"Too many open files"}, 24, [](rlim_t most) { Limit(RLIMIT_NOFILE, most); });
}

TEST_F(ShortageTest, FilesMayNotGrow) {
    signal(SIGXFSZ, SIG_IGN); // it is the tool that it must end
    ExpectAsEverOr({"File too large", "File size limit exceeded"}, 34, [](rlim_t amount) {
        Limit(RLIMIT_FSIZE, amount == RLIM_INFINITY ? amount : amount * amount * 1000);
    });
    signal(SIGXFSZ, SIG_DFL);
}

TEST_F(ShortageTest, DiskIsFull) {
    const std::string disk = std::filesystem::path(directory).parent_path();
    const pid_t child = fork();
    if (child == 0) { // in namespaces of its own, where a user may mount
        const std::string users = "0 " + std::to_string(getuid()) + " 1";
        const std::string groups = "0 " + std::to_string(getgid()) + " 1";
        const auto map = [&] {
            WriteWholeFile("/proc/self/uid_map", users);
            WriteWholeFile("/proc/self/setgroups", "deny");
            WriteWholeFile("/proc/self/gid_map", groups);
        };
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !ErrorOf(map).empty() ||
            mount("none", disk.c_str(), "tmpfs", 0, "size=64m") != 0) {
            _exit(77);
        }
        for (const std::string size : {"size", "nr_inodes"}) {
            ExpectAsEverOr({"No space left on device"}, 18, [&](rlim_t amount) {
                struct statvfs room = {};
                ASSERT_EQ(statvfs(disk.c_str(), &room), 0);
                const rlim_t used =
                    size == "size" ? room.f_blocks - room.f_bfree : room.f_files - room.f_ffree;
                const rlim_t all = amount == RLIM_INFINITY ? 1000 : used + amount * amount;
                const rlim_t units = all * (size == "size" ? room.f_bsize : 1);
                const std::string option = size + "=" + std::to_string(units);
                ASSERT_EQ(mount("none", disk.c_str(), "tmpfs", MS_REMOUNT, option.c_str()), 0);
            });
        }
        _exit(HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "no small disk: user namespaces are not allowed here";
    }
    EXPECT_EQ(status, 0);
}

// Whatever a call names stands in its line of the journal, and no line reads as another one.
TEST_F(SimphoneTest, JournalKeepsOddNames) {
    const Texts paths = {"", "-", "/a b/= 3", "/line\n2 open /x = 3\nfault", "\"\"", "\\x20\xFF"};
    Make(GkiPhone());
    std::string journal = FaultLine(3, Faults({"any #9 EIO"})[0]);
    for (const std::string& path : paths) {
        journal += CallLine({"open", path, "flags=0x0", "", 7, "-1", "ENOENT", true, 0});
    }
    const CallEntry message = {LOG_FUNCTION, "-", "tag=-", " @ \n", 8, "1", "", false, 12};
    journal += CallLine(message);
    for (size_t cut = 0; cut < CallLine(message).size(); cut++) { // whole, or ended in the middle
        Put(JOURNAL_FILE, journal.substr(0, journal.size() - cut));
        const Journal read = ReadJournal(directory);
        EXPECT_EQ(read.faults, std::vector<size_t>{3});
        ASSERT_EQ(read.calls.size(), paths.size() + (cut == 0 ? 1 : 0));
        for (size_t i = 0; i < paths.size(); i++) {
            EXPECT_EQ(read.calls[i].path, paths[i]);
            EXPECT_EQ(read.calls[i].error + read.calls[i].result, "ENOENT-1");
            EXPECT_EQ(Argument(read.calls[i], "flags"), "0x0");
        }
        EXPECT_EQ(read.calls.back().message, cut == 0 ? message.message : "");
    }
}

// A console that ended before the tool did, as its standard output was closed.
TEST_F(SimphoneTest, TimeLineBearsAClosedConsole) {
    RunResult run = {};
    run.console = "one\ntwo\n";
    for (const long long bytes : {4, 0, 99}) {
        run.calls.push_back({LOG_FUNCTION, "-", "", "text", 1, "1", "", false, bytes});
    }
    std::string order;
    for (const TimeLineEntry& entry : TimeLine(run)) {
        order += entry.text + " ";
    }
    EXPECT_EQ(order, "one text text two text ");
}

TEST_F(SimphoneTest, HalfMadePhoneIsShownAndNotRestarted) {
    Make(NormalPhone(), {{"/device/pending", ""}, {STATE + "/a\nb", "c"}});
    Put("/proc/bootdevice/product_name", MISSING);
    const Phone phone = OpenPhone(directory);
    EXPECT_THROW(RebootPhone(phone), std::runtime_error); // nothing was downloaded
    ExpectShown(
        phone, {"product_name: No such file", "FIRMWARE_VERSION: FW", "FW000002\n", "    a\\nb\n"});
    // No file but flags and records is shown whole: digests of "" and "abc" from FIPS 180-2.
    Put(STATE + "/ufs_fw_body.bin", "abc");
    Put(STATE + "/ffu.ok", "passed\xFF");
    ExpectShown(phone, {"    ufs_fw_body.bin\n      3 bytes, sha256 "
                        "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\n",
                        "    ffu.ok\n      passed\\xff\n", "    a\\nb\n      1 bytes, sha256 "});
    EXPECT_EQ(Count(ShowPhone(phone), "abc\n"), 0);
    for (const std::string place : {"", "/", "/..", "//"}) { // this machine is no phone
        const std::string wrong = Quoted(place) + ": is no place for a phone";
        EXPECT_EQ(ErrorOf([&] { MakePhone({place, phone.description}); }), wrong);
        EXPECT_EQ(ErrorOf([&] { (void)OpenPhone(place); }), wrong);
    }
    Put("/phone.toml", ""); // as far as another MakePhone has come
    EXPECT_THROW((void)OpenPhone(directory), std::runtime_error);
    Put("/phone.toml", MISSING);
    EXPECT_EQ(ErrorOf([&] { (void)OpenPhone(directory); }),
              directory + ": is no phone: there is no phone.toml in it");
}

// What settings make of a description is read as they say, and all else as it was.
TEST_F(SimphoneTest, SettingsReplaceKeys) {
    const std::string odd = "\nA'''\\\x01\xC2\x85\n"; // hard to write down again
    const struct {
        Texts settings;
        std::string name, mid, error; // in the nodes; a part of the error
    } rows[] = {
        {{}, odd, "0x0001ce\n", ""},
        {{"revision=1000", "max_hw_sectors_kb=0x400"}, odd, "0x0001ce\n", ""},
        {{"product_name=B", "manfid=\"C\""}, "B\n", "C", ""},
        {{R"(product_name=\xFF\\\n)", "manfid=[67, 0]"}, "\xFF\\\n", std::string("C\0", 2), ""},
        {{R"(product_name=\q)"}, "", "", R"(product_name=\\q: a backslash begins)"},
        {{"product_name=" + std::string(99, '.')}, std::string(99, '.') + "\n", "0x0001ce\n", ""},
        {{"revision"}, "", "", "revision: is not KEY=VALUE"},
        {{"revision.x=1"}, "", "", "revision.x=1: is not KEY=VALUE"},
        {{"=1"}, "", "", "=1: is not KEY=VALUE"},
        {{"write_buffer=\"perhaps\""}, "", "", "write_buffer: "},
        {{"max_hw_sectors_kb=-1"}, "", "", "max_hw_sectors_kb is not"},
        {{"revison=1000"}, "", "", "unknown key: revison"},
        {{"revison=0700"}, "", "", "unknown key: revison"}, // no number of TOML
        {{"max_hw_sectors_kb=1\nmode=2"}, "", "", "max_hw_sectors_kb is not a number"},
        {{"max_hw_sectors_kb=1", "max_hw_sectors_kb=0700"}, "", "", "is not TOML"},
        {{"firmware.revision=toolong"}, "", "", "revision is not"},
        {{"revision=08000"}, "", "", "revision is not"},
    };
    Make(UfsPhone({{"product_name", R"("\nA'''\\\u0001\u0085\n")"}}));
    for (const auto& row : rows) {
        const auto make = [&] {
            MakePhone({Path("/first"), ReadDescription(Path("/phone.toml"), row.settings)});
        };
        Put("/first", MISSING);
        Put("/again", MISSING);
        const std::string error = ErrorOf(make);
        EXPECT_EQ(error.empty(), row.error.empty());
        EXPECT_NE(error.find(row.error), std::string::npos) << error;
        if (row.error.empty()) {
            MakePhone({Path("/again"), OpenPhone(Path("/first")).description});
            EXPECT_EQ(Get("/again/proc/bootdevice/product_name"), row.name);
            EXPECT_EQ(Get("/again/proc/bootdevice/manfid"), row.mid);
        }
    }
}

TEST(FaultText, PartsHaveAnOrder) {
    for (const char* text :
         {"SG_IO EIO #2", "write EIO /dev/block/sdc", "write #2 /dev/block/sdc EIO"}) {
        const std::string error = ErrorOf([&] { (void)ParseFault(text); });
        EXPECT_NE(error.find("CALL PATH #N EFFECT is the order"), std::string::npos) << text;
    }
}

TEST_F(SimphoneTest, FaultsThatNoCallMetAreTold) {
    Make(GkiPhone({{"faults", "['FFU_DOWNLOAD EIO']"}}), {{EMMC_PACKAGE, EmmcEntry()}});
    const RunResult run =
        Run({"FFU_INSTALL EIO", "fsync EIO", "fsync #2+ EIO", "any #1 EIO", "sleep end"});
    EXPECT_EQ(FaultTexts(run.unmetFaults),
              (Texts{"FFU_INSTALL EIO", "fsync #2+ EIO", "sleep end"}));
}

} // namespace
