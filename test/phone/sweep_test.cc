// Every call of a run fails once, and the power fails at every call: some thousand whole runs on
// simulated phones. A failure here is a phone that is told a false outcome, gets a firmware twice,
// or loses its record. The sweep itself checks what must hold for any package; here each run's
// flags, record, logs and requests are compared with what the scenario is to do.
//
// Runs that would hardly differ from others are left out, but for --all; with --every=N only each
// Nth one is made.
#include "fwlab/base/stop.h"
#include "fwlab/sweep/runner.h"
#include "test/phone/phone.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest-spi.h>
#include <map>
#include <regex>
#include <set>
#include <unistd.h>

namespace {

bool areAll = false; // --all
size_t everyNth = 1;

// Files in the state directory.
const std::string BEGIN = "ffu.bgn", END = "ffu.end", OK = "ffu.ok", FAIL = "ffu.fail",
                  RECORD = "fw_result";
const std::string UFS_NODE = "/dev/block/sdc";
const std::string BODY = Body(600); // no whole blocks
const std::string OLD_TIME = "Fri Mar  6 09:05:02 2026\n";

// The second line of the record: what a run may append, with eMMC and UFS; and one from before.
const std::string ATTEMPTS[] = {
    "product name:SIM064, current fw version:FW000001, upgrading to version:FW000002\n",
    "product name:SIMUFS128G-B0B1 , current fw version:0800, upgrading to version:0900\n"};
const std::string OLD_ATTEMPT = "product name:P, current fw version:B, upgrading to version:X\n";

struct Scenario {
    std::string name, phone, package;
    std::string updates; // the requests of the base run, see Updates
    bool isUfs = false;
    Files files = {}; // in the state directory before the run
};

// Failures that no log tells.
const std::regex SILENT("(munmap|fclose|fsync|time|ctime|gettimeofday) .*"
                        "|close (?!/dev/block/sdc).*" // of the UFS device it is told
                        "|access /dev/block/.*"       // no storage device: an end without a word
                        "|remove .*/(ffu.ok|ffu.fail|ufs_fw_body.bin) .*"
                        "|write .*/fw_result short=[1-9].*"
                        "|write .*/(ffu.ok|ffu.fail) .*" // the flag is there all the same
                        "|(fopen|fgets) /proc/devices .*");

// Messages that tell how a run ends.
const std::string PASSED = "UpdateResultFlag: update to", FAILED = "UpdateResultFlag: upgrade to";
const std::regex NOTHING_TO_DO("CheckFwBin: (fw file|pnm) not found|CheckFwBin: local fw rev "
                               "|firmware in fw file has been applied");

// Each on a first run, and after an attempt at another revision.
std::vector<Scenario> Scenarios() {
    const std::string emmc = EmmcEntry(EMMC_NEW_REV, BODY), ufs = UfsEntry(UFS_NEW_REV, BODY);
    const Overrides gkiRefused = {{"faults", "['write /proc/bootdevice/ffu EIO']"}},
                    noDownload = {{"faults", "['FFU_DOWNLOAD EIO']"}},
                    noInstall = {{"faults", "['FFU_INSTALL EIO']"}};
    std::vector<Scenario> scenarios = {
        {"GKI", GkiPhone(), emmc, "G"},
        {"GKI, refused", GkiPhone(gkiRefused), emmc, "gggg"},
        {"GKI, runs already", GkiPhone(), EmmcEntry(EMMC_REV, BODY), ""},
        {"GKI, no match", GkiPhone(), With(emmc, EMMC_MID_FIELD, "x"), ""},
        {"normal", NormalPhone(), emmc, "DI"},
        {"normal, no download", NormalPhone(noDownload), emmc, "d"},
        {"normal, no install", NormalPhone(noInstall), emmc, "Di"},
        {"normal, no match", NormalPhone(), With(emmc, EMMC_REV_FIELD, "x"), ""},
        {"UFS", UfsPhone(), ufs, "B", true},
        {"UFS, reset", UfsPhone({{"write_buffer", "'sense 5/26/00'"}}), ufs, "br", true},
        {"UFS, runs already", UfsPhone(), UfsEntry(UFS_REV, BODY), "", true},
        {"UFS, no match", UfsPhone(), With(ufs, UFS_MID_FIELD, "x"), "", true},
    };
    for (size_t i = 0, kinds = scenarios.size(); i < kinds; i++) {
        const std::string flag = scenarios[i].isUfs ? FAIL : OK;
        scenarios.push_back(scenarios[i]);
        scenarios.back().name += ", after another";
        scenarios.back().files = {{RECORD, OLD_TIME + OLD_ATTEMPT}, {flag, OLD_TIME}, {END, ""}};
    }
    return scenarios;
}

// The first such call of the run, on a path or a file in the state directory; null without one.
const CallEntry* Find(const RunResult& run, const std::string& function, const std::string& path) {
    const auto found = std::find_if(run.calls.begin(), run.calls.end(), [&](const CallEntry& call) {
        return call.function == function && (call.path == path || call.path == STATE + "/" + path);
    });
    return found == run.calls.end() ? nullptr : &*found;
}

bool Failed(const RunResult& run, const std::string& function, const std::string& path) {
    const CallEntry* call = Find(run, function, path);
    return call != nullptr && HasFailed(*call);
}

// A letter for each request, a capital letter if the device has taken it whole: G for a write to
// the GKI node (s: it took a part), D and I for the download and install requests, B for WRITE
// BUFFER, r for a reset. Reading a register is none.
std::string Updates(const RunResult& run) {
    static const std::map<RequestKind, std::string> letters = {
        {RequestKind::GKI_WRITE, "gsG"},   {RequestKind::FFU_DOWNLOAD, "d?D"},
        {RequestKind::FFU_INSTALL, "i?I"}, {RequestKind::SCSI_WRITE_BUFFER, "b?B"},
        {RequestKind::SCSI_RESET, "rrr"},  {RequestKind::OTHER_MMC, "???"},
        {RequestKind::OTHER_SCSI, "???"}};
    std::string updates;
    for (const CallEntry& call : run.calls) {
        if (call.request && call.request->kind != RequestKind::SEND_EXT_CSD) {
            updates += letters.at(call.request->kind)[static_cast<size_t>(call.request->taken)];
        }
    }
    return updates;
}

bool HasWhole(const std::string& updates) {
    return updates.find_first_of("GIB") != std::string::npos;
}

// Whether the run came to its end or not: the record grew by one attempt at most, before the device
// was asked to change.
void CheckRecord(const Scenario& scenario, const RunResult& run, Files before, Files after) {
    const std::string record = after[RECORD], old = before[RECORD];
    ASSERT_EQ(record.substr(0, old.size()), old);
    std::string grown = record.substr(old.size()), whole = CLOCK_TEXT + ATTEMPTS[scenario.isUfs];
    if (Failed(run, "time", "-") || Failed(run, "ctime", "-")) { // another time, or none
        grown.erase(0, grown.find("product name"));
        whole.erase(0, CLOCK_TEXT.size());
    }
    EXPECT_EQ(grown, whole.substr(0, grown.size()));
    EXPECT_TRUE(Updates(run).empty() || !grown.empty());
}

// Flags and exit status tell how the run ended.
void CheckFlags(const RunResult& run, const Files& before, const Files& after) {
    const std::string steps = Steps(run);
    const bool passed = Count(steps, PASSED) > 0, failed = Count(steps, FAILED) > 0;
    const bool isStarted = Find(run, "remove", OK) != nullptr; // an update
    const bool isRegular = isStarted ? !failed : std::regex_search(steps, NOTHING_TO_DO);
    const bool noDirectory = Failed(run, "mkdir", STATE);
    EXPECT_EQ(run.exitStatus, noDirectory || Failed(run, "open", END) ? 255 : 0);

    const bool begun = before.count(BEGIN) || !(noDirectory || Failed(run, "open", BEGIN));
    EXPECT_EQ(after.count(BEGIN), begun && (!isRegular || Failed(run, "remove", BEGIN)));
    for (const auto& [flag, isCleared, isSet] : {std::tuple(END, !noDirectory, isRegular),
                                                 {OK, isStarted, passed},
                                                 {FAIL, isStarted, failed}}) {
        const bool isStale = before.count(flag) && (!isCleared || Failed(run, "remove", flag));
        EXPECT_EQ(after.count(flag), isStale || (isSet && !Failed(run, "open", flag))) << flag;
        if (isStale && after.count(flag)) { // it may grow
            EXPECT_EQ(after.at(flag).rfind(before.at(flag), 0), 0U) << flag;
        }
    }
}

// The device's requests and the logs tell the same.
void CheckOutcome(const Scenario& scenario, const RunResult& run, const std::string& downloaded) {
    static const std::regex course("(g{0,3}[gGs]|d|D[iI]|b?r?|B)?");
    const std::string steps = Steps(run), updates = Updates(run);
    const bool passed = Count(steps, PASSED) > 0, isTold = passed || Count(steps, FAILED) > 0;
    EXPECT_TRUE(std::regex_match(updates, course)) << updates;
    EXPECT_EQ(passed, HasWhole(updates) && !Failed(run, "close", UFS_NODE));
    if (passed) {
        const CallEntry* read = Find(run, "read", "ufs_fw_body.bin");
        const std::string sent = read ? BODY.substr(0, std::stoul(read->result)) : BODY;
        EXPECT_EQ(downloaded.substr(0, sent.size()), sent);
    }
    // What fails before the device is opened is nothing to do for UFS, and a failure for eMMC.
    if (scenario.isUfs) {
        EXPECT_EQ(isTold, Find(run, "open", UFS_NODE) != nullptr);
    } else if (Count(run.console, "NULL == ptm") == 0) { // in place of a message
        EXPECT_EQ(isTold, Find(run, "remove", OK) != nullptr &&
                              Count(run.console, "no need to update") == 0);
    }
}

// A run to its end, on a phone that had the state files before.
void CheckRun(const Scenario& scenario, const SweepRun& swept) {
    const RunResult& run = *swept.run;
    ExpectAllGivenBack(run);
    CheckRecord(scenario, run, run.before.files, run.after.files);
    CheckFlags(run, run.before.files, run.after.files);
    std::string downloaded;
    (void)ReadWholeFile(swept.phone + "/device/downloaded.bin", downloaded); // there may be none
    CheckOutcome(scenario, run, downloaded);
}

void CheckFailingCall(const Scenario& scenario, const SweepRun& swept) {
    CheckRun(scenario, swept);
    const RunResult &run = *swept.run, &base = *swept.base;
    if (HasFailed(base.calls[swept.job->call])) {
        return; // as it did without the fault
    }
    const CallEntry& call = run.calls[swept.job->call];
    const Fault& fault = swept.job->fault;
    const std::string failure = call.function + " " + call.path + " " + EffectText(fault);
    const bool isStarted = Find(run, "remove", OK) != nullptr; // an update
    const bool mustStop = !MayGoOn(call) && EffectText(fault) == "EIO";
    if (!isStarted && mustStop && call.function != "access") {
        EXPECT_EQ(run.after.files.count(END), 0U);
    }
    EXPECT_TRUE(Steps(run) + run.console != Steps(base) + base.console ||
                std::regex_match(failure, SILENT));
}

// What lies there before anything unsynced is lost.
void CheckPowerCut(const Scenario& scenario, const RunResult& run) {
    const Files left = run.after.files;
    CheckRecord(scenario, run, scenario.files, left);
    EXPECT_FALSE(left.count(BEGIN) && left.count(END));
    EXPECT_FALSE(left.count(OK) && left.count(FAIL));
    const std::string updates = Updates(run);
    for (const std::string& flag : {OK, FAIL}) {
        if (left.count(flag)) { // of the attempt before until the device is asked
            const bool isOld = left.at(flag) == OLD_TIME;
            EXPECT_EQ(isOld, updates.empty());
            EXPECT_TRUE(isOld || HasWhole(updates) == (flag == OK));
        }
    }
}

// A normal run on what was left, without a restart that would show it what was downloaded: an
// attempt that is not on record is made, and no other.
void CheckNext(const Scenario& scenario, const SweepRun& swept) {
    CheckRun(scenario, swept);
    const RunResult& run = *swept.run;
    Files before = run.before.files, first = scenario.files;
    const std::string record = before[RECORD];
    const bool isThere = run.before.files.count(RECORD) > 0;
    const bool isOld = isThere == (scenario.files.count(RECORD) > 0) && record == first[RECORD];
    EXPECT_EQ(Updates(run), isOld ? scenario.updates : "");
    const bool isWhole = !isThere || isOld || Count(record, ATTEMPTS[scenario.isUfs]) > 0;
    EXPECT_EQ(IsStuck(run), !isWhole);
}

// The failures that this thread has found, as texts: the sweep knows in which run.
Texts Check(const Scenario& scenario, const SweepRun& swept) {
    testing::TestPartResultArray failures;
    {
        const testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        if (swept.kind == SweepRun::BASE) {
            EXPECT_EQ(Updates(*swept.run), scenario.updates);
            CheckRun(scenario, swept);
        } else if (swept.kind == SweepRun::FAILING_CALL) {
            CheckFailingCall(scenario, swept);
        } else if (swept.kind == SweepRun::POWER_CUT) {
            CheckPowerCut(scenario, *swept.run);
        } else if (swept.kind == SweepRun::NEXT) {
            CheckNext(scenario, swept);
        }
    }
    Texts found;
    for (int i = 0; i < failures.size(); i++) {
        const testing::TestPartResult& one = failures.GetTestPartResult(i);
        found.push_back("line " + std::to_string(one.line_number()) + ": " + one.message());
    }
    return found;
}

// What was tried in the scenarios so far: beginnings of runs, one call longer each, and torn
// writes.
struct Tried {
    std::set<std::string> texts;
    size_t jobs = 0;
};

// Leaves out the jobs that would hardly differ from others: at a call up to which an earlier
// scenario ran the same, and a write that was torn before. Of more than eight calls of a function
// on one path, such as those of the UFS trigger test, the first, a middle one and the last stay.
void Select(const RunResult& base, bool hadState, Tried& tried, std::vector<SweepJob>& jobs) {
    std::map<std::string, long> count, rank;
    for (const CallEntry& call : base.calls) {
        count[call.function + " " + call.path]++;
    }
    std::set<size_t> calls, torn;
    std::string beginning;
    for (size_t i = 0; i < base.calls.size(); i++) {
        const CallEntry& call = base.calls[i];
        const std::string kind = call.function + " " + call.path;
        const long place = ++rank[kind], last = count[kind];
        beginning = std::to_string(std::hash<std::string>()(beginning + kind + call.error));
        if (tried.texts.insert(beginning).second &&
            (last <= 8 || place == 1 || place == last / 2 || place == last)) {
            calls.insert(i);
            const std::string write = kind + " " + call.result + (hadState ? "+" : "");
            if (call.function == "write" && tried.texts.insert(write).second) {
                torn.insert(i);
            }
        }
    }
    const auto isLeftOut = [&](const SweepJob& job) {
        const bool isTorn = job.fault.effect == Effect::TORN;
        const bool isRepeat = (isTorn ? torn : calls).count(job.call) == 0;
        return (isRepeat && !areAll) || tried.jobs++ % everyNth != 0;
    };
    jobs.erase(std::remove_if(jobs.begin(), jobs.end(), isLeftOut), jobs.end());
}

class SweepTest : public PhoneTest {};

TEST_F(SweepTest, EachCallFailsAndThePowerAtEachCall) {
    const std::vector<Scenario> scenarios = Scenarios();
    std::vector<SweepScenario> sweeps;
    for (const Scenario& scenario : scenarios) {
        const std::string file = "/" + std::to_string(sweeps.size());
        Put(file + ".toml", scenario.phone);
        Put(file, scenario.package);
        sweeps.push_back({ReadDescription(Path(file + ".toml")),
                          Path(file),
                          {!scenario.files.empty(), scenario.files}});
    }
    SweepOptions options;
    options.tool = FFU_PATH;
    options.phoneLibrary = SIMPHONE_LIBRARY;
    Tried tried;
    options.select = [&](const RunResult& base, std::vector<SweepJob>& jobs) {
        if (!jobs.empty()) {
            Select(base, !scenarios[jobs[0].scenario].files.empty(), tried, jobs);
        }
    };
    std::atomic<size_t> laterCuts = 0; // in a run after the job, behind its request
    options.check = [&](const SweepRun& swept) {
        laterCuts += swept.kind == SweepRun::LATER_CUT && IsAttempt(*swept.run);
        return Check(scenarios[swept.scenario], swept);
    };
    SweepResult result;
    try {
        result = RunSweep(sweeps, options);
    } catch (const Stop& stop) {
        FAIL() << stop.text;
    }
    size_t calls = 0;
    for (const SweepBase& base : result.bases) {
        calls += base.run.calls.size();
    }
    const long cuts = std::count_if(result.jobs.begin(), result.jobs.end(),
                                    [](const SweepJob& job) { return IsPowerCut(job.fault); });
    printf("%zu scenarios, %zu calls; each %zu. fault: %ld failing calls, %ld power cuts, %zu "
           "states left, %zu runs\n",
           scenarios.size(), calls, everyNth, static_cast<long>(result.jobs.size()) - cuts, cuts,
           result.states.size(), result.runs);
    EXPECT_GT(laterCuts, 0U);
    EXPECT_EQ(result.violations.size(), 0U);
    for (size_t i = 0; i < std::min<size_t>(result.violations.size(), 20); i++) {
        const SweepViolation& wrong = result.violations[i];
        std::string course;
        for (const std::optional<Fault>& fault : wrong.course) {
            course += ", " + (fault ? FaultText(*fault) : "no fault");
        }
        ADD_FAILURE() << scenarios[wrong.scenario].name << course << ": " << SentenceOf(wrong.wrong)
                      << " " << wrong.detail;
    }
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (const std::string& option : Texts(argv + 1, argv + argc)) {
        areAll = areAll || option == "--all";
        everyNth = option.rfind("--every=", 0) == 0 ? std::stoul(option.substr(8)) : everyNth;
    }
    // For speed: phones that are not on a disk.
    setenv("TMPDIR", access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp", 0);
    return RUN_ALL_TESTS();
}
