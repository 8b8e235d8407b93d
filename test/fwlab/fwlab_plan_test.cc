// The release gate: a phone that would use up its attempt, get a wrong image or nothing at all must
// be seen here, before the package is on phones.
#include "test/fwlab/fwlab.h"

#include <nlohmann/json.hpp>
#include <random>
#include <regex>

namespace {

using Json = nlohmann::json;

std::string Model(const std::string& keys, const std::string& running) {
    return "[[model]]\n" + keys + "running = [" + running + "]\n";
}
const std::string UFS = "technology = 'ufs'\nmanfid = '0x0001ce'\n";
const std::string NAMED = UFS + "product_name = 'SIMUFS128G-B0B1 '\n";
const std::string EMMC = "technology = 'emmc'\nmanufacturer_id = 0x13\nproduct_name = 'SIM064'\n"
                         "mode = 'normal'\next_csd_rev = ";
const std::string OLD = "{ revision = '0800', phones = 70 }, ";
const std::string EMMC_OLD = "{ revision = 'FW000001', phones = 9 }";

} // namespace

TEST_F(FwlabTest, PlanTellsWhatEachPhoneGets) {
    const std::string other = With(UfsEntry(), UFS_PNM_FIELD, "OTHER\n");
    const std::string ufs = With(UfsEntry(), UFS_BASE_FIELD, "0800080008001000");
    const struct {
        int status;
        std::string texts, fleet, package = UfsEntry();
    } rows[] = {
        {0,
         "\"0800\"*70  gets entry 1, \"0900\"\n*\"0700\"*4  refused: the running revision is not "
         "among its base revisions*\"0900\"*5  nothing to do: *Phones: 70 updated 5 nothing-to-do "
         "4 "
         "refused\nNo phone",
         Model(NAMED, OLD + "{ revision = '0700', phones = 4 }, { revision = [48, 57, 48, 48], "
                            "phones = 5 }"),
         ufs},
        {1, "\"1000\"*8  USED UP: its revision is not newer*Do NOT release",
         Model(NAMED, OLD + "{ revision = '1000', phones = 8 }"), ufs},
        {1, "WRONG IMAGE: the pre-check selects entry 2 at 0x44, the update selects entry 1",
         Model(NAMED, OLD), With(UfsEntry(), UFS_PNM_FIELD, "SIMUFS128G\n") + UfsEntry()},
        {1, "USED UP: its body is larger than the 4 KiB",
         Model(NAMED + "max_hw_sectors_kb = 4\n", OLD), UfsEntry("0900", Body(5000))},
        {1, "entry 2 at 0x44 of *for \"OTHER\\n*: no phone of the fleet gets it*NOT",
         Model(NAMED, OLD), UfsEntry() + other},
        {0, "70 updated", Model("phone = 'phone.toml'\n", OLD)},
        {0, "there is no eMMC package*Phones: 70 updated 9 nothing-to-do\n",
         Model(NAMED, OLD) + Model(EMMC + "8\n", EMMC_OLD)},
        {1, "USED UP: entry 1 at 0x0 has ext_csd_rev 8, the device 7",
         Model(EMMC + "7\n", EMMC_OLD), EmmcEntry()},
        {0, "9  gets entry 1, \"FW000002\"", Model(EMMC + "8\n", EMMC_OLD), EmmcEntry()},
        {2, "model is missing", ""},
        {2, "model is not", "model = 1"},
        {2, "model 1: running is not", Model(NAMED, "")},
        {2, "model 1: running is missing", "[[model]]\n" + NAMED},
        {2, "model 1: unknown key: colour", Model(NAMED + "colour = 1\n", OLD)},
        {2, "model 1: running 1: unknown key: x",
         Model(NAMED, "{ revision = '0800', phones = 1, x = 1 }")},
        {2, "model 1: running 1: revision has 3 bytes, not 4",
         Model(NAMED, "{ revision = '080', phones = 1 }")},
        {2, "model 1: running 1: phones is not",
         Model(NAMED, "{ revision = '0800', phones = -1 }")},
        {2, "model 1: mode is missing",
         Model("technology = 'emmc'\nmanufacturer_id = 1\n"
               "product_name = 'SIM064'\next_csd_rev = 8\n",
               EMMC_OLD)},
        {2, "model 1: *gone: No such file", Model("phone = 'gone'\n", OLD)},
    };
    Put("/phone.toml", UfsPhone());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.texts + row.fleet);
        Put("/package", row.package);
        Put("/fleet.toml", row.fleet);
        Expect(Fwlab("plan package --fleet fleet.toml"), row.status, row.texts);
    }
    Put("/fleet.toml", Model(NAMED, OLD) + Model(EMMC + "8\n", EMMC_OLD));
    Put("/package", UfsEntry());
    Put("/emmc", EmmcEntry());
    Expect(Fwlab("plan package emmc --fleet fleet.toml"), 0, "Phones: 79 updated\n");
    Expect(Fwlab("plan package package --fleet fleet.toml"), 2, "both UFS packages");
    Expect(Fwlab("plan package --fleet fleet.toml --json"), 0,
           "\"answer\": \"updated\"*\"totals\": {*\"updated\": 70");
}

namespace {

const std::string EARLIER = "Mon Nov 16 13:00:00 2026\n", LATER = "Mon Nov 16 13:00:09 2026\n";
std::string Record(const std::string& base, const std::string& target,
                   const std::string& product = UFS_PNM) {
    return EARLIER + "product name:" + product + ", current fw version:" + base +
           ", upgrading to version:" + target + "\n";
}
Files Passed(const std::string& record) {
    return {{"fw_result", record}, {"ffu.ok", LATER}, {"ffu.end", ""}};
}
Files Failed(const std::string& record) {
    return {{"fw_result", record}, {"ffu.fail", LATER}, {"ffu.bgn", ""}};
}
Files Interrupted(const std::string& record) {
    return {{"fw_result", record}, {"ffu.bgn", ""}};
}
std::string Counted(const std::string& revision, unsigned phones) {
    return "{ revision = '" + revision + "', phones = " + std::to_string(phones) + " }, ";
}

class PlanTest : public FwlabTest {
protected:
    // Phones with the same files, one directory each.
    void Pull(const Files& files, unsigned phones = 1) {
        for (; phones > 0; phones--) {
            const std::string folder = "/pulled/" + std::to_string(pulled++);
            fs::create_directories(Path(folder));
            for (const auto& [name, content] : files) {
                Put(folder + "/" + name, content);
            }
        }
    }
    void Clear() {
        fs::remove_all(Path("/pulled"));
        fs::create_directory(Path("/pulled"));
    }
    unsigned pulled = 0;
};

} // namespace

TEST_F(PlanTest, KnowsAttemptsOnRecord) {
    const std::string emmc = EMMC + "8\n", any = UfsEntry();
    const struct {
        int status;
        std::string texts, fleet;
        std::vector<std::pair<Files, unsigned>> pulled;
        std::string package = UfsEntry();
    } rows[] = {
        // Five have never tried; nine have passed.
        {0,
         "\"0800\" *5  gets entry 1*\"0900\" *9  nothing to do*Phones: 5 updated 9 nothing-to-do\n",
         Model(NAMED, Counted("0800", 5) + Counted("0900", 9)),
         {{Passed(Record("0800", "0900")), 9}}},
        {0,
         "\"0800\" *5  gets entry 1*Note: 9 records belong to no phone",
         Model(NAMED, Counted("0800", 5)),
         {{Passed(Record("0800", "0900")), 9}}},
        {1,
         "\"V12\\x00*1  already attempted: *FINDING: entry 1*NOT",
         Model(emmc, Counted("V12", 1)),
         {{Passed(Record("V11", "V12", "SIM064")), 1}},
         EmmcEntry("V1")},
        {1,
         "\"A,B\\x00*\" or \"C\\x00*2  UNKNOWN*runs \"A,B\\x00*: already attempted*: nothing to",
         Model(emmc, Counted("A,B", 2)),
         {{Failed(Record("A,B", "C", "SIM064")), 2}},
         EmmcEntry("C")},
        {1,
         "\"0800\" *1  gets*\"0800\" or \"0900\" *2  UNKNOWN: *runs \"0800\": already att*runs "
         "\"0900\": nothing to do*Phones: 1 updated 2 unknown",
         Model(NAMED, Counted("0800", 3)),
         {{Failed(Record("0800", "0900")), 1}, {Interrupted(Record("0800", "0900")), 1}}},
        // One that is counted under its target, as nothing is left under its base.
        {1,
         "\"0800\" or \"0900\" *3  UNKNOWN*Phones: 3 unknown\nFINDING",
         Model(NAMED, Counted("0800", 2) + Counted("0900", 1)),
         {{Failed(Record("0800", "0900")), 3}}},
        {0,
         "\"0800\" *1  gets*\"0800\" or \"0850\" *2  gets entry 1*Phones: 3 updated\n",
         Model(NAMED, Counted("0800", 3)),
         {{Failed(Record("0800", "0850")), 2}}},
        // Either model may be that of the phone.
        {1,
         "\"0x0001ce\"*1  UNKNOWN: *0x0001ce*gets entry 1*0x0001ad*USED UP",
         Model(NAMED, Counted("0850", 1)) +
             Model("technology = 'ufs'\nmanfid = '0x0001ad'\nproduct_name = 'SIMUFS128G-B0B1 '\n",
                   Counted("0700", 1)),
         {{Passed(Record("0800", "0850")), 1}}},
        {1,
         "1  USED UP: it is one of*USED UP: *larger than the 4 KiB*USED UP: *larger than the 8 KiB",
         Model(NAMED + "max_hw_sectors_kb = 4\n", Counted("0850", 1)) +
             Model(NAMED + "max_hw_sectors_kb = 8\n", Counted("0850", 1)),
         {{Passed(Record("0800", "0850")), 1}},
         UfsEntry("0900", Body(9000))},
        {1,
         "3  gets*FINDING: 1 phones have a record that no run can read back*NOT",
         Model(NAMED, Counted("0800", 3)),
         {{{{"fw_result", "damaged"}}, 1}}},
        {1, "FINDING: 1 folders are not state directories", Model(NAMED, Counted("0800", 3)), {}},
        {2, "model 1: running 1: phones is 0", Model(NAMED, Counted("0800", 0)), {}},
        {2,
         "model 1: running 2: the revision is there twice",
         Model(NAMED, OLD + Counted("0800", 1)),
         {}},
        {2,
         "model 2: the model is there twice",
         Model(NAMED, OLD) + Model("phone = 'phone.toml'\n", Counted("0700", 1)),
         {}},
        {2, "package: is no firmware package: it has no entry", Model(NAMED, OLD), {}, Body(5000)},
        {1, "package is empty", Model(NAMED, OLD), {}, ""},
    };
    Put("/phone.toml", UfsPhone());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.texts + row.fleet);
        Clear();
        for (const auto& [files, phones] : row.pulled) {
            Pull(files, phones);
        }
        Put("/package", row.package);
        Put("/fleet.toml", row.fleet);
        Expect(Fwlab("plan package --fleet fleet.toml --records pulled"), row.status, row.texts);
    }
    Put("/package", UfsEntry());
    Put("/fleet.toml", Model(NAMED, Counted("0800", 1)));
    Pull(Failed(Record("0800", "0900")));
    Expect(Fwlab("plan package --fleet fleet.toml --records pulled --json"), 1,
           "\"answer\": \"unknown\"*\"entry\": null*\"cases\": *\"answer\": \"already-attempted\"*"
           "\"revision\": \"0900\"*\"answer\": \"nothing-to-do\"*\"totals\": {*\"unknown\": 1");
}

// Fleets of which each phone is known, with one directory for each that has tried. Each must be in
// the row with the answer that `match` gives for it, or with both answers if it may run two
// revisions.
TEST_F(PlanTest, AnswersLikeMatch) {
    std::mt19937 random(1);
    const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
    const Texts revisions = {"0700", "0800", "0850", "0900"};
    Put("/phone.toml", UfsPhone());
    for (unsigned fleet = 0; fleet < 25 && !HasFailure(); fleet++) {
        const Texts bases = {std::string(16, '\xFF'), "0800", "07000800"};
        Put("/package", With(UfsEntry(revisions[below(4)]), UFS_BASE_FIELD, bases[below(3)]));
        std::map<std::string, std::string> known;
        const auto match = [&](const std::string& revision, const std::string& record) {
            std::string& answer = known[revision + record];
            if (answer.empty()) {
                Put("/record", record);
                const std::string option = record.empty() ? "" : " --record record";
                const Answer matched = Fwlab(
                    "match package --phone phone.toml --json --set revision=" + revision + option);
                answer = Json::parse(matched.text)["answer"];
            }
            return revision + " " + answer + "; ";
        };
        Clear();
        Pull({{"ffu.end", ""}}); // has not tried
        std::map<std::string, unsigned> rows;
        std::string running;
        for (const std::string& revision : revisions) {
            const unsigned phones = 1 + below(4);
            running += Counted(revision, phones);
            for (unsigned i = 0; i < phones; i++) {
                const std::string &from = revisions[below(4)], &to = revisions[below(4)];
                const std::string passed = Record(from, revision), open = Record(revision, to);
                const std::vector<Files> files = {
                    Failed(open), Interrupted(open), {{"fw_result", open}}, Passed(passed)};
                const unsigned end = below(6);
                if (end >= files.size()) { // has not tried
                    rows[match(revision, "")]++;
                    continue;
                }
                Pull(files[end]);
                rows[end == 3         ? match(revision, passed)
                     : revision == to ? match(revision, open)
                                      : match(revision, open) + match(to, open)]++;
            }
        }
        Put("/fleet.toml", Model(NAMED, running));
        const Answer answer = Fwlab("plan package --fleet fleet.toml --records pulled --json");
        SCOPED_TRACE(answer.text);
        std::map<std::string, unsigned> shown;
        const Json report = Json::parse(answer.text);
        for (const Json& line : report["lines"]) {
            std::string row;
            for (const Json& one : line["cases"]) {
                row += one["revision"].get<std::string>() + " " + one["answer"].get<std::string>() +
                       "; ";
            }
            shown[row] += line["phones"].get<unsigned>();
        }
        EXPECT_EQ(shown, rows);
        bool isCalm = true, isReceived = false;
        for (const auto& [row, phones] : rows) {
            const std::string answers = std::regex_replace(row, std::regex("[0-9]+ "), "");
            const bool isOne = std::regex_match(answers, std::regex("([^;]*; )(\\1)?"));
            isCalm &= isOne && Count(row, "used-up") == 0;
            isReceived |= Count(row, "updated") > 0;
        }
        EXPECT_EQ(answer.status, isCalm && isReceived ? 0 : 1);
    }
}
