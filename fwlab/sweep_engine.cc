// Makes the runs of a sweep: base runs first, then the jobs, shared out to a process for each
// processor, and a normal run on each distinct phone that a job has left. The processes write what
// they find to files, which are read together at the end.
#include "fwlab/sweep_engine.h"

#include "fwlab/package.h"
#include "fwlab/work_folder.h"
#include "simphone/description.h"
#include "simphone/files.h"
#include "simphone/phone.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string STATE = "/data/vendor/fw/";
const std::string RECORD = "fw_result";
const std::string UFS_NODE = "/dev/block/sdc";
const std::string CLOCK = "clock = 2026-03-07T09:05:02.041\n"; // of a phone that has none

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

// What the processes share.
struct Shared {
    std::atomic<size_t> next, done, runs, states;
};

struct Plan {
    const std::vector<SweepScenario>& scenarios;
    const SweepOptions& options;
    std::string directory; // temporary, for all that is made
    SweepResult& result;
    Shared& shared;
};

struct Worker {
    const Plan& plan;
    std::string phone;
    std::ofstream findings;
    size_t prepared;       // the scenario that the phone was made for
    size_t violations = 0; // found so far
};

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Short, for a name of a file or a digest.
std::string Key(const std::string& text) {
    return fmt::format("{:x}", std::hash<std::string>()(text));
}

bool IsAmong(const Texts& texts, const std::string& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

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

// Whether the device was asked to take a firmware; a reset asks for nothing.
bool IsAttempt(const std::string& updates) {
    return updates.find_first_not_of('r') != std::string::npos;
}

std::string RecordOf(const StateDirectory& state) {
    const auto record = state.files.find(RECORD);
    return record == state.files.end() ? "" : record->second;
}

// ---- The jobs ----

// What a read or write moved.
long Moved(const CallEntry& call) {
    return strtol(call.result.c_str(), nullptr, 10);
}

// The ways in which a call can fail.
Texts Failures(const CallEntry& call) {
    const Texts never = {"sleep", LOG_FUNCTION};
    const std::string half = "short=" + std::to_string(Moved(call) / 2);
    const bool moves = call.function == "read" || call.function == "write";
    const bool asks = call.function == "ioctl";
    return IsAmong(never, call.function)   ? Texts{}
           : moves                         ? Texts{"EIO", "short=0", "short=1", half}
           : asks && call.path == UFS_NODE ? Texts{"EIO", "EINTR"}
           : asks                          ? Texts{"EIO", "EINTR", "returns=1"}
                                           : Texts{"EIO"};
}

bool ChangesThePhone(const CallEntry& call) {
    const Texts changing = {"creat", "fsync", "ioctl", "mkdir", "remove", "unlink", "write"};
    const size_t flags = call.arguments.find("flags=");
    return IsAmong(changing, call.function) ||
           (call.function == "open" &&
            std::stoul(call.arguments.substr(flags + 6), nullptr, 0) & O_CREAT);
}

// The calls that change the phone, by their place in the run.
std::vector<size_t> ChangingCalls(const RunResult& run) {
    std::vector<size_t> calls;
    for (size_t i = 0; i < run.calls.size(); i++) {
        if (ChangesThePhone(run.calls[i])) {
            calls.push_back(i);
        }
    }
    return calls;
}

// What was tried in this or an earlier scenario.
using Tried = std::set<std::string>;

// Before a call that changes the phone, which is after the one before; after the last of them too.
// In a write to a flag or the record also after each byte, unless one like it was torn before.
Texts PowerCuts(const Plan& plan, const SweepScenario& scenario, const CallEntry& call,
                bool isAfterLast, Tried& tried) {
    const SweepOptions& options = plan.options;
    Texts ways;
    if (options.cutsEverywhere || ChangesThePhone(call) || isAfterLast) {
        ways.emplace_back("end");
    }
    const std::string kind = call.path + " " + call.result + (scenario.before.isThere ? "+" : "");
    const bool tears = call.function == "write" && call.path.rfind(STATE + "f", 0) == 0 &&
                       (tried.insert(kind).second || !options.skipsRepeats);
    for (long count = 0; tears && count <= Moved(call); count++) {
        ways.push_back("torn=" + std::to_string(count));
    }
    return ways;
}

// Each call fails alone and with all later ones like it, and the power fails there. With
// skipsRepeats not at calls that begin an earlier scenario's run as well; and of more than eight of
// a function on one path, such as the clock's and those of the UFS trigger test, only at three.
void AddJobs(const Plan& plan, size_t scenario, Tried& tried) {
    const RunResult& base = plan.result.bases[scenario];
    const std::vector<size_t> changing = ChangingCalls(base);
    std::map<std::string, long> rank;
    std::map<std::string, long> count;
    for (const CallEntry& call : base.calls) {
        count[call.function + " " + call.path]++;
    }
    std::string begin; // a digest of the calls up to here: whole texts would slow each fork down
    for (size_t i = 0; i < base.calls.size(); i++) {
        const CallEntry& call = base.calls[i];
        const std::string kind = call.function + " " + call.path;
        const long ofFunction = ++rank[call.function];
        const long ofKind = ++rank[kind];
        const long last = count[kind];
        const bool isOneOfThree = ofKind == 1 || ofKind == last / 2 || ofKind == last;
        begin.append(" ").append(kind).append(" ").append(call.error);
        begin = Key(begin);
        const bool isRepeat = !tried.insert(begin).second || (last > 8 && !isOneOfThree);
        if (isRepeat && plan.options.skipsRepeats) {
            continue;
        }
        const std::string alone = "any #" + std::to_string(call.number) + " ";
        Texts places = {alone, call.function + " #" + std::to_string(ofFunction) + "+ "};
        if (call.path != "-" && ofKind < last) {
            places.push_back(kind + " #" + std::to_string(ofKind) + "+ ");
        }
        for (const std::string& way : Failures(call)) {
            for (const std::string& place : places) {
                plan.result.jobs.push_back({scenario, i, way, place + way, false});
            }
        }
        const bool isAfterLast = !changing.empty() && i == changing.back() + 1;
        for (const std::string& way :
             PowerCuts(plan, plan.scenarios[scenario], call, isAfterLast, tried)) {
            plan.result.jobs.push_back({scenario, i, way, alone + way, true});
        }
    }
}

// ---- Runs ----

void RemoveDeviceFiles(const std::string& phone) {
    for (const char* file : {"/device/downloaded.bin", "/device/pending"}) {
        fs::remove(phone + file);
    }
}

void PutState(const std::string& phone, const StateDirectory& state) {
    const bool isPut = WriteStateDirectory(phone, state);
    Require(isPut, 2, phone + ": its state directory cannot be written");
}

// Brings the worker's phone into the state before the scenario's run.
void Prepare(Worker& worker, size_t scenario) {
    const std::string& phone = worker.phone;
    if (worker.prepared != scenario) {
        fs::remove_all(phone);
        std::string error;
        const std::string description = fmt::format("{}/{}.toml", worker.plan.directory, scenario);
        Require(MakePhone(description, {}, phone, error), 2, error);
        Require(PutPackage(worker.plan.scenarios[scenario].package, phone, error), 2, error);
        worker.prepared = scenario;
    }
    RemoveDeviceFiles(phone);
    fs::remove(phone + "/splash2/test_ffu_trigger.tmp");
    PutState(phone, worker.plan.scenarios[scenario].before);
}

SweepRun Run(Worker& worker, SweepRun::Kind kind, size_t scenario, const SweepJob* job,
             const std::string& fault) {
    const Plan& plan = worker.plan;
    RunOptions options;
    options.libsimphone = plan.options.phoneLibrary;
    if (!fault.empty()) {
        options.faults = {fault};
    }
    SweepRun run = {kind, &plan.scenarios[scenario], nullptr, job, {}, {}, {}, worker.phone};
    run.before = ReadStateDirectory(worker.phone);
    run.run = RunTool(worker.phone, plan.options.tool, options);
    Require(run.run.error.empty(), 2, run.run.error);
    run.after = ReadStateDirectory(worker.phone);
    run.base = kind == SweepRun::BASE ? &run.run : &plan.result.bases[scenario];
    plan.shared.runs++;
    return run;
}

// What the device has taken and will run after a restart; empty: nothing.
std::string TakenImage(const std::string& phone) {
    std::string image;
    const bool isPending = fs::exists(phone + "/device/pending");
    return isPending && ReadWholeFile(phone + "/device/downloaded.bin", image) ? image : "";
}

// ---- What must hold ----

Texts Invariants(const SweepRun& made) {
    const RunResult& run = made.run;
    Texts wrong;
    const auto expect = [&](bool isSo, const std::string& text) {
        if (!isSo) {
            wrong.push_back(text);
        }
    };
    const std::string updates = Updates(run);
    const std::string old = RecordOf(made.before);
    const std::string record = RecordOf(made.after);
    const bool isCut = made.kind == SweepRun::POWER_CUT;
    expect(run.signal == (isCut ? SIGKILL : 0),
           run.timedOut ? "the tool does not end" : "the tool does not end as it should");
    expect(run.unmetFaults.empty(), "no call of the run meets the fault");
    expect(record.rfind(old, 0) == 0, "the record loses what it had");
    expect(updates.empty() || record.size() > old.size(),
           "the device is asked before the attempt is on record");
    expect(std::count_if(updates.begin(), updates.end(), IsComplete) <= 1,
           "the device takes the firmware twice in one run");
    if (made.kind == SweepRun::FAILING_CALL) {
        const CallEntry& call = made.base->calls[made.job->call];
        const bool isBefore = Updates(*made.base, call.number).empty();
        const bool mustStop = !MayGoOn(call, made.job->way) || Updates(*made.base).empty();
        expect(HasFailed(call) || !isBefore || !mustStop || !IsAttempt(updates),
               "the device is asked after a failure that must stop the run");
    }
    return wrong;
}

// ---- What the workers find: a letter and fields in each line, read by ReadFindings ----

// True for the first of all processes that asks.
bool IsFirst(const Plan& plan, const std::string& key) {
    return mkdir((plan.directory + "/claims/" + key).c_str(), 0700) == 0;
}

// Keeps the run's time line and returns its key.
std::string KeepTimeLine(const Plan& plan, const RunResult& run) {
    if (!plan.options.keepsTimeLines) {
        return "-";
    }
    std::string text;
    for (const TimeLineEntry& entry : TimeLine(run)) {
        text.append(entry.source).append("\t").append(entry.text).append("\n");
    }
    std::string key = Key(text);
    if (IsFirst(plan, "line-" + key)) {
        std::ofstream(plan.directory + "/lines/" + key) << text;
    }
    return key;
}

// What a run is about: the job, null for the base run, its fault with all that is lost, and that of
// a second power cut.
struct Case {
    size_t scenario;
    const SweepJob* job;
    std::string fault, secondCut = {};
};

void Violate(Worker& worker, const Case& about, const Texts& texts) {
    if (!texts.empty() && worker.plan.options.stopsAtFirst) {
        worker.plan.shared.next = worker.plan.result.jobs.size(); // no more jobs
    }
    worker.violations += texts.size();
    const std::string after =
        about.secondCut.empty() ? "" : ", after a second cut: " + about.secondCut;
    for (const std::string& text : texts) {
        worker.findings << "V\t" << about.scenario << "\t"
                        << (about.job == nullptr ? 0 : about.job->call) << "\t" << about.fault
                        << "\t" << Escaped(text + after) << "\n";
    }
}

// Everything that is wrong about the run.
void Check(Worker& worker, const Case& about, const SweepRun& run) {
    Violate(worker, about, Invariants(run));
    if (worker.plan.options.check) {
        Violate(worker, about, worker.plan.options.check(run));
    }
}

// `asked` are the requests of the runs before on this phone; those of the run are added.
void NoteRequests(Worker& worker, const Case& about, const RunResult& run, std::string& asked) {
    const std::string updates = Updates(run);
    if (IsAttempt(asked) && IsAttempt(updates)) {
        Violate(worker, about,
                {"a later run, without a restart, asks the device for the update again"});
    }
    asked += updates;
}

// A normal run on what is left.
SweepRun RunNext(Worker& worker, const Case& about, std::string& asked) {
    SweepRun next = Run(worker, SweepRun::NEXT, about.scenario, about.job, "");
    Check(worker, about, next);
    NoteRequests(worker, about, next.run, asked);
    return next;
}

// The power fails in a run, at a call that changes the phone in a run like it, and leaves one of
// the states that it can leave; another normal run follows.
void CutAndRunNext(Worker& worker, Case about, const RunResult& like, size_t turn,
                   std::string& asked) {
    const std::vector<size_t> calls = ChangingCalls(like);
    const long number = calls.empty() ? 1 : like.calls[calls[turn % calls.size()]].number;
    about.secondCut = "any #" + std::to_string(number) + " end";
    const SweepRun cut =
        Run(worker, SweepRun::POWER_CUT, about.scenario, about.job, about.secondCut);
    NoteRequests(worker, about, cut.run, asked);
    const auto survivals = Survivals(cut.before, cut.after, cut.run.calls);
    const Survival& left = survivals[turn / 64 % survivals.size()];
    PutState(worker.phone, left.state);
    about.secondCut += (left.losses.empty() ? "" : " ") + LossText(left.losses);
    (void)RunNext(worker, about, asked);
}

// `taken` is the image that the device has before the next run.
Fate FateOf(const Plan& plan, const Case& about, const std::string& updates,
            const std::string& taken, const SweepRun& next) {
    const bool isStuck =
        std::any_of(next.run.calls.begin(), next.run.calls.end(), [](const CallEntry& call) {
            return call.IsMessage() &&
                   Contains(call.text, "CheckResultFile: ParseResultFile error");
        });
    const std::string old = RecordOf(plan.scenarios[about.scenario].before);
    const bool isAttempted =
        IsAttempt(updates + Updates(next.run)) || RecordOf(next.after).size() > old.size();
    const std::string takenNext = TakenImage(next.phone);
    const std::string image = taken.empty() ? takenNext : taken;
    return !image.empty() && image != plan.result.baseImages[about.scenario] ? Fate::OTHER_IMAGE
           : isStuck                                                         ? Fate::STUCK
           : !taken.empty()                                                  ? Fate::UPDATED
           : !takenNext.empty()                                              ? Fate::UPDATED_NEXT
           : isAttempted                                                     ? Fate::USED_UP
                                                                             : Fate::UNTOUCHED;
}

bool IsTorn(const SweepJob& job) {
    return job.way.rfind("torn=", 0) == 0;
}

// Normal runs on a phone with this state, and power cuts between them; once for each distinct
// phone. Returns its key.
std::string Follow(Worker& worker, const Case& about, const StateDirectory& state,
                   const std::string& updates, const std::string& taken) {
    std::string text = fmt::format("{} {} {} {} {} ", about.scenario, IsTorn(*about.job), updates,
                                   Key(taken), state.isThere);
    for (const auto& [name, content] : state.files) {
        text += fmt::format("{} {} {}\n", name, content.size(), content);
    }
    std::string key = Key(text);
    if (!IsFirst(worker.plan, key)) {
        return key;
    }
    worker.plan.shared.states++;
    const size_t turn = std::hash<std::string>()(text);
    RemoveDeviceFiles(worker.phone); // what was downloaded and not installed is lost
    PutState(worker.phone, state);
    const size_t found = worker.violations;
    std::string asked = updates;
    const SweepRun next = RunNext(worker, about, asked);
    worker.findings << "K\t" << key << "\t"
                    << static_cast<int>(FateOf(worker.plan, about, updates, taken, next)) << "\t"
                    << KeepTimeLine(worker.plan, next.run) << "\n";
    if (worker.violations > found || IsTorn(*about.job)) { // known; or a state like many others
        return key;
    }
    CutAndRunNext(worker, about, next.run, turn, asked);
    if (IsAttempt(Updates(next.run))) { // the power fails in that run, too
        RemoveDeviceFiles(worker.phone);
        PutState(worker.phone, state);
        asked = updates;
        CutAndRunNext(worker, about, next.run, turn, asked);
    }
    return key;
}

bool IsRecordOpen(const RunResult& run) {
    bool isOpen = false;
    for (const CallEntry& call : run.calls) {
        const bool isDone = call.path == STATE + RECORD && call.error.empty() && !call.replaced;
        isOpen = isDone ? call.function != "fsync" && (isOpen || ChangesThePhone(call)) : isOpen;
    }
    return isOpen;
}

void Do(Worker& worker, size_t index) {
    const SweepJob& job = worker.plan.result.jobs[index];
    Prepare(worker, job.scenario);
    const SweepRun run = Run(worker, job.isPowerCut ? SweepRun::POWER_CUT : SweepRun::FAILING_CALL,
                             job.scenario, &job, job.fault);
    Check(worker, {job.scenario, &job, job.fault}, run);
    const std::string updates = Updates(run.run);
    const std::string taken = TakenImage(worker.phone);
    worker.findings << "J\t" << index << "\t" << (job.isPowerCut && IsRecordOpen(run.run)) << "\t"
                    << KeepTimeLine(worker.plan, run.run) << "\n";
    // What may be lost besides a torn write is so at the next cut, after the whole write.
    const bool mayLose = job.isPowerCut && !IsTorn(job);
    const std::vector<Survival> survivals = mayLose
                                                ? Survivals(run.before, run.after, run.run.calls)
                                                : std::vector<Survival>{{{}, run.after}};
    for (const Survival& survival : survivals) {
        const std::string losses = LossText(survival.losses);
        const std::string fault = job.fault + (losses.empty() ? "" : " ") + losses;
        const std::string key =
            Follow(worker, {job.scenario, &job, fault}, survival.state, updates, taken);
        worker.findings << "L\t" << index << "\t" << key << "\t" << losses << "\n";
    }
    worker.findings.flush();
}

// ---- The processes ----

void Work(Worker& worker) {
    const Plan& plan = worker.plan;
    const size_t step = plan.options.everyNth;
    for (size_t i = plan.shared.next++; i * step < plan.result.jobs.size();
         i = plan.shared.next++) {
        Do(worker, i * step);
        plan.shared.done++;
    }
}

std::string FindingsFile(const Plan& plan, size_t number) {
    return fmt::format("{}/findings-{}", plan.directory, number);
}

// In a new process: never returns. A group of its own, so that one signal ends the tool's run too.
[[noreturn]] void StartWorker(const Plan& plan, size_t number, const sigset_t& signals) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigprocmask(SIG_SETMASK, &signals, nullptr);
    // For speed: 8 MiB of each UFS run in fewer page faults.
    setenv("GLIBC_TUNABLES", "glibc.malloc.hugetlb=1", 0);
    int status = 0;
    try {
        Worker worker = {plan, fmt::format("{}/phone-{}", plan.directory, number),
                         std::ofstream(FindingsFile(plan, number)), SIZE_MAX};
        Work(worker);
    } catch (const Stop& stop) {
        std::ofstream(FindingsFile(plan, number), std::ios::app) << "E\t" << Escaped(stop.text);
        status = 1;
    } catch (const std::exception& error) {
        std::ofstream(FindingsFile(plan, number), std::ios::app) << "E\t" << error.what();
        status = 1;
    }
    fflush(stdout);
    _exit(status);
}

// Ends the workers and what they have started, and waits for all of it.
void EndAll(const std::set<pid_t>& workers) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // the tool's runs become children of this process
    for (const pid_t worker : workers) {
        kill(-worker, SIGKILL);
    }
    while (wait(nullptr) > 0 || errno == EINTR) {
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

void ShareOut(const Plan& plan, size_t processes, const sigset_t& signals) {
    SweepResult& result = plan.result;
    std::set<pid_t> workers;
    fflush(stdout);
    for (size_t i = 0; i < processes; i++) {
        const pid_t worker = fork();
        if (worker == 0) {
            StartWorker(plan, i, signals);
        }
        Require(worker > 0 || !workers.empty(), 2, "no process can be started");
        if (worker > 0) {
            setpgid(worker, worker); // whoever comes first
            workers.insert(worker);
        }
    }
    bool isBroken = false;
    while (!workers.empty() && result.interruptedBy == 0) {
        result.interruptedBy = TakeSignal(20);
        for (auto worker = workers.begin(); worker != workers.end();) {
            int status = 0;
            const bool hasEnded = waitpid(*worker, &status, WNOHANG) == *worker;
            isBroken = isBroken || (hasEnded && status != 0);
            worker = hasEnded ? workers.erase(worker) : std::next(worker);
        }
        if (isBroken) {
            plan.shared.next = result.jobs.size(); // the others end soon
        }
        if (plan.options.progress) {
            const size_t step = plan.options.everyNth;
            plan.options.progress(plan.shared.done, (result.jobs.size() + step - 1) / step);
        }
    }
    if (result.interruptedBy != 0) {
        EndAll(workers);
    }
    for (size_t i = 0; i < processes && isBroken; i++) {
        std::ifstream findings(FindingsFile(plan, i));
        for (std::string line; std::getline(findings, line);) {
            Require(line[0] != 'E', 2, line.substr(std::min<size_t>(2, line.size())));
        }
    }
    Require(!isBroken, 2, "a process of the sweep has died");
}

// ---- Together ----

struct Next {
    Fate fate;
    std::string timeLine;
};

// Time lines by their keys; each gets its number when it is first asked for.
size_t TimeLineNumber(const Plan& plan, const std::string& key,
                      std::map<std::string, size_t>& numbers) {
    const auto [place, isNew] = numbers.emplace(key, plan.result.timeLines.size());
    if (isNew) {
        std::string text;
        (void)ReadWholeFile(plan.directory + "/lines/" + key, text); // none are kept: empty
        plan.result.timeLines.push_back(text);
    }
    return place->second;
}

// The fields of all lines of the workers that begin with the letter.
std::vector<Texts> Findings(const Plan& plan, size_t processes, char letter) {
    std::vector<Texts> findings;
    for (size_t i = 0; i < processes; i++) {
        std::ifstream file(FindingsFile(plan, i));
        for (std::string line; std::getline(file, line);) {
            if (line[0] != letter) {
                continue;
            }
            Texts fields;
            for (size_t at = 0; at != std::string::npos;) {
                const size_t end = line.find('\t', at);
                fields.push_back(line.substr(at, end - at));
                at = end == std::string::npos ? end : end + 1;
            }
            findings.push_back(fields);
        }
    }
    return findings;
}

void ReadFindings(const Plan& plan, size_t processes) {
    SweepResult& result = plan.result;
    std::map<std::string, size_t> numbers = {{"-", 0}};
    std::map<std::string, Next> nexts;
    result.timeLines = {""};
    for (const Texts& line : Findings(plan, processes, 'K')) {
        nexts[line[1]] = {static_cast<Fate>(std::stoi(line[2])), line[3]};
    }
    std::map<size_t, std::vector<Texts>> jobs; // the lines of each, in whatever process it was
    for (const char letter : {'J', 'L'}) {
        for (const Texts& line : Findings(plan, processes, letter)) {
            jobs[std::stoul(line[1])].push_back(line);
        }
    }
    for (const auto& [index, lines] : jobs) {
        SweepJobResult& done = result.results[index];
        const SweepJob& job = result.jobs[index];
        done.isRecordOpen = lines[0][2] == "1";
        done.timeLine = TimeLineNumber(plan, lines[0][3], numbers);
        for (auto line = lines.begin() + 1; line != lines.end(); ++line) {
            const std::string& losses = (*line)[3];
            const Next& next = nexts[(*line)[2]];
            done.left.push_back({losses, next.fate, TimeLineNumber(plan, next.timeLine, numbers)});
            if (job.isPowerCut && next.fate == Fate::STUCK && !done.isRecordOpen) {
                result.violations.push_back(
                    {job.scenario, job.call, job.fault + (losses.empty() ? "" : " ") + losses,
                     "later runs cannot read the record, though it was synced"});
            }
        }
    }
    for (const Texts& line : Findings(plan, processes, 'V')) {
        SweepViolation wrong = {std::stoul(line[1]), std::stoul(line[2]), line[3], ""};
        (void)Unescape(line[4], wrong.text); // as Violate has escaped it
        result.violations.push_back(wrong);
    }
    auto& violations = result.violations; // from several processes, and after several runs
    const auto key = [](const SweepViolation& one) {
        return std::tie(one.scenario, one.call, one.fault, one.text);
    };
    std::sort(violations.begin(), violations.end(),
              [&](const auto& one, const auto& other) { return key(one) < key(other); });
    violations.erase(
        std::unique(violations.begin(), violations.end(),
                    [&](const auto& one, const auto& other) { return key(one) == key(other); }),
        violations.end());
}

// The description at its place for the workers, with a fixed clock, so that equal runs leave equal
// files.
void PutDescription(const Plan& plan, size_t scenario) {
    const std::string& file = plan.scenarios[scenario].phone;
    const std::string copy = fmt::format("{}/{}.toml", plan.directory, scenario);
    Description phone;
    std::string error;
    std::string text;
    Require(ReadDescription(file, {}, phone, error), 2, error);
    Require(ReadWholeFile(file, text), 2, file + ": cannot be read");
    text = (phone.clock ? "" : CLOCK) + text;
    Require(WriteWholeFile(copy, text.data(), text.size()), 2, copy + ": cannot be written");
}

// The base run of each scenario, and what follows it, in this process.
void RunBases(const Plan& plan, size_t number) {
    Worker worker = {plan, plan.directory + "/phone", std::ofstream(FindingsFile(plan, number)),
                     SIZE_MAX};
    Tried tried;
    for (size_t i = 0; i < plan.scenarios.size() && plan.result.interruptedBy == 0; i++) {
        PutDescription(plan, i);
        Prepare(worker, i);
        const SweepRun base = Run(worker, SweepRun::BASE, i, nullptr, "");
        Check(worker, {i, nullptr, ""}, base);
        plan.result.bases.push_back(base.run);
        plan.result.baseImages.push_back(TakenImage(worker.phone));
        const SweepRun next = Run(worker, SweepRun::NEXT, i, nullptr, "");
        plan.result.baseFates.push_back(
            FateOf(plan, {i, nullptr, ""}, Updates(base.run), plan.result.baseImages.back(), next));
        AddJobs(plan, i, tried);
        plan.result.interruptedBy = TakeSignal(0);
    }
}

} // namespace

std::string Updates(const RunResult& run, long last) {
    std::string letters;
    for (const CallEntry& call : run.calls) {
        const bool isCounted = call.IsRequest() && (last < 0 || call.number <= last);
        if (isCounted && !Contains(call.text, "opcode=8 ")) { // a register is read
            letters += Letter(call.text);
        }
    }
    return letters;
}

bool IsComplete(char update) {
    return update == 'G' || update == 'I' || update == 'B';
}

bool HasFailed(const CallEntry& call) {
    return !call.error.empty() || call.result == "(nil)";
}

bool MayGoOn(const CallEntry& call, const std::string& way) {
    return std::regex_match(call.function + " " + call.path + " " + way, GOES_ON);
}

SweepResult RunSweep(const std::vector<SweepScenario>& scenarios, const SweepOptions& options) {
    const WorkFolder folder;
    const std::string& directory = folder.path;
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Require(memory != MAP_FAILED, 2, "no memory for the processes to share");
    const auto unmap = [](void* shared) { munmap(shared, sizeof(Shared)); };
    const std::unique_ptr<void, decltype(unmap)> mapped(memory, unmap);
    fs::create_directory(directory + "/claims");
    fs::create_directory(directory + "/lines");

    SweepResult result;
    const Plan plan = {scenarios, options, directory, result, *new (memory) Shared{}};
    const size_t processes = options.processes > 0
                                 ? options.processes
                                 : std::max(1U, std::thread::hardware_concurrency());
    RunBases(plan, processes);
    result.results.resize(result.jobs.size());
    if (result.interruptedBy == 0) {
        ShareOut(plan, processes, folder.signals.mask);
    }
    if (result.interruptedBy == 0) {
        ReadFindings(plan, processes + 1);
    }
    result.runs = plan.shared.runs;
    result.states = plan.shared.states;
    return result;
}
