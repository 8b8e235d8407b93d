// Fleets of which each phone is known, with a state directory for each that has tried: plan must
// count each in the row with the answer that match gives for it, or with both answers if it may run
// two revisions, and in the total of its answer.
#include "fwlab/commands/commands.h"
#include "fwlab/phone/decision.h"
#include "test/phone/phone.h"

#include <nlohmann/json.hpp>
#include <random>
#include <set>

namespace {

const Texts REVISIONS = {"0700", "0800", "0850", "0900"};

class PlanAgreement : public PhoneTest {
protected:
    std::mt19937 random{1};
    unsigned Below(unsigned end) {
        return static_cast<unsigned>(random() % end);
    }

    // A random state directory of a phone with this revision, and the revisions that it may run.
    std::pair<Files, Texts> RandomState(const std::string& revision) {
        const std::string &from = REVISIONS[Below(4)], &to = REVISIONS[Below(4)];
        const Files open = {{"fw_result", AttemptRecord(revision, to, UFS_PNM)}};
        const Files passed = {{"fw_result", AttemptRecord(from, revision, UFS_PNM)},
                              {"ffu.ok", CLOCK_TEXT},
                              {"ffu.end", ""}};
        const Files flags[] = {{}, {{"ffu.bgn", ""}}, {{"ffu.bgn", ""}, {"ffu.fail", CLOCK_TEXT}}};
        switch (Below(4)) {
        case 0:
            return {{}, {revision}}; // has not tried
        case 1:
            return {passed, {revision}};
        default:
            return {open + flags[Below(3)], revision == to ? Texts{to} : Texts{revision, to}};
        }
    }

    void CompareFleet() {
        const Texts bases = {std::string(16, '\xFF'), "0800", "07000800"};
        Put("/package", With(UfsEntry(REVISIONS[Below(4)]), UFS_BASE_FIELD, bases[Below(3)]));
        Put("/pulled", MISSING);
        Put("/pulled/none/ffu.end", ""); // of a phone that has not tried
        const Package package = OpenPackage(Path("/package"));
        std::map<std::string, unsigned> rows, shown, totals; // phones by their answers
        std::string model = "[[model]]\nphone = 'phone.toml'\nrunning = [";
        for (const std::string& revision : REVISIONS) {
            const unsigned phones = 1 + Below(4);
            model += "{ revision = '" + revision + "', phones = " + std::to_string(phones) + " }, ";
            for (unsigned i = 0; i < phones; i++) {
                const auto [state, running] = RandomState(revision);
                for (const auto& [name, content] : state) {
                    Put("/pulled/" + revision + std::to_string(i) + "/" + name, content);
                }
                std::string row;
                std::set<Verdict> verdicts;
                for (const std::string& one : running) {
                    const auto phone = ReadDescription(Path("/phone.toml"), {"revision=" + one});
                    const Verdict verdict = Decide(package, DeviceOf(phone), {true, state}).verdict;
                    row += one + " " + WordOf(verdict) + "; ";
                    verdicts.insert(verdict);
                }
                rows[row]++;
                totals[WordOf(verdicts.size() == 1 ? *verdicts.begin() : Verdict::UNKNOWN)]++;
            }
        }
        Put("/fleet.toml", model + "]\n");
        testing::internal::CaptureStdout();
        const int status =
            Plan({{Path("/package")}, Path("/fleet.toml"), Path("/pulled")}, /*asJson=*/true);
        const std::string text = testing::internal::GetCapturedStdout();
        const nlohmann::json report = nlohmann::json::parse(text);
        for (const auto& line : report["lines"]) {
            std::string row;
            for (const auto& one : line["cases"]) {
                row += one["revision"].get<std::string>() + " " + one["answer"].get<std::string>() +
                       "; ";
            }
            shown[row] += line["phones"].get<unsigned>();
            EXPECT_EQ(line["entry"].is_null(), line["answer"] != "updated") << text;
        }
        EXPECT_EQ(shown, rows) << text;
        EXPECT_EQ(report["totals"], nlohmann::json(totals)) << text;
        const bool isReleasable =
            totals.count("updated") > 0 && totals.count("unknown") + totals.count("used-up") == 0;
        EXPECT_EQ(status, isReleasable ? 0 : 1);
    }
};

TEST_F(PlanAgreement, EachPhoneGetsItsAnswer) {
    Put("/phone.toml", UfsPhone());
    for (unsigned fleet = 0; fleet < 100 && !HasFailure(); fleet++) {
        CompareFleet();
    }
}

} // namespace
