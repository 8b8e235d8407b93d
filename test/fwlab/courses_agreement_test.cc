// Courses of up to four runs of one phone: right clocks and wrong ones, firmware that the device
// takes and refuses, failing calls, and power cuts with any loss of what was not synced. What
// fwlab's outcome says of the last attempt on record must be what the device and the tool did in
// its run. FFU_SEED chooses other courses, FFU_COURSES how many.
#include "fwlab/phone/state_directory.h"
#include "simphone/power_loss.h"
#include "test/phone/phone.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <iomanip>
#include <random>
#include <sstream>

namespace {

enum Clock { RIGHT, RESTARTS, IS_SET, STANDS_STILL, JUMPS };

struct Course {
    bool isUfs;
    Clock clock;
    bool isPlain = true;                                     // without a fault
    bool isTaken = false, isAsked = false, isFailed = false; // the last attempt
    bool isLast = false;                                     // it was made in the last run
    bool runsWhole = false;                                  // which was not cut
    std::string text = {};
};

std::string In(const char* format, time_t time) {
    tm parts = {};
    std::ostringstream text;
    text << std::put_time(localtime_r(&time, &parts), format);
    return text.str();
}

bool TakesUpdate(const CallEntry& call) {
    return call.request && call.request->taken == Taken::WHOLE &&
           (call.request->kind == RequestKind::SCSI_WRITE_BUFFER ||
            call.request->kind == RequestKind::FFU_INSTALL);
}

class OutcomeOfCourses : public PhoneTest {
protected:
    std::mt19937 random{FromEnvironment("FFU_SEED", 1)};
    time_t now = 0, start = 0; // the right time; at which a wrong clock starts
    std::map<Verdict, size_t> verdicts;
    size_t wholes = 0, definite = 0; // last runs; of which the outcome was told

    unsigned Below(unsigned end) {
        return static_cast<unsigned>(random() % end);
    }
    // What a run's clock shows when it writes the record, and the outcome flag.
    std::pair<time_t, time_t> Times(Clock clock) {
        now += 2400 + (Below(2) == 0 ? Below(90) * 86400 : 0);
        const time_t lasts = Below(5) == 0 ? Below(600) : Below(20);
        const time_t jumps[] = {0, 0, 7, -7, 500, 1500, -1500, 3600, -3600, 86400, -86400};
        const time_t wrong = start + 15 + Below(30);
        start += clock == JUMPS ? jumps[Below(11)] : 0;
        const time_t begins = clock == RIGHT                         ? now
                              : clock == RESTARTS || clock == IS_SET ? wrong
                                                                     : start;
        return {begins, clock == STANDS_STILL              ? begins
                        : clock == IS_SET && Below(2) == 0 ? now
                                                           : begins + lasts};
    }
    std::string Fault() {
        const unsigned ends[] = {150, 60, 45}; // the record and the flags are among the first ones
        const std::string call = "any #" + std::to_string(1 + Below(ends[Below(3)]));
        return Below(5) < 2 ? "" : call + (Below(4) == 0 ? " EIO" : " end");
    }

    // A phone whose device takes the firmware or refuses it, with a package for it.
    void Prepare(bool isUfs, const std::string& target, bool refuses, time_t begins) {
        const std::string rev = target + (isUfs ? "" : "0000");
        Overrides keys = {{"clock", In("%Y-%m-%dT%H:%M:%S", begins)},
                          {"firmware.revision", "'" + rev + "'"}};
        keys[isUfs ? "write_buffer" : "faults"] = !refuses ? isUfs ? "'good'" : "[]"
                                                  : isUfs  ? "'sense 5/26/00'"
                                                           : "['FFU_INSTALL EIO']";
        Put("/phone.toml", isUfs ? UfsPhone(keys) : NormalPhone(keys));
        Put(isUfs ? UFS_PACKAGE : EMMC_PACKAGE, isUfs ? UfsEntry(rev) : EmmcEntry(rev));
    }

    void RunOnce(Course& course) {
        const std::string target = Texts{"0800", "0900", "1000", "1100", "1200"}[Below(5)];
        const bool refuses = Below(4) == 0;
        const std::string fault = Fault();
        const auto [begins, ends] = Times(course.clock);
        Prepare(course.isUfs, target, refuses, begins);
        const RunResult run = RunAnyhow({fault});
        StateDirectory after = run.after;
        for (const CallEntry& call : run.calls) {
            const std::string name = call.path.substr(call.path.rfind('/') + 1);
            if (call.function == "write" && call.error.empty() &&
                (name == "ffu.ok" || name == "ffu.fail")) {
                std::string& flag = after.files[name]; // ended later than the record was written
                flag.replace(flag.size() - 25, 25, In("%a %b %e %H:%M:%S %Y\n", ends));
            }
        }
        course.runsWhole = run.signal == 0;
        const auto survivals = course.runsWhole ? std::vector<Survival>{{{}, after}}
                                                : Survivals(run.before, after, run.calls);
        Survival left = survivals[Below(static_cast<unsigned>(survivals.size()))];
        WriteStateDirectory(directory, left.state);
        Files old = run.before.files;
        course.isLast = left.state.files["fw_result"].size() > old["fw_result"].size();
        if (course.isLast) {
            course.isTaken = std::any_of(run.calls.begin(), run.calls.end(), TakesUpdate);
            course.isAsked = !Requests(run).empty();
            course.isFailed = Count(Steps(run), "UpdateResultFlag: upgrade to ") > 0;
        }
        course.isPlain = course.isPlain && fault.empty();
        course.text += In("\n%F %T", begins) + In(" to %F %T", ends) + " " + target +
                       (refuses ? ", refused " : " ") + fault + LossText(left.losses);
        if (!course.runsWhole || Below(2) == 0) {
            RebootPhone(OpenPhone(directory));
        }
    }

    // What is said is what happened; with a right clock and no fault it is all that happened.
    void Compare(const Course& course, const StateReport& said) {
        const Verdict verdict = said.verdict;
        SCOPED_TRACE(course.text + "\n" + Sentence(said));
        verdicts[verdict]++;
        const bool saysPassed = HasPassed(said), saysFailed = verdict == Verdict::FAILED;
        EXPECT_TRUE(verdict != Verdict::UPDATED || saysPassed);
        EXPECT_TRUE(!saysPassed || course.isTaken);
        EXPECT_TRUE(!saysFailed || course.isFailed);
        EXPECT_FALSE(saysFailed && course.isPlain && course.isTaken);
        EXPECT_FALSE(verdict == Verdict::NOTHING_TO_DO && !said.record.target.empty());
        if (course.clock == RIGHT && course.isLast) {
            const bool isWhole = course.runsWhole && course.isAsked;
            wholes += isWhole;
            definite += isWhole && (saysPassed || saysFailed);
            EXPECT_TRUE(!course.isPlain || (verdict == Verdict::UPDATED) == course.isTaken);
            EXPECT_TRUE(!course.isPlain || saysFailed == (course.isAsked && !course.isTaken));
        }
    }
};

TEST_F(OutcomeOfCourses, SaysOnlyWhatHappened) {
    const unsigned count = FromEnvironment("FFU_COURSES", 300);
    for (unsigned i = 0; i < count && !HasFailure(); i++) {
        now = 1772870000 + Below(1000000);
        start = std::array<time_t, 3>{10, 1230768000, 1772870000}[Below(3)];
        Course course = {Below(2) == 0, static_cast<Clock>(Below(5))};
        Make(course.isUfs ? UfsPhone() : NormalPhone());
        for (unsigned runs = 1 + Below(4); runs > 0; runs--) {
            RunOnce(course);
        }
        Compare(course, ReadState(Path(STATE)));
    }
    printf("right clock, last run whole and with an attempt: %zu of %zu definite\n", definite,
           wholes);
    EXPECT_GE(10 * definite, 9 * wholes);
    for (const Verdict verdict :
         {Verdict::UPDATED, Verdict::NOTHING_TO_DO, Verdict::FAILED, Verdict::INTERRUPTED,
          Verdict::UNKNOWN, Verdict::STOPPED, Verdict::RECORD_UNREADABLE}) {
        printf("%-17s %zu\n", WordOf(verdict), verdicts[verdict]);
        EXPECT_GE(verdicts[verdict], count < 300 ? 0U : 1U);
    }
}

} // namespace
