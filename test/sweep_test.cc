// Every call of a run fails once, and the power fails at every call: some thousand whole runs on
// simulated phones, shared out to a process for each processor. A failure here is a phone that is
// told a false outcome, gets a firmware twice, or loses its record.
//
// Runs that would hardly differ from others are left out (AddJobs, PowerCuts), but for --all; with
// --every=N only each Nth one is made.
#include "test/phone.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <regex>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

bool everyPlace = false;
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
    std::string name, phone, package, deviceFault;
    std::string updates; // the requests of the base run, see Letter
    bool isUfs = false;
    Files files = {};    // in the state directory before the run
    RunResult base = {}; // the run without a further fault
};

// A fault that a run meets at a call of the base run.
struct Job {
    const Scenario* scenario;
    const CallEntry* call;
    std::string way, fault;
    bool isPowerCut = false;
};

// Failures, as "function path way", that do not keep a run from its download.
const std::regex GOES_ON(
    "(close|munmap|fclose|time|ctime|localtime|gettimeofday) .*" // their result is of no use
    "|(remove|unlink) .*"                                        // the file need not be there
    "|access .*/(fw_result|ffu.ok|ffu.fail|bootdevice/ffu) .*"   // no record, flag, GKI mode
    "|write .*/fw_result short=[1-9].*"                          // one byte on record is enough
    "|fsync .*/fw_result .*"                                     // the write decides
    "|read /proc/bootdevice/(product_name|rev) short=.*"         // the rest is taken for blanks
    "|read .*/ufs_fw_body.bin short=.*"                          // what could be read is sent
    "|(fopen|fgets) /proc/devices .*"); // by libsgutils2 for the node's kind

// Failures that no log tells.
const std::regex SILENT("(munmap|fclose|fsync|time|ctime|gettimeofday) .*"
                        "|close (?!/dev/block/sdc).*" // of the UFS device it is told
                        "|access /dev/block/.*"       // no storage device: an end without a word
                        "|remove .*/(ffu.ok|ffu.fail|ufs_fw_body.bin) .*"
                        "|write .*/fw_result short=[1-9].*"
                        "|write .*/(ffu.ok|ffu.fail) .*" // the time in it is for the reader only
                        "|(fopen|fgets) /proc/devices .*");

// Messages that tell how a run ends.
const std::string PASSED = "UpdateResultFlag: update to", FAILED = "UpdateResultFlag: upgrade to";
const std::regex NOTHING_TO_DO("CheckFwBin: (fw file|pnm) not found|CheckFwBin: local fw rev "
                               "|firmware in fw file has been applied");

// Each on a first run, and after an attempt at another revision.
std::vector<Scenario> Scenarios() {
    const std::string emmc = EmmcEntry(EMMC_NEW_REV, BODY), ufs = UfsEntry(UFS_NEW_REV, BODY);
    std::vector<Scenario> scenarios = {
        {"GKI", GkiPhone(), emmc, "", "G"},
        {"GKI, refused", GkiPhone(), emmc, "write /proc/bootdevice/ffu EIO", "gggg"},
        {"GKI, runs already", GkiPhone(), EmmcEntry(EMMC_REV, BODY), "", ""},
        {"GKI, no match", GkiPhone(), With(emmc, EMMC_MID_FIELD, "x"), "", ""},
        {"normal", NormalPhone(), emmc, "", "DI"},
        {"normal, no download", NormalPhone(), emmc, "FFU_DOWNLOAD EIO", "d"},
        {"normal, no install", NormalPhone(), emmc, "FFU_INSTALL EIO", "Di"},
        {"normal, no match", NormalPhone(), With(emmc, EMMC_REV_FIELD, "x"), "", ""},
        {"UFS", UfsPhone(), ufs, "", "B", true},
        {"UFS, reset", UfsPhone({{"write_buffer", "'sense 5/26/00'"}}), ufs, "", "br", true},
        {"UFS, runs already", UfsPhone(), UfsEntry(UFS_REV, BODY), "", "", true},
        {"UFS, no match", UfsPhone(), With(ufs, UFS_MID_FIELD, "x"), "", "", true},
    };
    for (size_t i = 0, kinds = scenarios.size(); i < kinds; i++) {
        const std::string flag = scenarios[i].isUfs ? FAIL : OK;
        scenarios.push_back(scenarios[i]);
        scenarios.back().name += ", after another";
        scenarios.back().files = {{RECORD, OLD_TIME + OLD_ATTEMPT}, {flag, OLD_TIME}, {END, ""}};
    }
    return scenarios;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The first such call of the run, on a path or a file in the state directory; null without one.
const CallEntry* Find(const RunResult& run, const std::string& function, const std::string& path) {
    const auto found = std::find_if(run.calls.begin(), run.calls.end(), [&](const CallEntry& call) {
        return call.function == function && (call.path == path || call.path == STATE + "/" + path);
    });
    return found == run.calls.end() ? nullptr : &*found;
}

bool HasFailed(const CallEntry& call) {
    return !call.error.empty() || call.result == "(nil)";
}

bool Failed(const RunResult& run, const std::string& function, const std::string& path) {
    const CallEntry* call = Find(run, function, path);
    return call != nullptr && HasFailed(*call);
}

// A request that changes the device, as a letter, a capital one if the device took it.
char Letter(const std::string& request) {
    const std::string answer = request.substr(request.rfind("-> ") + 3);
    return Contains(request, "GKI write " + answer + " ") ? 'G'
           : Contains(request, "GKI write ")              ? (answer[0] == '-' ? 'g' : 's')
           : Contains(request, "opcode=302 ")             ? (answer == "0" ? 'D' : 'd')
           : Contains(request, "opcode=303 ")             ? (answer == "0" ? 'I' : 'i')
           : Contains(request, "WRITE BUFFER ")           ? (answer == "GOOD" ? 'B' : 'b')
           : Contains(request, "SG_SCSI_RESET ")          ? 'r'
                                                          : '?';
}

// The letters of all requests, or of those up to a call.
std::string Updates(const RunResult& run, long last = LONG_MAX) {
    std::string letters;
    for (const DeviceRequest& request : run.requests) {
        if (request.number <= last && !Contains(request.text, "opcode=8 ")) { // a register is read
            letters += Letter(request.text);
        }
    }
    return letters;
}

bool IsComplete(const std::string& letters) {
    return letters.find_first_of("GIB") != std::string::npos;
}

// The ways in which a call can fail.
Texts Failures(const CallEntry& call) {
    const Texts never = {"free", "sleep", "__android_log_print"};
    const std::string half = "short=" + std::to_string(std::atol(call.result.c_str()) / 2);
    const bool moves = call.function == "read" || call.function == "write";
    const bool asks = call.function == "ioctl";
    return Count(never, call.function) > 0 ? Texts{}
           : moves                         ? Texts{"EIO", "short=0", "short=1", half}
           : asks && call.path == UFS_NODE ? Texts{"EIO", "EINTR"}
           : asks                          ? Texts{"EIO", "EINTR", "returns=1"}
                                           : Texts{"EIO"}; // or a null pointer
}

// What was tried in this or an earlier scenario, see AddJobs and PowerCuts.
bool IsNew(const std::string& what) {
    static std::set<std::string> tried;
    return tried.insert(what).second || everyPlace;
}

// Before and after a call, in a write to a state file also after each byte. Only calls that change
// the phone: at any other the same is left as at the next of them; and no write that is torn alike
// in an earlier scenario.
Texts PowerCuts(const Scenario& scenario, const CallEntry& call) {
    const Texts changing = {"creat", "ioctl", "mkdir", "open", "remove", "unlink", "write"};
    const bool changes = everyPlace || Count(changing, call.function) > 0;
    Texts ways = changes ? Texts{"end", "end-after"} : Texts{};
    const bool tears =
        call.function == "write" && call.path.rfind(STATE + "/f", 0) == 0 &&
        IsNew(call.path + ATTEMPTS[scenario.isUfs] + (scenario.files.empty() ? "" : "+"));
    for (long count = 0; tears && count <= std::stol(call.result); count++) {
        ways.push_back("torn=" + std::to_string(count));
    }
    return ways;
}

// Each call fails alone and with all later ones like it, and the power fails there. Not at calls
// that begin an earlier scenario's run as well; of more than eight of a function on one path, such
// as the clock's and those of the UFS trigger test, only at three.
void AddJobs(const Scenario& scenario, std::vector<Job>& jobs) {
    std::map<std::string, long> rank, count;
    for (const CallEntry& call : scenario.base.calls) {
        count[call.function + " " + call.path]++;
    }
    std::string begin; // a digest of the calls up to here: whole texts would slow each fork down
    for (const CallEntry& call : scenario.base.calls) {
        const std::string kind = call.function + " " + call.path;
        const long ofFunction = ++rank[call.function], ofKind = ++rank[kind], last = count[kind];
        const bool isOneOfThree = ofKind == 1 || ofKind == last / 2 || ofKind == last;
        begin = std::to_string(std::hash<std::string>()(begin + " " + kind + " " + call.error));
        if (!IsNew(begin) || (last > 8 && !isOneOfThree && !everyPlace)) {
            continue;
        }
        const std::string alone = "any #" + std::to_string(call.number) + " ";
        Texts places = {alone, call.function + " #" + std::to_string(ofFunction) + "+ "};
        if (call.path != "-" && ofKind < last) {
            places.push_back(kind + " #" + std::to_string(ofKind) + "+ ");
        }
        for (const std::string& way : Failures(call)) {
            for (const std::string& place : places) {
                jobs.push_back({&scenario, &call, way, place + way});
            }
        }
        for (const std::string& way : PowerCuts(scenario, call)) {
            jobs.push_back({&scenario, &call, way, alone + way, true});
        }
    }
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
    const bool passed = Contains(steps, PASSED), failed = Contains(steps, FAILED);
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
    static const std::regex course("(g{0,3}[gGs]|d|D[iI]|b?r?|B)?"); // see Letter
    const std::string steps = Steps(run), updates = Updates(run);
    const bool passed = Contains(steps, PASSED), isTold = passed || Contains(steps, FAILED);
    EXPECT_TRUE(std::regex_match(updates, course)) << updates;
    EXPECT_EQ(passed, IsComplete(updates) && !Failed(run, "close", UFS_NODE));
    if (passed) {
        const CallEntry* read = Find(run, "read", "ufs_fw_body.bin");
        const std::string sent = read ? BODY.substr(0, std::stoul(read->result)) : BODY;
        EXPECT_EQ(downloaded.substr(0, sent.size()), sent);
    }
    // What fails before the device is opened is nothing to do for UFS, and a failure for eMMC.
    if (scenario.isUfs) {
        EXPECT_EQ(isTold, Find(run, "open", UFS_NODE) != nullptr);
    } else if (!Contains(run.console, "NULL == ptm")) { // in place of a message
        EXPECT_EQ(isTold, Find(run, "remove", OK) != nullptr &&
                              !Contains(run.console, "no need to update"));
    }
}

class SweepTest : public PhoneTest {
protected:
    // Brings the phone into the state before the scenario's run.
    void Prepare(const Scenario& scenario) {
        if (prepared != &scenario) {
            Make(scenario.phone, {{scenario.isUfs ? UFS_PACKAGE : EMMC_PACKAGE, scenario.package}});
            prepared = &scenario;
        }
        for (const char* path : {STATE.c_str(), "/splash2/test_ffu_trigger.tmp", "/requests.log",
                                 "/device/downloaded.bin"}) {
            Put(path, MISSING);
        }
        for (const auto& [name, content] : scenario.files) {
            Put(STATE + "/" + name, content);
        }
    }

    void ExpectMet(const RunResult& run, const std::string& fault) {
        const Texts& unmet = run.unmetFaults;
        EXPECT_EQ(std::find(unmet.begin(), unmet.end(), fault), unmet.end());
    }

    // A run to its end, on a phone with these state files.
    RunResult RunToEnd(const Scenario& scenario, const std::string& fault, const Files& before) {
        const RunResult run = Run({fault, scenario.deviceFault}); // a call meets the first
        CheckRecord(scenario, run, before, State());
        CheckFlags(run, before, State());
        CheckOutcome(scenario, run, Get("/device/downloaded.bin"));
        return run;
    }

    void CheckFailingCall(const Job& job) {
        const Scenario& scenario = *job.scenario;
        const RunResult run = RunToEnd(scenario, job.fault, scenario.files);
        ExpectMet(run, job.fault);
        if (HasFailed(*job.call)) {
            return; // as it did without the fault
        }
        const std::string failure = job.call->function + " " + job.call->path + " " + job.way;
        const bool goesOn = std::regex_match(failure, GOES_ON);
        if (Updates(scenario.base, job.call->number).empty() &&
            (!goesOn || scenario.updates.empty())) {
            EXPECT_TRUE(Updates(run).empty() || Updates(run) == "r") << Updates(run);
        }
        const bool isStarted = Find(run, "remove", OK) != nullptr; // an update
        if (!isStarted && !goesOn && job.way == "EIO" && job.call->function != "access") {
            EXPECT_EQ(State().count(END), 0U);
        }
        EXPECT_TRUE(Steps(run) + run.console != Steps(scenario.base) + scenario.base.console ||
                    std::regex_match(failure, SILENT));
    }

    // The next run is on the same phone, without a restart that would show it what was downloaded.
    void CheckPowerCut(const Job& job) {
        const Scenario& scenario = *job.scenario;
        const std::string old = Get(STATE + "/" + RECORD);
        const RunResult cut = RunAnyhow({job.fault, scenario.deviceFault});
        EXPECT_EQ(cut.signal, SIGKILL);
        ExpectMet(cut, job.fault);
        const Files left = State();
        CheckRecord(scenario, cut, scenario.files, left);
        EXPECT_FALSE(left.count(BEGIN) && left.count(END));
        EXPECT_FALSE(left.count(OK) && left.count(FAIL));
        const std::string updates = Updates(cut);
        for (const std::string& flag : {OK, FAIL}) {
            if (left.count(flag)) { // of the attempt before until the device is asked
                const bool isOld = left.at(flag) == OLD_TIME;
                EXPECT_EQ(isOld, updates.empty());
                EXPECT_TRUE(isOld || IsComplete(updates) == (flag == OK));
            }
        }

        const std::string record = Get(STATE + "/" + RECORD);
        const RunResult run = RunToEnd(scenario, "", left);
        EXPECT_EQ(Updates(run), record == old ? scenario.updates : "");
        EXPECT_EQ(Contains(Steps(run), "CheckResultFile: ParseResultFile error\n"),
                  record != old && !Contains(record, ATTEMPTS[scenario.isUfs]));
    }

    // Each Nth of the jobs, in a process for each processor, until one fails.
    void ShareOut(const std::vector<Job>& jobs) {
        const size_t workers = std::max(1U, std::thread::hardware_concurrency());
        size_t worker = 0;
        fflush(stdout);
        while (worker < workers && fork() != 0) {
            worker++;
        }
        if (worker < workers) {
            prepared = nullptr;
            directory += "-" + std::to_string(worker);
            for (size_t i = worker; i * everyNth < jobs.size() && !HasFailure(); i += workers) {
                const Job& job = jobs[i * everyNth];
                SCOPED_TRACE(job.scenario->name + ": " + job.fault);
                Prepare(*job.scenario);
                job.isPowerCut ? CheckPowerCut(job) : CheckFailingCall(job);
            }
            fflush(stdout);
            _exit(HasFailure() ? 1 : 0);
        }
        for (int status = -1; worker > 0; worker--) {
            EXPECT_TRUE(wait(&status) > 0 && status == 0);
        }
    }

    const Scenario* prepared = nullptr; // for which the phone was made
};

TEST_F(SweepTest, EachCallFailsAndThePowerAtEachCall) {
    std::vector<Scenario> scenarios = Scenarios();
    std::vector<Job> jobs;
    size_t calls = 0;
    for (Scenario& scenario : scenarios) {
        SCOPED_TRACE(scenario.name);
        Prepare(scenario);
        scenario.base = RunToEnd(scenario, "", scenario.files);
        EXPECT_EQ(Updates(scenario.base), scenario.updates);
        AddJobs(scenario, jobs);
        calls += scenario.base.calls.size();
        printf("%-36s%5zu calls,%5zu faults up to here\n", scenario.name.c_str(),
               scenario.base.calls.size(), jobs.size());
    }
    const long cuts =
        std::count_if(jobs.begin(), jobs.end(), [](const Job& job) { return job.isPowerCut; });
    printf("%zu scenarios, %zu calls, %ld failing calls, %ld power cuts; each %zu is tried\n",
           scenarios.size(), calls, static_cast<long>(jobs.size()) - cuts, cuts, everyNth);
    ShareOut(jobs);
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (const std::string& option : Texts(argv + 1, argv + argc)) {
        everyPlace = everyPlace || option == "--all";
        everyNth = option.rfind("--every=", 0) == 0 ? std::stoul(option.substr(8)) : everyNth;
    }
    // For speed: 8 MiB of each UFS run in fewer page faults, and phones that are not on a disk.
    setenv("GLIBC_TUNABLES", "glibc.malloc.hugetlb=1", 0);
    setenv("TMPDIR", access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp", 0);
    return RUN_ALL_TESTS();
}
