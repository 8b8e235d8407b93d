// The release gate: a phone that would use up its attempt, get a wrong image or nothing at all must
// be seen here, before the package is on phones.
#include "test/fwlab/fwlab.h"

namespace {

std::string Model(const std::string& keys, const std::string& running) {
    return "[[model]]\n" + keys + "running = [" + running + "]\n";
}
std::string Running(const std::string& revision, unsigned phones) {
    return "{ revision = '" + revision + "', phones = " + std::to_string(phones) + " }, ";
}
const std::string NAMED =
    "technology = 'ufs'\nmanfid = '0x0001ce'\nproduct_name = 'SIMUFS128G-B0B1 '\n";
const std::string EMMC = "technology = 'emmc'\nmanufacturer_id = 0x13\nproduct_name = 'SIM064'\n"
                         "mode = 'normal'\next_csd_rev = ";
const std::string UFS_FLEET = Model(NAMED, Running("0800", 70));
const std::string EMMC_FLEET = Model(EMMC + "8\n", Running("FW000001", 9));

} // namespace

TEST_F(FwlabTest, PlanTellsWhatEachPhoneGets) {
    const std::string none = "{ revision = ", ufs = UfsEntry();
    // The fleet, the package.
    const std::vector<Told> rows = {
        {0,
         "\"0800\"*70  gets entry 1, \"0900\"\n*\"0700\"*4  refused: *among its base revisions*"
         "\"0900\"*5  nothing to do: *Phones: 70 updated 5 nothing-to-do 4 refused\nNo phone",
         Model(NAMED, Running("0800", 70) + Running("0700", 4) +
                          "{ revision = [48, 57, 48, 48], phones = 5 }"),
         With(ufs, UFS_BASE_FIELD, "0800080008001000")},
        {1, "\"1000\"*8  USED UP: its revision is not newer*Do NOT release",
         Model(NAMED, Running("0800", 70) + Running("1000", 8))},
        {1, "entry 2 at 0x44 of *for \"OTHER\\n*: no phone of the fleet gets it*NOT", UFS_FLEET,
         ufs + With(ufs, UFS_PNM_FIELD, "OTHER\n")},
        {0, "MODEL *RUNS *PHONES*70 updated", Model("phone = 'phone.toml'\n", Running("0800", 70))},
        {0, "there is no eMMC package*Phones: 70 updated 9 nothing-to-do\n",
         UFS_FLEET + EMMC_FLEET},
        {1, "USED UP: entry 1 at 0x0 has ext_csd_rev 8, the device 7",
         Model(EMMC + "7\n", Running("FW000001", 9)), EmmcEntry()},
        {1, "package is empty", UFS_FLEET, ""},
        {2, "model is missing", ""},
        {2, "model is not", "model = 1"},
        {2, "model 1: running is not", Model(NAMED, "")},
        {2, "model 1: unknown key: colour", Model(NAMED + "colour = 1\n", Running("0800", 1))},
        {2, "1: running 1: unknown key: x", Model(NAMED, none + "'0800', phones = 1, x = 1 }")},
        {2, "1: running 1: revision has 3 bytes, not 4",
         Model(NAMED, none + "'080', phones = 1 }")},
        {2, "1: running 1: phones is not", Model(NAMED, none + "'0800', phones = -1 }")},
        {2, "1: running 1: phones is 0", Model(NAMED, Running("0800", 0))},
        {2, "1: running 2: the revision is there twice",
         Model(NAMED, Running("0800", 70) + Running("0800", 1))},
        {2, "model 2: the model is there twice",
         UFS_FLEET + Model("phone = 'phone.toml'\n", Running("0700", 1))},
        {2, "model 1: mode is missing",
         std::regex_replace(EMMC_FLEET, std::regex("mode = 'normal'\n"), "")},
        {2, "model 1: *gone: No such file", Model("phone = 'gone'\n", Running("0800", 70))},
    };
    Put("/phone.toml", UfsPhone());
    ExpectEach("plan package --fleet fleet.toml", {"/fleet.toml", "/package"}, rows, ufs);
    Put("/fleet.toml", UFS_FLEET + EMMC_FLEET);
    Put("/package", ufs);
    Put("/emmc", EmmcEntry());
    Expect(Fwlab("plan package emmc --fleet fleet.toml"), 0, "Phones: 79 updated\n");
    Expect(Fwlab("plan package package --fleet fleet.toml"), 2, "both UFS packages");
    Expect(Fwlab("plan package --fleet fleet.toml --json"), 0,
           "\"answer\": \"updated\"*\"totals\": {*\"updated\": 70");
}

namespace {

using Pulled = std::vector<Files>; // a state directory each

// So many phones with the record of an attempt, and flags.
Pulled Phones(unsigned count, const std::string& from, const std::string& to, const Files& flags,
              const std::string& product = UFS_PNM) {
    return Pulled(count, Files{{"fw_result", AttemptRecord(from, to, product)}} + flags);
}
const Files PASSED = {{"ffu.ok", CLOCK_TEXT}, {"ffu.end", ""}},
            FAILED = {{"ffu.fail", CLOCK_TEXT}, {"ffu.bgn", ""}};

} // namespace

TEST_F(FwlabTest, PlanKnowsAttemptsOnRecord) {
    const std::string limit = "max_hw_sectors_kb = ";
    const struct {
        int status;
        std::string texts, fleet;
        Pulled pulled;
        std::string package = UfsEntry();
    } rows[] = {
        {0, "\"0800\" *5  gets entry 1*Note: 9 records belong to no phone",
         Model(NAMED, Running("0800", 5)), Phones(9, "0800", "0900", PASSED)},
        {1, "\"V12\\x00*1  already attempted: *FINDING: entry 1*NOT",
         Model(EMMC + "8\n", Running("V12", 1)), Phones(1, "V11", "V12", PASSED, "SIM064"),
         EmmcEntry("V1")},
        {1, "\"A,B\\x00*\" or \"C\\x00*2  UNKNOWN*runs \"A,B\\x00*: already attempted*: nothing to",
         Model(EMMC + "8\n", Running("A,B", 2)), Phones(2, "A,B", "C", FAILED, "SIM064"),
         EmmcEntry("C")},
        {1,
         "\"0800\" *1  gets*\"0800\" or \"0900\" *2  UNKNOWN: *runs \"0800\": already att*"
         "runs \"0900\": nothing to do*Phones: 1 updated 2 unknown",
         Model(NAMED, Running("0800", 3)), Phones(2, "0800", "0900", FAILED)},
        // One that is counted under its target, as nothing is left under its base.
        {1, "\"0800\" or \"0900\" *3  UNKNOWN*Phones: 3 unknown\nFINDING",
         Model(NAMED, Running("0800", 2) + Running("0900", 1)), Phones(3, "0800", "0900", FAILED)},
        // Either model may be that of the phone.
        {1, "\"0x0001ce\"*1  UNKNOWN: *0x0001ce*gets entry 1*0x0001ad*USED UP",
         Model(NAMED, Running("0850", 1)) +
             Model(std::regex_replace(NAMED, std::regex("ce"), "ad"), Running("0700", 1)),
         Phones(1, "0800", "0850", PASSED)},
        {1,
         "1  USED UP: it is one of*USED UP: *larger than the 4 KiB*USED UP: *larger than the 8 KiB",
         Model(NAMED + limit + "4\n", Running("0850", 1)) +
             Model(NAMED + limit + "8\n", Running("0850", 1)),
         Phones(1, "0800", "0850", PASSED), UfsEntry("0900", Body(9000))},
        {1, "3  gets*FINDING: 1 phones have a record that no run can read back*NOT",
         Model(NAMED, Running("0800", 3)), Pulled{Files{{"fw_result", "damaged"}}}},
        {1, "FINDING: 1 folders are not state directories", Model(NAMED, Running("0800", 3)), {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.texts + row.fleet);
        fs::remove_all(Path("/pulled"));
        fs::create_directory(Path("/pulled"));
        for (size_t i = 0; i < row.pulled.size(); i++) {
            PutState("/pulled/" + std::to_string(i), row.pulled[i]);
        }
        Put("/package", row.package);
        Put("/fleet.toml", row.fleet);
        Expect(Fwlab("plan package --fleet fleet.toml --records pulled"), row.status, row.texts);
    }
}
