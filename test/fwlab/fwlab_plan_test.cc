// The release gate: a phone that would use up its attempt, get a wrong image or nothing at all must
// be seen here, before the package is on phones.
#include "test/fwlab/fwlab.h"

namespace {

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
        {1, "\"1000\"*8  USED UP: its revision is not newer*Do NOT release this package",
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

TEST_F(FwlabTest, PlanKnowsAttemptsOnRecord) {
    const auto record = [](const std::string& base, const std::string& target) {
        return CLOCK_TEXT + "product name:SIMUFS128G-B0B1 , current fw version:" + base +
               ", upgrading to version:" + target + "\n";
    };
    Put("/package", UfsEntry());
    Put("/fleet.toml", Model(NAMED, OLD));
    Put("/pulled/A/fw_result", record("0800", "0900"));
    Put("/pulled/B/fw_result", record("0800", "0900"));
    Put("/pulled/C/fw_result", record("0800", "0850"));
    Put("/pulled/D/fw_result", record("0700", "0900")); // ran another revision
    Put("/pulled/E/fw_result", "damaged");
    Expect(
        Fwlab("plan package --fleet fleet.toml --records pulled"), 1,
        "67  gets entry 1*1  gets entry 1*2  already attempted: the last attempt was from*"
        "Phones: 68 updated 2 already-attempted\nNote: 1 records belong to no phone of the fleet.\n"
        "FINDING: 1 phones have a record that no run can read back*Do NOT release this package");
    fs::create_directory(directory + "/empty");
    Expect(Fwlab("plan package --fleet fleet.toml --records empty"), 1, "not state directories");
}
