// Makes the runs of a sweep: the base runs; the jobs, shared out to the threads; and what follows
// on each distinct phone that the jobs have left, shared out again. Each piece of work puts what it
// finds at its own place, so that the order of the threads changes nothing.
#include "fwlab/sweep/runner.h"

#include "fwlab/base/stop.h"
#include "fwlab/base/work_folder.h"
#include "fwlab/phone/decision.h"
#include "simphone/fault.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <future>
#include <map>
#include <mutex>
#include <string_view>
#include <thread>
#include <tuple>
#include <unordered_set>

namespace fs = std::filesystem;

namespace {

// A phone that a job has left, by all that the runs after it depend on.
struct Start {
    size_t scenario;
    Course course;
    const std::string* image; // that the device has taken
    bool isThere;             // the state directory
    std::map<std::string, const std::string*> files;
};
bool operator<(const Start& one, const Start& other) {
    const auto key = [](const Start& start) {
        return std::tie(start.scenario, start.course, start.image, start.isThere, start.files);
    };
    return key(one) < key(other);
}

// A start with the job that the runs after it are told of.
struct Followed {
    Start start;
    const SweepJob* job;
    Losses losses;
    bool isTorn; // only torn writes leave it
};

// What the package of a scenario is for its phone.
struct Expected {
    Package package;
    Decision decision;
};

struct JobOutcome {
    std::vector<std::pair<Losses, Start>> left;
    std::vector<SweepViolation> violations;
    const SweepTimeLine* timeLine = nullptr;
};
struct FollowOutcome {
    SweepState state = {};
    std::vector<SweepViolation> violations;
};

// A thread's phone, which it uses again for each run.
struct Worker {
    Phone phone;
    size_t scenario = SIZE_MAX; // that the phone was made for
};

// What the threads share.
struct Sweep {
    const std::vector<SweepScenario>& scenarios;
    const SweepOptions& options;
    std::vector<Expected> expected; // of each scenario
    std::vector<Worker> workers;
    SweepResult result = {};
    size_t planned = 0; // jobs
    std::atomic<size_t> runs = 0;
    std::atomic<bool> isEnding = false;            // no more work is begun
    std::mutex mutex = {};                         // of what stands below, and of result.timeLines
    std::unordered_set<std::string> contents = {}; // of files, each distinct one once
};

// The runs on one phone, from a job's run on.
struct Following {
    size_t scenario;
    const SweepJob* job; // null for the base run
    std::vector<std::optional<Fault>> faults;
    Course course;
    std::vector<SweepViolation>& violations;
};

const std::string* Kept(Sweep& sweep, const std::string& content) {
    const std::lock_guard<std::mutex> lock(sweep.mutex);
    return &*sweep.contents.insert(content).first;
}

const SweepTimeLine* KeptTimeLine(Sweep& sweep, size_t scenario, const RunResult& run) {
    if (!sweep.options.keepsTimeLines) {
        return nullptr;
    }
    const auto isSame = [](const TimeLineEntry& one, const TimeLineEntry& other) {
        return one.text == other.text && std::string_view(one.source) == other.source;
    };
    const std::vector<TimeLineEntry>& base = sweep.result.bases[scenario].timeLine;
    std::vector<TimeLineEntry> lines = TimeLine(run);
    const auto differs =
        std::mismatch(lines.begin(), lines.end(), base.begin(), base.end(), isSame).first;
    const auto common = static_cast<size_t>(differs - lines.begin());
    lines.erase(lines.begin(), differs);
    const std::lock_guard<std::mutex> lock(sweep.mutex);
    return &*sweep.result.timeLines.insert({scenario, common, lines}).first;
}

// Brings the worker's phone into the state from which a run of the scenario starts.
void Prepare(Sweep& sweep, Worker& worker, size_t scenario, const StateDirectory& state) {
    const std::string& directory = worker.phone.directory;
    if (worker.scenario != scenario) {
        worker.scenario = SIZE_MAX;
        fs::remove_all(directory);
        worker.phone.description = sweep.scenarios[scenario].phone;
        std::string error;
        if (!MakePhone(worker.phone.description, directory, error) ||
            !PutPackage(worker.phone, sweep.scenarios[scenario].package, error)) {
            throw Stop{2, error};
        }
        worker.scenario = scenario;
    }
    for (const char* file :
         {"/device/downloaded.bin", "/device/pending", "/splash2/test_ffu_trigger.tmp"}) {
        fs::remove(directory + file);
    }
    PutState(worker.phone, state);
}

void Violate(Following& following, Wrong wrong, const std::string& detail) {
    const size_t call = following.job == nullptr ? 0 : following.job->call;
    following.violations.push_back({wrong, following.scenario, call, following.faults, detail});
}

// The next run on the phone, judged.
MadeRun Run(Sweep& sweep, const Worker& worker, SweepRun::Kind kind, Following& following,
            const std::optional<Fault>& fault) {
    const SweepOptions& options = sweep.options;
    MadeRun made = MakeRun(worker.phone, options.tool, options.phoneLibrary,
                           fault ? std::vector<Fault>{*fault} : std::vector<Fault>{});
    sweep.runs++;
    if (kind == SweepRun::LATER_CUT && !made.run.unmetFaults.empty()) {
        made.faults.clear(); // this run ended before the call: it was a normal one
        made.run.unmetFaults.clear();
    } else if (!made.run.unmetFaults.empty()) {
        throw Stop{2, fmt::format("{} met none of the {} calls of its run: does the tool make the "
                                  "same calls in each run?",
                                  FaultText(*fault), made.run.calls.size())};
    }
    const bool isBase = kind == SweepRun::BASE;
    const RunResult& base = isBase ? made.run : sweep.result.bases[following.scenario].made.run;
    following.course = isBase ? CourseBefore(base) : following.course;
    following.faults.push_back(made.faults.empty() ? std::nullopt : fault);
    for (const Wrong wrong : WrongsOf(made, &base, following.course)) {
        Violate(following, wrong, "");
    }
    if (options.check) {
        const SweepRun run = {kind,          following.scenario,     &base,
                              following.job, worker.phone.directory, &made};
        for (const std::string& detail : options.check(run)) {
            Violate(following, Wrong::UNEXPECTED, detail);
        }
    }
    return made;
}

Expected ExpectedOf(const SweepScenario& scenario) {
    const Device device = DeviceOf(scenario.phone);
    Expected expected = {OpenPackage(scenario.package, device.identity.layout), {}};
    expected.decision = Decide(expected.package, device, scenario.before);
    return expected;
}

// What has become of a phone of the scenario that has this state directory now.
Verdict VerdictOf(const Sweep& sweep, size_t scenario, const std::string& image,
                  const StateDirectory& state) {
    const Expected& expected = sweep.expected[scenario];
    return Judge(expected.package, expected.decision, image, sweep.scenarios[scenario].before,
                 state);
}

Start StartOf(Sweep& sweep, const Following& following, const StateDirectory& state,
              const std::string* image) {
    Start start = {following.scenario, following.course, image, state.isThere, {}};
    for (const auto& [name, content] : state.files) {
        start.files[name] = Kept(sweep, content);
    }
    return start;
}

JobOutcome Do(Sweep& sweep, Worker& worker, const SweepJob& job) {
    JobOutcome outcome;
    Following following = {job.scenario, &job, {}, {}, outcome.violations};
    following.course = CourseBefore(sweep.result.bases[job.scenario].made.run);
    Prepare(sweep, worker, job.scenario, sweep.scenarios[job.scenario].before);
    const bool isCut = IsPowerCut(job.fault);
    const MadeRun made = Run(sweep, worker, isCut ? SweepRun::POWER_CUT : SweepRun::FAILING_CALL,
                             following, job.fault);
    // What may be lost besides a torn write is so at the next cut, after the whole write.
    const bool mayLose = job.fault.effect == Effect::ENDS;
    const std::vector<Survival> survivals = mayLose
                                                ? Survivals(made.before, made.after, made.run.calls)
                                                : std::vector<Survival>{{{}, made.after}};
    const std::string* image = Kept(sweep, TakenImage(worker.phone));
    for (const auto& [losses, state] : survivals) {
        outcome.left.emplace_back(losses, StartOf(sweep, following, state, image));
    }
    outcome.timeLine = KeptTimeLine(sweep, job.scenario, made.run);
    return outcome;
}

StateDirectory StateOf(const Start& start) {
    StateDirectory state = {start.isThere, {}};
    for (const auto& [name, content] : start.files) {
        state.files[name] = *content;
    }
    return state;
}

// Cuts the power at a call that changes the phone (the run `like` says which ones do), leaves one
// of the states that this cut can leave, and lets a normal run follow.
void CutAndRunNext(Sweep& sweep, const Worker& worker, Following& following, const RunResult& like,
                   size_t turn) {
    const std::vector<size_t> calls = ChangingCalls(like);
    if (calls.empty()) {
        return;
    }
    const long number = like.calls[calls[turn % calls.size()]].number;
    const Fault cut = {"any", "", number, number, Effect::ENDS, 0, {}};
    const MadeRun made = Run(sweep, worker, SweepRun::LATER_CUT, following, cut);
    if (following.faults.back()) {
        const auto survivals = Survivals(made.before, made.after, made.run.calls);
        const Survival& left = survivals[turn / calls.size() % survivals.size()];
        PutState(worker.phone, left.state);
        following.faults.back()->losses = left.losses;
    }
    (void)Run(sweep, worker, SweepRun::NEXT, following, std::nullopt);
}

// Normal runs on a phone that a job has left, and power cuts between them. What was downloaded and
// not installed is lost.
FollowOutcome Follow(Sweep& sweep, Worker& worker, const Followed& followed, size_t turn) {
    const Start& start = followed.start;
    FollowOutcome outcome;
    Fault fault = followed.job->fault;
    fault.losses = followed.losses;
    Following following = {start.scenario, followed.job, {fault}, start.course, outcome.violations};
    const StateDirectory state = StateOf(start);
    Prepare(sweep, worker, start.scenario, state);
    Following again = following;
    const MadeRun next = Run(sweep, worker, SweepRun::NEXT, following, std::nullopt);
    const std::string later = TakenImage(worker.phone);
    outcome.state.verdict =
        Judge(VerdictOf(sweep, start.scenario, *start.image, state),
              VerdictOf(sweep, start.scenario, later.empty() ? *start.image : later, next.after));
    outcome.state.timeLine = KeptTimeLine(sweep, start.scenario, next.run);
    if (outcome.violations.empty() && !followed.isTorn) { // a torn state is like many others
        CutAndRunNext(sweep, worker, following, next.run, turn);
        if (IsAttempt(next.run)) { // the power fails in that run, too
            Prepare(sweep, worker, start.scenario, state);
            CutAndRunNext(sweep, worker, again, next.run, turn);
        }
    }
    outcome.state.isWrong = !outcome.violations.empty();
    return outcome;
}

// In a thread of its own: takes the next piece of work until there is none.
void Work(Sweep& sweep, std::atomic<size_t>& next, size_t count,
          const std::function<void(size_t)>& work) {
    try {
        for (size_t i = next++; i < count && !sweep.isEnding; i = next++) {
            work(i);
        }
    } catch (...) {
        sweep.isEnding = true;
        throw;
    }
}

// Calls `work` for each number below count, in all threads. Returns early if a signal came.
void ShareOut(Sweep& sweep, size_t count, const char* what,
              const std::function<void(Worker&, size_t)>& work) {
    std::atomic<size_t> next = 0, done = 0;
    const auto begin = [&](Worker& worker) {
        return std::async(std::launch::async, Work, std::ref(sweep), std::ref(next), count,
                          [&](size_t i) {
                              work(worker, i);
                              done++;
                          });
    };
    std::vector<std::future<void>> threads;
    for (Worker& worker : sweep.workers) {
        try {
            threads.push_back(begin(worker));
        } catch (const std::system_error& error) {
            sweep.isEnding = true;
            throw Stop{2, std::string("a thread cannot be started: ") + error.what()};
        }
    }
    for (std::future<void>& thread : threads) {
        while (thread.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            const int signal = TakeSignal(20);
            sweep.result.interruptedBy = signal != 0 ? signal : sweep.result.interruptedBy;
            sweep.isEnding = sweep.isEnding || signal != 0;
            if (sweep.options.progress) {
                sweep.options.progress(done, count, what);
            }
        }
    }
    for (std::future<void>& thread : threads) {
        if (sweep.result.interruptedBy == 0) { // else a run may have been interrupted, too
            thread.get();
        }
    }
    if (done != count && sweep.result.interruptedBy == 0) {
        throw Stop{2, fmt::format("only {} of {} {} were tried", done, count, what)};
    }
}

// The base run of each scenario, and the normal run after it; and the jobs.
void RunBases(Sweep& sweep) {
    SweepResult& result = sweep.result;
    Worker& worker = sweep.workers.front();
    for (size_t i = 0; i < sweep.scenarios.size() && result.interruptedBy == 0; i++) {
        Following following = {i, nullptr, {}, {}, result.violations};
        Prepare(sweep, worker, i, sweep.scenarios[i].before);
        result.bases.push_back({Run(sweep, worker, SweepRun::BASE, following, std::nullopt)});
        SweepBase& base = result.bases.back();
        const Decision& decision = sweep.expected[i].decision;
        base.timeLine = TimeLine(base.made.run);
        base.verdict = VerdictOf(sweep, i, TakenImage(worker.phone), base.made.after);
        base.why = base.verdict == decision.verdict ? WhyOf(decision) : SentenceOf(base.verdict);
        (void)Run(sweep, worker, SweepRun::NEXT, following, std::nullopt); // for what it violates
        std::vector<SweepJob> jobs = JobsOf(base.made.run, i);
        if (sweep.options.select) {
            sweep.options.select(base.made.run, jobs);
        }
        sweep.planned += jobs.size();
        result.jobs.insert(result.jobs.end(), jobs.begin(), jobs.end());
        result.interruptedBy = TakeSignal(0);
    }
}

// The distinct phones that the jobs have left, in the order of the jobs, each with the first job
// that leaves it: if there is one, with one that does not tear a write.
std::vector<Followed> Distinct(const std::vector<JobOutcome>& outcomes, SweepResult& result) {
    std::vector<Followed> distinct;
    std::map<Start, size_t> places;
    for (size_t i = 0; i < outcomes.size(); i++) {
        const SweepJob& job = result.jobs[i];
        const bool isTorn = job.fault.effect == Effect::TORN;
        SweepJobResult done = {{}, !outcomes[i].violations.empty(), outcomes[i].timeLine};
        for (const auto& [losses, start] : outcomes[i].left) {
            const auto [place, isNew] = places.emplace(start, distinct.size());
            if (isNew) {
                distinct.push_back({start, &job, losses, isTorn});
            }
            Followed& followed = distinct[place->second];
            if (followed.isTorn && !isTorn) {
                followed = {start, &job, losses, false};
            }
            done.left.push_back({losses, place->second});
        }
        result.results.push_back(done);
    }
    return distinct;
}

void RunJobs(Sweep& sweep) {
    SweepResult& result = sweep.result;
    std::vector<JobOutcome> outcomes(result.jobs.size());
    ShareOut(sweep, outcomes.size(), "faults",
             [&](Worker& worker, size_t i) { outcomes[i] = Do(sweep, worker, result.jobs[i]); });
    for (const JobOutcome& outcome : outcomes) {
        result.violations.insert(result.violations.end(), outcome.violations.begin(),
                                 outcome.violations.end());
    }
    if (outcomes.size() != sweep.planned) {
        throw Stop{2,
                   fmt::format("only {} of {} faults were tried", outcomes.size(), sweep.planned)};
    }
    const std::vector<Followed> distinct = Distinct(outcomes, result);
    std::vector<FollowOutcome> follows(distinct.size());
    ShareOut(sweep, follows.size(), "phones that they leave",
             [&](Worker& worker, size_t i) { follows[i] = Follow(sweep, worker, distinct[i], i); });
    for (const FollowOutcome& follow : follows) {
        result.states.push_back(follow.state);
        result.violations.insert(result.violations.end(), follow.violations.begin(),
                                 follow.violations.end());
    }
}

} // namespace

bool operator<(const SweepTimeLine& one, const SweepTimeLine& other) {
    const auto key = [](const SweepTimeLine& line) { return std::tie(line.scenario, line.common); };
    const auto isLess = [](const TimeLineEntry& a, const TimeLineEntry& b) {
        return std::pair(a.text, std::string_view(a.source)) <
               std::pair(b.text, std::string_view(b.source));
    };
    return key(one) < key(other) ||
           (key(one) == key(other) &&
            std::lexicographical_compare(one.rest.begin(), one.rest.end(), other.rest.begin(),
                                         other.rest.end(), isLess));
}

SweepResult RunSweep(const std::vector<SweepScenario>& scenarios, const SweepOptions& options) {
    const WorkFolder folder;
    // For speed, of the tool's runs: 8 MiB of each UFS run in fewer page faults.
    setenv("GLIBC_TUNABLES", "glibc.malloc.hugetlb=1", 0);
    const size_t processors = std::max(1U, std::thread::hardware_concurrency());
    Sweep sweep = {scenarios, options, {}, {}};
    for (const SweepScenario& scenario : scenarios) {
        sweep.expected.push_back(ExpectedOf(scenario));
    }
    for (size_t i = 0; i < (options.threads > 0 ? options.threads : processors); i++) {
        sweep.workers.push_back({{fmt::format("{}/phone-{}", folder.path, i), {}}});
    }
    RunBases(sweep);
    if (sweep.result.interruptedBy == 0) {
        RunJobs(sweep);
    }
    // By scenario and call; of those at one call, in the order of the work.
    std::stable_sort(sweep.result.violations.begin(), sweep.result.violations.end(),
                     [](const SweepViolation& one, const SweepViolation& other) {
                         return std::tie(one.scenario, one.call) <
                                std::tie(other.scenario, other.call);
                     });
    sweep.result.runs = sweep.runs;
    return std::move(sweep.result);
}
