// Makes the runs of a sweep: the base runs; the jobs, shared out to the threads; and what follows
// on each distinct phone that the jobs have left, shared out again. Each piece of work puts what it
// finds at its own place, so that the order of the threads changes nothing.
#include "fwlab/sweep/runner.h"

#include "fwlab/base/progress.h"
#include "fwlab/base/stop.h"
#include "fwlab/base/work_folder.h"
#include "fwlab/sweep/made_run.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>

namespace fs = std::filesystem;

namespace {

// A phone that a job has left, by all that the runs after it depend on.
struct Start {
    const SweepJob* job;
    Losses losses; // of its power cut
    Course course;
    const std::string* image; // that the device has taken
    bool isThere;             // the state directory
    std::map<std::string, const std::string*> files;
};

// Whichever job has left it.
bool operator<(const Start& one, const Start& other) {
    const auto key = [](const Start& start) {
        return std::tie(start.job->scenario, start.course.isAsked, start.course.mayBeStuck,
                        start.image, start.isThere, start.files);
    };
    return key(one) < key(other);
}

bool IsTorn(const Start& start) {
    return start.job->fault.effect == Effect::TORN;
}

// A thread's phone, which it uses again for each run.
struct Worker {
    Phone phone;
    size_t scenario = SIZE_MAX; // that the phone was made for
};

// What the threads share.
struct Sweep {
    const std::vector<SweepScenario>& scenarios;
    const SweepOptions& options;
    std::vector<Worker> workers = {};
    SweepResult result = {};
    std::atomic<size_t> runs = 0;
    std::atomic<bool> isEnding = false; // no more work is begun
    std::mutex mutex = {};              // of the result's violations and texts
};

// Runs on one phone, one after the other without a restart.
struct Runs {
    size_t order; // of this work
    size_t scenario;
    const SweepJob* job = nullptr; // null for the base run
    Course course = {};
    std::vector<std::optional<Fault>> faults = {}; // of each run
    bool isWrong = false;
};

const std::string* Kept(Sweep& sweep, const std::string& text) {
    const std::lock_guard<std::mutex> lock(sweep.mutex);
    return &*sweep.result.texts.insert(text).first;
}

SweepTimeLine KeptTimeLine(Sweep& sweep, const RunResult& run) {
    SweepTimeLine kept;
    if (sweep.options.keepsTimeLines) {
        for (const auto& [source, text] : TimeLine(run)) {
            kept.push_back(Kept(sweep, source + (" " + text)));
        }
    }
    return kept;
}

// Brings the worker's phone into the state from which a run of the scenario starts.
void Prepare(const Sweep& sweep, Worker& worker, size_t scenario, const StateDirectory& state) {
    const std::string& directory = worker.phone.directory;
    if (worker.scenario != scenario) {
        worker.scenario = SIZE_MAX;
        fs::remove_all(directory);
        worker.phone.description = sweep.scenarios[scenario].phone;
        MakePhone(worker.phone);
        PutPackage(worker.phone, sweep.scenarios[scenario].package);
        worker.scenario = scenario;
    }
    for (const char* file :
         {"/device/downloaded.bin", "/device/pending", "/splash2/test_ffu_trigger.tmp"}) {
        fs::remove(directory + file);
    }
    WriteStateDirectory(worker.phone.directory, state);
}

void Violate(Sweep& sweep, Runs& runs, Wrong wrong, const std::string& detail) {
    const size_t call = runs.job == nullptr ? 0 : runs.job->call;
    const std::lock_guard<std::mutex> lock(sweep.mutex);
    sweep.result.violations.push_back(
        {wrong, runs.scenario, call, runs.faults, detail, runs.order});
    runs.isWrong = true;
}

// The next run on the phone, judged; at most one fault.
RunResult Run(Sweep& sweep, const Worker& worker, SweepRun::Kind kind, Runs& runs,
              std::vector<Fault> faults = {}) {
    const SweepOptions& options = sweep.options;
    const RunResult run = MakeRun(worker.phone, options.tool, options.phoneLibrary, faults);
    sweep.runs++;
    if (kind == SweepRun::LATER_CUT && !run.unmetFaults.empty()) {
        faults.clear(); // this run ended before the call: it was a normal one
    } else if (!run.unmetFaults.empty()) {
        throw Stop{2, fmt::format("{} met none of the {} calls of its run: does the tool make the "
                                  "same calls in each run?",
                                  FaultText(faults[0]), run.calls.size())};
    }
    const RunResult& base = kind == SweepRun::BASE ? run : sweep.result.bases[runs.scenario].run;
    runs.course = runs.faults.empty() ? CourseBefore(base) : runs.course;
    runs.faults.push_back(faults.empty() ? std::nullopt : std::optional(faults[0]));
    for (const Wrong wrong : WrongsOf(run, faults, &base, runs.course)) {
        Violate(sweep, runs, wrong, "");
    }
    if (options.check) {
        for (const std::string& detail :
             options.check({kind, runs.scenario, &base, runs.job, worker.phone.directory, &run})) {
            Violate(sweep, runs, Wrong::UNEXPECTED, detail);
        }
    }
    return run;
}

// What has become of a phone of the scenario that has this state directory now.
Verdict VerdictOf(const Sweep& sweep, size_t scenario, const std::string& image,
                  const StateDirectory& state) {
    const SweepBase& base = sweep.result.bases[scenario];
    return Judge(base.decision, image, sweep.scenarios[scenario].before, state);
}

// Makes the run of a job. `starts` are the phones that it may leave, one for each of done.left.
void Do(Sweep& sweep, Worker& worker, size_t number, SweepJobResult& done,
        std::vector<Start>& starts) {
    const SweepJob& job = sweep.result.jobs[number];
    Runs runs = {1 + number, job.scenario, &job};
    Prepare(sweep, worker, job.scenario, sweep.scenarios[job.scenario].before);
    const bool isCut = IsPowerCut(job.fault);
    const RunResult run =
        Run(sweep, worker, isCut ? SweepRun::POWER_CUT : SweepRun::FAILING_CALL, runs, {job.fault});
    // What may be lost besides a torn write is so at the next cut, after the whole write.
    const bool mayLose = job.fault.effect == Effect::ENDS;
    const std::vector<Survival> survivals = mayLose ? Survivals(run.before, run.after, run.calls)
                                                    : std::vector<Survival>{{{}, run.after}};
    const std::string* image = Kept(sweep, TakenImage(worker.phone));
    for (const auto& [losses, state] : survivals) {
        done.left.push_back({losses, 0});
        starts.push_back({&job, losses, runs.course, image, state.isThere, {}});
        for (const auto& [name, content] : state.files) {
            starts.back().files[name] = Kept(sweep, content);
        }
    }
    done.isWrong = runs.isWrong;
    done.timeLine = KeptTimeLine(sweep, run);
}

// Cuts the power at a call that changes the phone (the run `like` says which ones do), leaves one
// of the states that this cut can leave, and lets a normal run follow.
void CutAndRunNext(Sweep& sweep, const Worker& worker, Runs& runs, const RunResult& like,
                   size_t turn) {
    const std::vector<size_t> calls = ChangingCalls(like);
    if (calls.empty()) {
        return;
    }
    const long number = like.calls[calls[turn % calls.size()]].number;
    const RunResult run =
        Run(sweep, worker, SweepRun::LATER_CUT, runs, {{"any", "", number, number, Effect::ENDS}});
    if (runs.faults.back()) {
        const auto survivals = Survivals(run.before, run.after, run.calls);
        const Survival& left = survivals[turn / calls.size() % survivals.size()];
        WriteStateDirectory(worker.phone.directory, left.state);
        runs.faults.back()->losses = left.losses;
    }
    (void)Run(sweep, worker, SweepRun::NEXT, runs);
}

// Normal runs on a phone that a job has left, and power cuts between them. What was downloaded and
// not installed is lost.
SweepState Follow(Sweep& sweep, Worker& worker, const Start& start, size_t turn) {
    const size_t scenario = start.job->scenario;
    Fault fault = start.job->fault;
    fault.losses = start.losses;
    Runs runs = {1 + sweep.result.jobs.size() + turn, scenario, start.job, start.course, {fault}};
    Runs again = runs;
    StateDirectory state = {start.isThere, {}};
    for (const auto& [name, content] : start.files) {
        state.files[name] = *content;
    }
    Prepare(sweep, worker, scenario, state);
    const RunResult next = Run(sweep, worker, SweepRun::NEXT, runs);
    const std::string later = TakenImage(worker.phone);
    const Verdict first = VerdictOf(sweep, scenario, *start.image, state);
    const Verdict last =
        VerdictOf(sweep, scenario, later.empty() ? *start.image : later, next.after);
    if (!runs.isWrong && !IsTorn(start)) { // a torn state is like many others
        CutAndRunNext(sweep, worker, runs, next, turn);
        if (IsAttempt(next)) { // the power fails in that run, too
            Prepare(sweep, worker, scenario, state);
            CutAndRunNext(sweep, worker, again, next, turn);
        }
    }
    return {Judge(first, last), runs.isWrong || again.isWrong, KeptTimeLine(sweep, next)};
}

// Calls `work` for each number below count, in all threads. Returns early if a signal came.
void ShareOut(Sweep& sweep, size_t count, const char* what,
              const std::function<void(Worker&, size_t)>& work) {
    std::atomic<size_t> begun = 0, done = 0;
    const auto takeAll = [&](Worker& worker) {
        try {
            for (size_t i = begun++; i < count && !sweep.isEnding; i = begun++) {
                work(worker, i);
                done++;
            }
        } catch (...) {
            sweep.isEnding = true;
            throw;
        }
    };
    std::vector<std::future<void>> threads;
    for (Worker& worker : sweep.workers) {
        try {
            threads.push_back(std::async(std::launch::async, takeAll, std::ref(worker)));
        } catch (const std::system_error& error) {
            sweep.isEnding = true;
            throw Stop{2, std::string("a thread cannot be started: ") + error.what()};
        }
    }
    int signal = 0;
    for (std::future<void>& thread : threads) {
        while (thread.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready) {
            signal = signal == 0 ? TakeSignal() : signal;
            sweep.isEnding = sweep.isEnding || signal != 0;
            ShowProgress(done, count, what);
        }
    }
    ShowProgress(count, count, what); // nothing is left of it
    if (signal != 0) {                // it may have ended a run, too
        throw Stop{128 + signal, "interrupted"};
    }
    for (std::future<void>& thread : threads) {
        thread.get();
    }
    if (done != count) {
        throw Stop{2, fmt::format("only {} of {} {} were tried", done, count, what)};
    }
}

// The base run of each scenario, and the normal run after it; and the jobs.
void RunBases(Sweep& sweep) {
    SweepResult& result = sweep.result;
    Worker& worker = sweep.workers.front();
    result.bases.resize(sweep.scenarios.size());
    for (size_t i = 0; i < sweep.scenarios.size(); i++) {
        const SweepScenario& scenario = sweep.scenarios[i];
        const Device device = DeviceOf(scenario.phone);
        SweepBase& base = result.bases[i];
        base.package = OpenPackage(scenario.package, device.identity.layout);
        base.digest = Sha256(BytesOf(base.package));
        base.decision = Decide(base.package, device, scenario.before);
        Runs runs = {0, i};
        Prepare(sweep, worker, i, scenario.before);
        base.run = Run(sweep, worker, SweepRun::BASE, runs);
        base.timeLine = KeptTimeLine(sweep, base.run);
        base.verdict = VerdictOf(sweep, i, TakenImage(worker.phone), base.run.after);
        (void)Run(sweep, worker, SweepRun::NEXT, runs); // for what it violates
        std::vector<SweepJob> jobs = JobsOf(base.run, i);
        if (sweep.options.select) {
            sweep.options.select(base.run, jobs);
        }
        result.jobs.insert(result.jobs.end(), jobs.begin(), jobs.end());
        StopIfInterrupted();
    }
}

// The distinct phones that the jobs have left, in the order of the jobs, each with the first job
// that leaves it: if there is one, with one that does not tear a write.
std::vector<const Start*> Distinct(const std::vector<std::vector<Start>>& starts,
                                   SweepResult& result) {
    std::vector<const Start*> distinct;
    std::map<Start, size_t> places;
    for (size_t i = 0; i < starts.size(); i++) {
        for (size_t j = 0; j < starts[i].size(); j++) {
            const Start& start = starts[i][j];
            const auto [place, isNew] = places.emplace(start, distinct.size());
            result.results[i].left[j].state = place->second;
            if (isNew) {
                distinct.push_back(&start);
            } else if (IsTorn(*distinct[place->second]) && !IsTorn(start)) {
                distinct[place->second] = &start;
            }
        }
    }
    return distinct;
}

void RunJobs(Sweep& sweep) {
    SweepResult& result = sweep.result;
    result.results.resize(result.jobs.size());
    std::vector<std::vector<Start>> starts(result.jobs.size());
    ShareOut(sweep, starts.size(), "faults",
             [&](Worker& worker, size_t i) { Do(sweep, worker, i, result.results[i], starts[i]); });
    const std::vector<const Start*> distinct = Distinct(starts, result);
    result.states.resize(distinct.size());
    ShareOut(sweep, distinct.size(), "phones that they leave", [&](Worker& worker, size_t i) {
        result.states[i] = Follow(sweep, worker, *distinct[i], i);
    });
}

// The report names the package by its digest.
void RequireUnchanged(const SweepBase& base) {
    const Package now = OpenPackage(base.package.path, base.package.layout);
    if (Sha256(BytesOf(now)) != base.digest) {
        throw Stop{2, now.path + ": has changed during the sweep"};
    }
}

} // namespace

SweepResult RunSweep(const std::vector<SweepScenario>& scenarios, const SweepOptions& options) {
    const WorkFolder folder;
    // For speed, of the tool's runs: 8 MiB of each UFS run in fewer page faults.
    setenv("GLIBC_TUNABLES", "glibc.malloc.hugetlb=1", 0);
    const size_t processors = std::max(1U, std::thread::hardware_concurrency());
    Sweep sweep = {scenarios, options};
    for (size_t i = 0; i < (options.threads > 0 ? options.threads : processors); i++) {
        sweep.workers.push_back({{fmt::format("{}/phone-{}", folder.path, i), {}}});
    }
    RunBases(sweep);
    RunJobs(sweep);
    std::for_each(sweep.result.bases.begin(), sweep.result.bases.end(), RequireUnchanged);
    std::vector<SweepViolation>& violations = sweep.result.violations;
    std::stable_sort(violations.begin(), violations.end(),
                     [](const SweepViolation& one, const SweepViolation& other) {
                         return std::tie(one.scenario, one.call, one.order) <
                                std::tie(other.scenario, other.call, other.order);
                     });
    sweep.result.runs = sweep.runs;
    return std::move(sweep.result);
}
