// Every call of a run fails once, and the power fails at every call: some thousand whole runs on
// simulated phones, shared out to a process for each processor. A failure here is a phone that is
// told a false outcome, gets a firmware twice, or loses its record.
//
// Runs that would hardly differ from others are left out (ChosenPlaces, PowerFailures), but for
// --all; with --every=N only each Nth one is made.
#include "test/phone.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
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
                  RECORD = "fw_result", BODY_FILE = "ufs_fw_body.bin";
const std::string UFS_NODE = "/dev/block/sdc";
const std::string BODY = Body(600); // no whole blocks
const std::string OLD_TIME = "Fri Mar  6 09:05:02 2026\n";

struct Scenario {
    std::string name, phone, package, deviceFault;
    std::string updates; // the requests of the base run, see Letter
    bool isUfs = false;
    std::string attempt = {}; // the second line of the record that a run may append
    Files files = {};         // in the state directory before the run
    RunResult base = {};      // the run without a further fault
    long known = 0;           // that many of its calls begin an earlier scenario's run, too
};

// A fault that a run meets at a call of the base run.
struct Job {
    const Scenario* scenario;
    const CallEntry* call;
    std::string way, fault;
};

// Failures, as "function path way", that do not keep a run from its download.
const std::regex GOES_ON(
    "(close|munmap|fclose|time|ctime|localtime|gettimeofday) .*" // their result is of no use
    "|(remove|unlink) .*"                                        // the file need not be there
    "|access .*/(fw_result|ffu.ok|ffu.fail) .*"          // a no: never attempted, no outcome
    "|access /proc/bootdevice/ffu .*"                    // a no: normal mode
    "|write .*/fw_result short=[1-9].*"                  // one byte on record is enough
    "|read /proc/bootdevice/(product_name|rev) short=.*" // UFS takes the rest for blanks
    "|read .*/ufs_fw_body.bin short=.*"                  // what could be read is sent
    "|(fopen|fgets) /proc/devices .*");                  // libsgutils2 asks for the node's kind

// Failures that no log tells.
const std::regex SILENT("(munmap|fclose|fsync|time|ctime|gettimeofday) .*"
                        "|close (?!/dev/block/sdc).*" // of the UFS device it is told
                        "|access /dev/block/.*"       // no storage device: an end without a word
                        "|remove .*/(ffu.ok|ffu.fail|ufs_fw_body.bin) .*"
                        "|write .*/fw_result short=[1-9].*"
                        "|write .*/(ffu.ok|ffu.fail) .*" // the time in it is for the reader only
                        "|(fopen|fgets) /proc/devices .*");

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
        Scenario scenario = scenarios[i];
        const bool isUfs = scenario.isUfs;
        const std::string line = "product name:" + (isUfs ? UFS_PNM : EMMC_PNM) +
                                 ", current fw version:" + (isUfs ? UFS_REV : EMMC_REV) +
                                 ", upgrading to version:";
        scenario.attempt = line + (isUfs ? UFS_NEW_REV : EMMC_NEW_REV) + "\n";
        scenarios[i] = scenario;
        scenario.name += ", after another";
        scenario.files = {
            {RECORD, OLD_TIME + line + "X\n"}, {isUfs ? FAIL : OK, OLD_TIME}, {END, ""}};
        scenarios.push_back(scenario);
    }
    return scenarios;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

bool IsStateFile(const std::string& path) { // one with content
    return path.rfind(STATE + "/f", 0) == 0;
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

struct Updates {
    std::string letters;
    long first = LONG_MAX; // the number of the first request
    bool isComplete = false;
};

Updates UpdatesOf(const RunResult& run) {
    Updates updates;
    for (const DeviceRequest& request : run.requests) {
        if (!Contains(request.text, "opcode=8 ")) { // reading a register changes nothing
            updates.letters += Letter(request.text);
            updates.first = std::min(updates.first, request.number);
            updates.isComplete =
                Contains("GIB", updates.letters.substr(updates.letters.size() - 1));
        }
    }
    return updates;
}

// Both logs, and the standard error without the copy of the system log there.
std::string Told(const RunResult& run) {
    static const std::regex copy("[^\n]* FFU process [^\n]*\n\n?");
    return Steps(run) + run.console + std::regex_replace(run.errors, copy, "");
}

bool HasNothingToDo(const std::string& steps) {
    return Contains(steps, "CheckFwBin: fw file not found") ||
           Contains(steps, "CheckFwBin: pnm not found") ||
           Contains(steps, "CheckFwBin: local fw rev ") ||
           Contains(steps, "firmware in fw file has been applied");
}

// A call of the base run, and as a fault names it: alone, and with all later ones like it.
struct Place {
    const CallEntry* call;
    std::string alone;
    Texts withLater;
};

// Not the calls that begin an earlier scenario's run as well; of more than eight of a function on
// one path, such as the clock's and those of the UFS trigger test, only three.
std::vector<Place> ChosenPlaces(const Scenario& scenario) {
    std::map<std::string, long> rank, count;
    for (const CallEntry& call : scenario.base.calls) {
        count[call.function + " " + call.path]++;
    }
    std::vector<Place> places;
    for (const CallEntry& call : scenario.base.calls) {
        const std::string kind = call.function + " " + call.path;
        const long ofFunction = ++rank[call.function], ofKind = ++rank[kind], last = count[kind];
        const bool isOneOfThree = ofKind == 1 || ofKind == last / 2 || ofKind == last;
        if (!everyPlace && (call.number <= scenario.known || (last > 8 && !isOneOfThree))) {
            continue;
        }
        Texts withLater = {call.function + " #" + std::to_string(ofFunction) + "+ "};
        if (call.path != "-" && ofKind < last) {
            withLater.push_back(kind + " #" + std::to_string(ofKind) + "+ ");
        }
        places.push_back({&call, "any #" + std::to_string(call.number) + " ", withLater});
    }
    return places;
}

Texts Ways(const CallEntry& call) {
    if (Count({"free", "sleep", "__android_log_print"}, call.function) > 0) {
        return {}; // they do not fail
    }
    if (call.function == "read" || call.function == "write") {
        return {"EIO", "short=0", "short=1", "short=" + std::to_string(std::stol(call.result) / 2)};
    }
    if (call.function == "ioctl") {
        return call.path == UFS_NODE ? Texts{"EIO", "EINTR"} : Texts{"EIO", "EINTR", "returns=1"};
    }
    return {"EIO"}; // a null pointer as well
}

std::vector<Job> FailingCalls(const Scenario& scenario) {
    std::vector<Job> jobs;
    for (const Place& place : ChosenPlaces(scenario)) {
        for (const std::string& way : Ways(*place.call)) {
            jobs.push_back({&scenario, place.call, way, place.alone + way});
            for (const std::string& calls : place.withLater) {
                jobs.push_back({&scenario, place.call, way, calls + way});
            }
        }
    }
    return jobs;
}

// Before and after a call, in a write to a state file also after each byte. Only calls that change
// the phone: at any other the same is left as at the next of them; and no write that is torn alike
// in an earlier scenario.
std::vector<Job> PowerFailures(const Scenario& scenario) {
    static std::set<std::string> torn;
    const Texts changing = {"creat", "ioctl", "mkdir", "open", "remove", "unlink", "write"};
    std::vector<Job> jobs;
    for (const Place& place : ChosenPlaces(scenario)) {
        const CallEntry& call = *place.call;
        if (!everyPlace && Count(changing, call.function) == 0) {
            continue;
        }
        Texts ways = {"end", "end-after"};
        const std::string write = scenario.attempt + std::to_string(scenario.files.size());
        const bool tears = call.function == "write" && IsStateFile(call.path) &&
                           (torn.insert(call.path + write).second || everyPlace);
        for (long count = 0; tears && count <= std::stol(call.result); count++) {
            ways.push_back("torn=" + std::to_string(count));
        }
        for (const std::string& way : ways) {
            jobs.push_back({&scenario, &call, way, place.alone + way});
        }
    }
    return jobs;
}

// How many calls two runs have in common from their beginning.
long CommonCalls(const RunResult& run, const RunResult& other) {
    const auto isSame = [](const CallEntry& one, const CallEntry& two) {
        return one.function == two.function && one.path == two.path && one.error == two.error;
    };
    const auto ends = std::mismatch(run.calls.begin(), run.calls.end(), other.calls.begin(),
                                    other.calls.end(), isSame);
    return ends.first - run.calls.begin();
}

// Whether the run came to its end or not: no file was truncated, and the record grew by one attempt
// at most, before the device was asked to change.
void CheckRecord(const Scenario& scenario, const RunResult& run, Files before, Files after) {
    const std::string record = after[RECORD], old = before[RECORD];
    ASSERT_EQ(record.substr(0, old.size()), old);
    std::string grown = record.substr(old.size()), attempt = CLOCK_TEXT + scenario.attempt;
    if (Failed(run, "time", "-") || Failed(run, "ctime", "-")) { // another time, or none
        grown.erase(0, std::min(grown.find("product name"), grown.size()));
        attempt = scenario.attempt;
    }
    EXPECT_EQ(grown, attempt.substr(0, grown.size()));
    const Updates updates = UpdatesOf(run);
    if (!updates.letters.empty()) {
        const CallEntry* write = Find(run, "write", RECORD);
        EXPECT_TRUE(!grown.empty() && write != nullptr && write->number < updates.first);
    }
    for (const CallEntry& call : run.calls) {
        if (call.function == "open" && IsStateFile(call.path)) { // arguments: "flags=0x..."
            EXPECT_FALSE(std::stoul(call.arguments.substr(6), nullptr, 16) & O_TRUNC) << call.path;
        }
    }
}

// Begin flag, end flag and exit status tell how the run ended.
void CheckFlags(const RunResult& run, const Files& before, const Files& after) {
    const std::string steps = Steps(run);
    const bool isRegular = Find(run, "remove", OK) != nullptr // an update was started
                               ? !Contains(steps, "UpdateResultFlag: upgrade to")
                               : HasNothingToDo(steps);
    const bool noDirectory = Failed(run, "mkdir", STATE), noEnd = Failed(run, "open", END);
    EXPECT_EQ(run.exitStatus, noDirectory || noEnd ? 255 : 0);
    EXPECT_EQ(Contains(steps, "CreateResultDir: mkdir"), noDirectory);
    EXPECT_EQ(Contains(steps, "EndFlag: open"), noEnd);

    const bool staleEnd = before.count(END) && (noDirectory || Failed(run, "remove", END));
    EXPECT_EQ(after.count(END), staleEnd || (isRegular && !noEnd));
    const bool begun = before.count(BEGIN) || !(noDirectory || Failed(run, "open", BEGIN));
    EXPECT_EQ(after.count(BEGIN), begun && (!isRegular || Failed(run, "remove", BEGIN)));
}

// Device, logs and outcome flags tell the same.
void CheckOutcome(const Scenario& scenario, const RunResult& run, const Files& before,
                  const Files& after, const std::string& downloaded) {
    static const std::regex course("(g{0,3}[gGs]|d|D[iI]|b?r?|B)?"); // see Letter
    const std::string steps = Steps(run);
    const Updates updates = UpdatesOf(run);
    const bool passed = Contains(steps, "UpdateResultFlag: update to");
    const bool failed = Contains(steps, "UpdateResultFlag: upgrade to");
    const bool isStarted = Find(run, "remove", OK) != nullptr;
    EXPECT_TRUE(std::regex_match(updates.letters, course)) << updates.letters;
    EXPECT_EQ(passed, updates.isComplete && !Failed(run, "close", UFS_NODE));
    if (passed) {
        const CallEntry* read = Find(run, "read", BODY_FILE);
        const std::string sent = read ? BODY.substr(0, std::stoul(read->result)) : BODY;
        EXPECT_EQ(downloaded.substr(0, sent.size()), sent);
    }
    // What fails before the device is opened is nothing to do for UFS, and a failure for eMMC.
    if (isStarted && scenario.isUfs) {
        EXPECT_EQ(passed || failed, Find(run, "open", UFS_NODE) != nullptr);
    } else if (isStarted && !Contains(run.console, "NULL == ptm")) { // in place of a message
        EXPECT_EQ(passed || failed, !Contains(run.console, "no need to update"));
    }
    for (const auto& [flag, isSet] : std::map<std::string, bool>{{OK, passed}, {FAIL, failed}}) {
        const bool isStale = before.count(flag) && (!isStarted || Failed(run, "remove", flag));
        EXPECT_EQ(after.count(flag), isStale || (isSet && !Failed(run, "open", flag))) << flag;
    }
}

struct SweepTest : PhoneTest {
    using Check = void (SweepTest::*)(const Job&);

    // Brings the phone into the state before the scenario's run.
    void Prepare(const Scenario& scenario) {
        if (prepared != scenario.name) {
            Make(scenario.phone, {{scenario.isUfs ? UFS_PACKAGE : EMMC_PACKAGE, scenario.package}});
            prepared = scenario.name;
        }
        for (const char* path : {STATE.c_str(), "/splash2/test_ffu_trigger.tmp", "/requests.log",
                                 "/device/downloaded.bin", "/device/pending"}) {
            Put(path, MISSING);
        }
        const std::filesystem::path state = STATE;
        for (const auto& [name, content] : scenario.files) {
            Put(state / name, content);
        }
    }

    RunResult RunOnce(const Scenario& scenario, const std::string& fault) const {
        RunOptions options;
        options.libsimphone = SIMPHONE_LIBRARY;
        for (const std::string& text : {fault, scenario.deviceFault}) { // a call meets the first
            options.faults.insert(options.faults.end(), text.empty() ? 0 : 1, text);
        }
        RunResult run = RunTool(directory, FFU_PATH, options);
        EXPECT_EQ(run.error, "");
        EXPECT_FALSE(run.timedOut);
        return run;
    }

    void Sweep(std::vector<Job> (*jobsOf)(const Scenario&), Check check);
    void ShareOut(const std::vector<Job>& jobs, Check check);
    void CheckWholeRun(const Scenario& scenario, const RunResult& run, const Files& before) const;
    void CheckFailingCall(const Job& job);
    void CheckPowerFailure(const Job& job);

    std::string prepared; // the scenario for which the phone was made
};

void SweepTest::CheckWholeRun(const Scenario& scenario, const RunResult& run,
                              const Files& before) const {
    ASSERT_EQ(run.signal, 0) << run.errors;
    ExpectAllGivenBack(run);
    CheckRecord(scenario, run, before, State());
    CheckFlags(run, before, State());
    CheckOutcome(scenario, run, before, State(), Get("/device/downloaded.bin"));
}

void SweepTest::CheckFailingCall(const Job& job) {
    const Scenario& scenario = *job.scenario;
    Prepare(scenario);
    const RunResult run = RunOnce(scenario, job.fault);
    CheckWholeRun(scenario, run, scenario.files);
    if (HasFailed(*job.call)) {
        return; // as it did without the fault
    }
    const std::string failure = job.call->function + " " + job.call->path + " " + job.way;
    const std::string letters = UpdatesOf(run).letters;
    const bool goesOn = std::regex_match(failure, GOES_ON);
    if (job.call->number < UpdatesOf(scenario.base).first &&
        (!goesOn || scenario.updates.empty())) {
        EXPECT_TRUE(letters.empty() || letters == "r") << letters;
    }
    const CallEntry* update = Find(scenario.base, "remove", OK); // begins it
    const bool isBefore = update == nullptr || job.call->number < update->number;
    if (isBefore && !goesOn && job.way == "EIO" && job.call->function != "access") {
        EXPECT_EQ(State().count(END), 0U);
    }
    EXPECT_TRUE(Told(run) != Told(scenario.base) || std::regex_match(failure, SILENT));
}

// The next run is on the same phone, without a restart that would show it what was downloaded.
void SweepTest::CheckPowerFailure(const Job& job) {
    const Scenario& scenario = *job.scenario;
    Prepare(scenario);
    const RunResult cut = RunOnce(scenario, job.fault);
    EXPECT_EQ(cut.signal, SIGKILL);
    const Files left = State();
    CheckRecord(scenario, cut, scenario.files, left);
    EXPECT_FALSE(left.count(BEGIN) && left.count(END));
    EXPECT_FALSE(left.count(OK) && left.count(FAIL));
    const Updates updates = UpdatesOf(cut);
    for (const std::string& flag : {OK, FAIL}) {
        if (left.count(flag)) { // of the attempt before until the device is asked
            EXPECT_EQ(left.at(flag) == OLD_TIME, updates.letters.empty());
            EXPECT_TRUE(flag == FAIL || updates.letters.empty() || updates.isComplete);
        }
    }

    const std::string record = Get(STATE + "/" + RECORD);
    const RunResult run = RunOnce(scenario, "");
    CheckWholeRun(scenario, run, left);
    const auto old = scenario.files.find(RECORD);
    const bool isUntouched = record == (old == scenario.files.end() ? MISSING : old->second);
    const bool isAttempted = Contains(record, scenario.attempt);
    EXPECT_EQ(UpdatesOf(run).letters, isUntouched ? scenario.updates : "");
    EXPECT_EQ(Contains(Steps(run), "CheckResultFile: ParseResultFile error\n"),
              !isUntouched && !isAttempted);
}

void SweepTest::Sweep(std::vector<Job> (*jobsOf)(const Scenario&), Check check) {
    std::vector<Scenario> scenarios = Scenarios();
    std::vector<Job> jobs;
    size_t calls = 0;
    for (auto scenario = scenarios.begin(); scenario != scenarios.end(); scenario++) {
        SCOPED_TRACE(scenario->name);
        Prepare(*scenario);
        scenario->base = RunOnce(*scenario, "");
        CheckWholeRun(*scenario, scenario->base, scenario->files);
        EXPECT_EQ(UpdatesOf(scenario->base).letters, scenario->updates);
        for (auto earlier = scenarios.begin(); earlier != scenario; earlier++) {
            scenario->known = std::max(scenario->known, CommonCalls(scenario->base, earlier->base));
        }
        const std::vector<Job> more = jobsOf(*scenario);
        jobs.insert(jobs.end(), more.begin(), more.end());
        calls += scenario->base.calls.size();
        printf("%-36s%5zu calls,%4ld known,%5zu faults\n", scenario->name.c_str(),
               scenario->base.calls.size(), scenario->known, more.size());
    }
    printf("%zu scenarios, %zu calls, %zu faults, of which %zu are tried\n", scenarios.size(),
           calls, jobs.size(), (jobs.size() + everyNth - 1) / everyNth);
    ShareOut(jobs, check);
}

void SweepTest::ShareOut(const std::vector<Job>& jobs, Check check) {
    const auto* result = testing::UnitTest::GetInstance()->current_test_info()->result();
    const size_t workers = std::max(1U, std::thread::hardware_concurrency());
    std::vector<pid_t> children(workers);
    fflush(stdout);
    for (size_t worker = 0; worker < workers; worker++) {
        children[worker] = fork();
        if (children[worker] != 0) {
            continue;
        }
        directory += "-" + std::to_string(worker);
        prepared = "";
        const size_t step = workers * everyNth;
        for (size_t i = worker * everyNth; i < jobs.size(); i += step) {
            SCOPED_TRACE(jobs[i].scenario->name + ": " + jobs[i].fault);
            (this->*check)(jobs[i]);
            if (result->total_part_count() >= 10) {
                break; // enough to look at
            }
        }
        fflush(stdout);
        _exit(HasFailure() ? 1 : 0);
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
}

TEST_F(SweepTest, EachCallFails) {
    Sweep(FailingCalls, &SweepTest::CheckFailingCall);
}

TEST_F(SweepTest, PowerFails) {
    Sweep(PowerFailures, &SweepTest::CheckPowerFailure);
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
