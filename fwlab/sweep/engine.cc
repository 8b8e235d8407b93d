// Makes the runs of a sweep: base runs first, then the jobs, shared out to a process for each
// processor, and a normal run on each distinct phone that a job has left. Each process writes what
// it finds to a file, a line of JSON each; the files are read together at the end.
#include "fwlab/sweep/engine.h"

#include "fwlab/base/stop.h"
#include "fwlab/base/work_folder.h"
#include "fwlab/sweep/jobs.h"
#include "fwlab/sweep/judgement.h"
#include "simphone/files.h"
#include "simphone/phone.h"
#include "simphone/text.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using Json = nlohmann::json;

constexpr char CLOCK[] = "clock = 2026-03-07T09:05:02.041\n"; // of a phone that has none

// What the processes share.
struct Shared {
    std::atomic<size_t> next, done, runs, states;
};

struct Plan {
    const std::vector<SweepScenario>& scenarios;
    const SweepOptions& options;
    std::string directory; // temporary, for all that is made
    size_t processes;
    SweepResult& result;
    Shared& shared;
};

// A process, and the phone that it uses again for each run.
struct Worker {
    const Plan& plan;
    Phone phone;
    std::ofstream findings;
    size_t prepared = SIZE_MAX; // the scenario that the phone was made for
    size_t violations = 0;      // found so far
};

// Short, for the name of a file.
std::string Key(const std::string& text) {
    return fmt::format("{:x}", std::hash<std::string>()(text));
}

Fault WithLosses(Fault fault, const Losses& losses) {
    fault.losses = losses;
    return fault;
}

// ---- Runs ----

void RemoveDeviceFiles(const std::string& phone) {
    for (const char* file : {"/device/downloaded.bin", "/device/pending"}) {
        fs::remove(phone + file);
    }
}

void PutState(const std::string& phone, const StateDirectory& state) {
    if (!WriteStateDirectory(phone, state)) {
        throw Stop{2, phone + ": its state directory cannot be written"};
    }
}

// Brings the worker's phone into the state before the scenario's run.
void Prepare(Worker& worker, size_t scenario) {
    const std::string& phone = worker.phone.directory;
    if (worker.prepared != scenario) {
        fs::remove_all(phone);
        std::string error;
        worker.phone.description = worker.plan.scenarios[scenario].phone;
        if (!worker.phone.description.clock) { // so that equal runs leave equal files
            worker.phone.description.text = CLOCK + worker.phone.description.text;
        }
        if (!MakePhone(worker.phone.description, phone, error) ||
            !PutPackage(worker.phone, worker.plan.scenarios[scenario].package, error)) {
            throw Stop{2, error};
        }
        worker.prepared = scenario;
    }
    RemoveDeviceFiles(phone);
    fs::remove(phone + "/splash2/test_ffu_trigger.tmp");
    PutState(phone, worker.plan.scenarios[scenario].before);
}

SweepRun Run(Worker& worker, SweepRun::Kind kind, size_t scenario, const SweepJob* job,
             const std::vector<Fault>& faults) {
    const Plan& plan = worker.plan;
    RunOptions options;
    options.libsimphone = plan.options.phoneLibrary;
    options.faults = faults;
    SweepRun run = {kind, &plan.scenarios[scenario], nullptr, job, {}, {},
                    {},   worker.phone.directory};
    run.before = ReadStateDirectory(run.phone);
    run.run = RunTool(worker.phone, plan.options.tool, options);
    if (!run.run.error.empty()) {
        throw Stop{2, run.run.error};
    }
    run.after = ReadStateDirectory(run.phone);
    run.base = kind == SweepRun::BASE ? &run.run : &plan.result.bases[scenario];
    plan.shared.runs++;
    return run;
}

// ---- What the workers find ----

void Write(Worker& worker, const Json& finding) {
    worker.findings << finding.dump() << "\n";
}

// Keeps the run's time line and returns its key.
std::string KeepTimeLine(const Plan& plan, const RunResult& run) {
    if (!plan.options.keepsTimeLines) {
        return "";
    }
    const std::string text = TimeLineText(run);
    std::string key = Key(text);
    const std::string file = plan.directory + "/lines/" + key;
    if (!fs::exists(file)) { // or another process writes the same at the same time
        std::ofstream(file) << text;
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
    const size_t call = about.job == nullptr ? 0 : about.job->call;
    for (const std::string& text : texts) {
        Write(worker, {{"violation", text + after},
                       {"scenario", about.scenario},
                       {"call", call},
                       {"fault", about.fault}});
    }
}

// Everything that is wrong about the run.
void Check(Worker& worker, const Case& about, const SweepRun& run) {
    Violate(worker, about, Violated(run));
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

// ---- What follows a job ----

// A normal run on what is left.
SweepRun RunNext(Worker& worker, const Case& about, std::string& asked) {
    SweepRun next = Run(worker, SweepRun::NEXT, about.scenario, about.job, {});
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
    const Fault power = {"any", "", number, number, Effect::ENDS};
    about.secondCut = FaultText(power);
    const SweepRun cut = Run(worker, SweepRun::POWER_CUT, about.scenario, about.job, {power});
    NoteRequests(worker, about, cut.run, asked);
    const auto survivals = Survivals(cut.before, cut.after, cut.run.calls);
    const Survival& left = survivals[turn / 64 % survivals.size()];
    PutState(worker.phone.directory, left.state);
    about.secondCut = FaultText(WithLosses(power, left.losses));
    (void)RunNext(worker, about, asked);
}

// Normal runs on a phone with this state, and power cuts between them; once for each distinct
// phone, by whichever process comes first. Returns the key of the phone.
std::string Follow(Worker& worker, const Case& about, const StateDirectory& state,
                   const std::string& updates, const std::string& taken) {
    const Plan& plan = worker.plan;
    std::string text = fmt::format("{} {} {} {} {} ", about.scenario, IsTorn(*about.job), updates,
                                   Key(taken), state.isThere);
    for (const auto& [name, content] : state.files) {
        text += fmt::format("{} {} {}\n", name, content.size(), content);
    }
    std::string key = Key(text);
    if (mkdir((plan.directory + "/claims/" + key).c_str(), 0700) != 0) {
        return key;
    }
    plan.shared.states++;
    const size_t turn = std::hash<std::string>()(text);
    RemoveDeviceFiles(worker.phone.directory); // what was downloaded and not installed is lost
    PutState(worker.phone.directory, state);
    const size_t found = worker.violations;
    std::string asked = updates;
    const SweepRun next = RunNext(worker, about, asked);
    const Fate fate = FateOf(updates, taken, next, plan.result.baseImages[about.scenario]);
    Write(worker, {{"phone", key}, {"fate", fate}, {"time_line", KeepTimeLine(plan, next.run)}});
    if (worker.violations > found || IsTorn(*about.job)) { // known; or a state like many others
        return key;
    }
    CutAndRunNext(worker, about, next.run, turn, asked);
    if (IsAttempt(Updates(next.run))) { // the power fails in that run, too
        RemoveDeviceFiles(worker.phone.directory);
        PutState(worker.phone.directory, state);
        asked = updates;
        CutAndRunNext(worker, about, next.run, turn, asked);
    }
    return key;
}

void Do(Worker& worker, size_t index) {
    const SweepJob& job = worker.plan.result.jobs[index];
    Prepare(worker, job.scenario);
    const SweepRun run = Run(worker, job.isPowerCut ? SweepRun::POWER_CUT : SweepRun::FAILING_CALL,
                             job.scenario, &job, {job.fault});
    Check(worker, {job.scenario, &job, FaultText(job.fault)}, run);
    const std::string updates = Updates(run.run), taken = TakenImage(worker.phone.directory);
    // What may be lost besides a torn write is so at the next cut, after the whole write.
    const bool mayLose = job.isPowerCut && !IsTorn(job);
    const std::vector<Survival> survivals = mayLose
                                                ? Survivals(run.before, run.after, run.run.calls)
                                                : std::vector<Survival>{{{}, run.after}};
    Json left = Json::array();
    for (const Survival& survival : survivals) {
        const std::string losses = LossText(survival.losses);
        const Case about = {job.scenario, &job, FaultText(WithLosses(job.fault, survival.losses))};
        left.push_back(
            {{"losses", losses}, {"phone", Follow(worker, about, survival.state, updates, taken)}});
    }
    Write(worker, {{"job", index},
                   {"is_record_open", job.isPowerCut && IsRecordOpen(run.run)},
                   {"time_line", KeepTimeLine(worker.plan, run.run)},
                   {"left", left}});
}

// ---- The processes ----

std::string FindingsFile(const Plan& plan, size_t number) {
    return fmt::format("{}/findings-{}", plan.directory, number);
}

// Of all processes. A process that was killed may leave a part of a line: a value without keys.
std::vector<Json> ReadFindings(const Plan& plan) {
    std::vector<Json> findings;
    for (size_t i = 0; i <= plan.processes; i++) {
        std::ifstream file(FindingsFile(plan, i));
        for (std::string line; std::getline(file, line);) {
            findings.push_back(Json::parse(line, nullptr, false));
        }
    }
    return findings;
}

void Work(const Plan& plan, size_t number) {
    Worker worker = {plan,
                     {fmt::format("{}/phone-{}", plan.directory, number), {}},
                     std::ofstream(FindingsFile(plan, number))};
    const size_t step = plan.options.everyNth;
    for (size_t i = plan.shared.next++; i * step < plan.result.jobs.size();
         i = plan.shared.next++) {
        Do(worker, i * step);
        plan.shared.done++;
    }
}

// In a new process: never returns. A group of its own, so that one signal ends the tool's run too.
[[noreturn]] void StartWorker(const Plan& plan, size_t number, const sigset_t& signals) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigprocmask(SIG_SETMASK, &signals, nullptr);
    // For speed: 8 MiB of each UFS run in fewer page faults.
    setenv("GLIBC_TUNABLES", "glibc.malloc.hugetlb=1", 0);
    std::string error;
    try {
        Work(plan, number);
    } catch (const Stop& stop) {
        error = stop.text;
    } catch (const std::exception& failure) {
        error = failure.what();
    }
    if (!error.empty()) {
        std::ofstream(FindingsFile(plan, number), std::ios::app)
            << Json({{"error", Escaped(error)}}).dump() << "\n";
    }
    fflush(stdout);
    _exit(error.empty() ? 0 : 1);
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

std::set<pid_t> StartAll(const Plan& plan, const sigset_t& signals) {
    std::set<pid_t> workers;
    fflush(stdout);
    for (size_t i = 0; i < plan.processes; i++) {
        const pid_t worker = fork();
        if (worker == 0) {
            StartWorker(plan, i, signals);
        }
        if (worker > 0) {
            setpgid(worker, worker); // whoever comes first
            workers.insert(worker);
        }
    }
    if (workers.empty()) {
        throw Stop{2, "no process can be started"};
    }
    return workers;
}

// All jobs are done, or a signal came.
void ShareOut(const Plan& plan, const sigset_t& signals) {
    SweepResult& result = plan.result;
    std::set<pid_t> workers = StartAll(plan, signals);
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
        return;
    }
    if (isBroken) {
        for (const Json& finding : ReadFindings(plan)) {
            if (finding.contains("error")) {
                throw Stop{2, finding["error"]};
            }
        }
        throw Stop{2, "a process of the sweep has died"};
    }
}

// ---- Together ----

// Puts what a job has left into the result; nexts are the normal runs behind it, by their phone.
void Collect(const Plan& plan, const Json& finding, const std::map<std::string, Json>& nexts) {
    SweepResult& result = plan.result;
    const size_t index = finding["job"];
    const SweepJob& job = result.jobs[index];
    result.results[index].timeLine = finding["time_line"];
    for (const Json& left : finding["left"]) {
        const Json& next = nexts.at(left["phone"]);
        const std::string losses = left["losses"];
        const Fate fate = next["fate"];
        result.results[index].left.push_back({losses, fate, next["time_line"]});
        if (job.isPowerCut && fate == Fate::STUCK && !finding["is_record_open"]) {
            result.violations.push_back(
                {job.scenario, job.call,
                 FaultText(job.fault) + (losses.empty() ? "" : " ") + losses,
                 "later runs cannot read the record, though it was synced"});
        }
    }
}

// From several processes, and after several runs: in one order, each once.
void Sort(std::vector<SweepViolation>& violations) {
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

void CollectAll(const Plan& plan) {
    SweepResult& result = plan.result;
    const std::vector<Json> findings = ReadFindings(plan);
    std::map<std::string, Json> nexts;
    for (const Json& finding : findings) {
        if (finding.contains("phone")) {
            nexts[finding["phone"]] = finding;
        }
    }
    for (const Json& finding : findings) {
        if (finding.contains("job")) {
            Collect(plan, finding, nexts);
        } else if (finding.contains("violation")) {
            result.violations.push_back(
                {finding["scenario"], finding["call"], finding["fault"], finding["violation"]});
        }
    }
    Sort(result.violations);
    for (const fs::path& file : fs::directory_iterator(plan.directory + "/lines")) {
        if (!ReadWholeFile(file, result.timeLines[file.filename()])) {
            throw FailureAt(file, errno);
        }
    }
}

// The base run of each scenario, and what follows it, in this process; and the jobs.
void RunBases(const Plan& plan) {
    SweepResult& result = plan.result;
    Worker worker = {
        plan, {plan.directory + "/phone", {}}, std::ofstream(FindingsFile(plan, plan.processes))};
    Tried tried;
    for (size_t i = 0; i < plan.scenarios.size() && result.interruptedBy == 0; i++) {
        result.phones.push_back(plan.scenarios[i].phone);
        Prepare(worker, i);
        const SweepRun base = Run(worker, SweepRun::BASE, i, nullptr, {});
        Check(worker, {i, nullptr, ""}, base);
        const std::string taken = TakenImage(worker.phone.directory);
        result.bases.push_back(base.run);
        result.baseImages.push_back(taken);
        const SweepRun next = Run(worker, SweepRun::NEXT, i, nullptr, {});
        result.baseFates.push_back(FateOf(Updates(base.run), taken, next, taken));
        const bool hadState = plan.scenarios[i].before.isThere;
        for (const SweepJob& job : JobsOf(base.run, i, hadState, plan.options, tried)) {
            result.jobs.push_back(job);
        }
        result.interruptedBy = TakeSignal(0);
    }
}

} // namespace

std::string TimeLineText(const RunResult& run) {
    std::string text;
    for (const TimeLineEntry& entry : TimeLine(run)) {
        text.append(entry.source).append("\t").append(entry.text).append("\n");
    }
    return text;
}

SweepResult RunSweep(const std::vector<SweepScenario>& scenarios, const SweepOptions& options) {
    const WorkFolder folder;
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw Stop{2, "no memory for the processes to share"};
    }
    const auto unmap = [](void* shared) { munmap(shared, sizeof(Shared)); };
    const std::unique_ptr<void, decltype(unmap)> mapped(memory, unmap);
    fs::create_directory(folder.path + "/claims");
    fs::create_directory(folder.path + "/lines");

    SweepResult result;
    const size_t processors = std::max(1U, std::thread::hardware_concurrency());
    const Plan plan = {scenarios,   options,
                       folder.path, options.processes > 0 ? options.processes : processors,
                       result,      *new (memory) Shared{}};
    RunBases(plan);
    result.results.resize(result.jobs.size());
    if (result.interruptedBy == 0) {
        ShareOut(plan, folder.signals.mask);
    }
    if (result.interruptedBy == 0) {
        CollectAll(plan);
    }
    result.runs = plan.shared.runs;
    result.states = plan.shared.states;
    return result;
}
