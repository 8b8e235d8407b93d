// What the workstation tool makes of manifests, packages and phones.
#include "test/fwlab/fwlab.h"

#include <sys/stat.h>

namespace {

// Of "abc", by FIPS 180-2.
const std::string ABC_SHA256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

} // namespace

TEST_F(FwlabTest, FromManifestToUpdatedPhone) {
    const std::string body = Body(1000), emmc = EmmcEntry(EMMC_NEW_REV, body);
    const std::string fromOld = With(emmc, EMMC_BASE_FIELD, EMMC_REV + EMMC_REV);
    const struct {
        std::string phone, manifest, package;
    } rows[] = {
        {GkiPhone(), EmmcManifest({"base_revisions = ['FW000001']", "market_name = 'EU'"}),
         With(fromOld, EMMC_MARKET_FIELD, "EU")},
        {NormalPhone(), EmmcManifest(), emmc},
        {UfsPhone(), UfsManifest({"base_revisions = ['0700', '0800']"}),
         With(UfsEntry(UFS_NEW_REV, body), UFS_BASE_FIELD, "0700080008000800")},
    };
    Put("/image", body);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.phone);
        Put("/phone.toml", row.phone);
        Expect(Pack(row.manifest), 0);
        EXPECT_EQ(Get("/package"), row.package);
        Expect(Fwlab("list package"), 0);
        Expect(Fwlab("match package --phone phone.toml"), 0, "An update to ");
        Expect(Fwlab("rehearse package --phone phone.toml --reboot-and-run-again"), 0,
               "log     | FFU process CheckBaseRev: *console | *"
               "device  | *log     | FFU process UpdateResultFlag: update to *exit status 0*"
               "from 10?? bytes that were downloaded: entry 1 at 0x0.*"
               "The second run:*is as new as fwBin*"
               "The second run found nothing to do.*The phone is updated.");
    }
}

TEST_F(FwlabTest, PackFillsShortTextsAsPhonesDo) {
    Put("/image", "abc");
    Expect(Pack(UfsManifest({"product_name = 'SIMUFS128G-B0'", "manfid = '0x00012c'",
                             "image_sha256 = '" + ABC_SHA256 + "'"})),
           0);
    EXPECT_EQ(Get("/package"),
              With(With(UfsEntry(UFS_NEW_REV, "abc"), UFS_PNM_FIELD, "SIMUFS128G-B0\n"),
                   UFS_MID_FIELD, "0x00012c"));
    Expect(Pack(EmmcManifest({"revision = [5, 1]", "base_revisions = ['4']"})), 0);
    EXPECT_EQ(Get("/package"), With(EmmcEntry("\5\1", "abc"), EMMC_BASE_FIELD,
                                    std::string("4\0\0\0\0\0\0\0004", 9)));
    Expect(Fwlab("list --json package"), 0,
           "\"base_revisions\": [*\"4\\x00*\"body_offset\": 48,*\"body_size\": 3,*\"sha256\": \"" +
               ABC_SHA256 + "\"*\"findings\": []");
}

TEST_F(FwlabTest, PackRefuses) {
    const std::string notHex = "entry 1: image_sha256 is not 64 hexadecimal digits";
    const std::string other = UfsManifest({"product_name = 'OTHER'"});
    const std::string lenient = UfsManifest({"product_name = 'SIMUFS128G      '"});
    const Texts original = {"product_name = 'KLUEG8U1EM-B0B1'", "revision = '1000'",
                            "base_revisions = ['0900']"};
    // The manifest, the image.
    std::vector<Told> rows = {
        {2, "1: Error while parsing", "technology = "},
        {2, "\"emmc\" or \"ufs\"", "technology = 'nand'\n[[entry]]\n"},
        {2, "entry is missing", "technology = 'ufs'\n"},
        {2, "entry 1: unknown key: ext_csd_rev", UfsManifest({"ext_csd_rev = 8"})},
        {2, "1: more than 64 dots",
         "a" + std::regex_replace(std::string(20000, 'x'), std::regex("x"), ".a") + " = 1"},
        {2, "unknown key: \\x1b", UfsManifest({"\"\\u001b\" = 8"})},
        {2, "entry 1: revision is not", UfsManifest({"revision = true"})},
        {2, "0 to 255", EmmcManifest({"revision = [256, 1]"})},
        {2, "0 to 255", EmmcManifest({"manufacturer_id = 'E'"})},
        {2, "manfid is missing", UfsManifest({"manfid"})},
        {2, "base_revisions is not", EmmcManifest({"base_revisions = 'A'"})},
        {2, "gone: No such file", UfsManifest({"image = 'gone'"})},
        {2, "mem: Input/output error", UfsManifest({"image = '/proc/self/mem'"})},
        {2, "\\x1bgone: No such file", UfsManifest({"image = \"\\u001Bgone\""})},
        {1,
         "entry 1 (in the package entry 1 at 0x0): a phone would use up its attempt: its body is "
         "empty",
         UfsManifest(), ""},
        {2, notHex, UfsManifest({"image_sha256 = 5"})},
        {2, notHex, UfsManifest({"image_sha256 = '" + ABC_SHA256.substr(1) + "'"})},
        {2, notHex, UfsManifest({"image_sha256 = 'B" + ABC_SHA256.substr(1) + "'"})},
        {2, notHex, UfsManifest({"image_sha256 = '" + ABC_SHA256 + "0'"})},
        {1,
         "entry 1: image *image: its sha256 is "
         "a52d159f262b2c6ddb724a61840befc36eb30c88877a4030b65cbe8629"
         "8449c9, not " +
             ABC_SHA256,
         UfsManifest({"image_sha256 = '" + ABC_SHA256 + "'"}), "abd"},
        {1, "\"0x1ce\" is no manfid", UfsManifest({"manfid = '0x1ce'"})},
        {1, "\"0x0001CE\" is no manfid", UfsManifest({"manfid = '0x0001CE'"})},
        {1, "manfid must not be empty", UfsManifest({"manfid = ''"})},
        {1, "product_name must not be empty", UfsManifest({"product_name = ''"})},
        {1, "8 is eMMC 5.1", EmmcManifest({"ext_csd_rev = 51"})},
        {1, "older than eMMC 5.0", EmmcManifest({"ext_csd_rev = 6"})},
        {1, "begins with an entry header (eMMC)", UfsManifest(), EmmcEntry()},
        {1, "begins with an entry header (UFS)", UfsManifest(), UfsEntry()},
        {1, "product_name has 5 bytes, not 6", EmmcManifest({"product_name = 'SIM06'"})},
        {1, "revision has 9 bytes, not at most 8", EmmcManifest({"revision = 'FW0000002'"})},
        {1, "has 17 bytes", UfsManifest({"product_name = 'SIMUFS128G-B0B1  '"})},
        {1, "has 1 bytes", UfsManifest({"product_name = [65]"})},
        {1, "line feed", UfsManifest({"product_name = \"SIM\\n\""})},
        {1, "3 bytes", UfsManifest({"revision = '090'"})},
        {1, "3 revisions, not 1 to 2", EmmcManifest({"base_revisions = ['1', '2', '3']"})},
        {1, "no device can have", UfsManifest({"base_revisions = ['0800', [255, 255, 255, 255]]"})},
        {1, "zero byte", EmmcManifest({"revision = [0, 1]"})},
        {1, "line feed", EmmcManifest({"revision = [0x46, 0x0A]"})},
        {1, "from \"1000\": a phone would use up its attempt: its revision is not newer",
         UfsManifest({"base_revisions = ['0800', '1000']"})},
        {1, "equal to the running one (it compares only the beginning)",
         EmmcManifest({"revision = [5, 1]", "base_revisions = [[4], [5]]"})},
        {1, "the update uses the product name \"KLUEG8U1EM-REWK\"", UfsManifest(original)},
        {1, "entry 2 at 0x41): entry 1 at 0x0 comes first and is for the same",
         UfsManifest() + UfsTable()},
        {1, "entry 2 at 0x41): entry 1 at 0x0 comes first and has the same product name",
         UfsManifest() + UfsTable({"revision = '1000'"})},
        {1, "the update selects entry 2 at 0x41: it uses the product name \"KLUEG8U1EM-REWK\"",
         UfsManifest(original) +
             UfsTable({"product_name = 'KLUEG8U1EM-REWK'", "revision = '1100'"})},
        {1, "the update selects entry 1*a blank*into separate packages", lenient + UfsTable()},
        {1, "entry 2 (in the package entry 3 at 0x83): entry 2 at 0x42 comes first",
         other + UfsTable(), "xx" + UfsEntry("0850", "x")},
        {1, "1 MiB", EmmcManifest(), Body(0x100001)},
        {1, "8 MiB", UfsManifest(), Body(0x800001)},
    };
    for (Told& row : rows) {
        row.texts.insert(0, "fwlab: *manifest.toml:*");
    }
    Put("/package", "as it was");
    ExpectEach("pack manifest.toml -o package", {"/manifest.toml", "/image"}, rows, "x");
    EXPECT_EQ(Get("/package"), "as it was");
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), 3); // nothing half-written
    Put("/image", Body(0x100001));
    Expect(Pack(EmmcManifest(), "--gki-only"), 0);
    Expect(Pack(EmmcManifest() + EmmcManifest().substr(20), "--gki-only"), 1, "comes first");
    Put("/image", Body(0x800000));
    Expect(Pack(UfsManifest()), 0);
    Put("/image", Body(0x100000));
    Expect(Pack(EmmcManifest()), 0);
    // One name for two devices: the pre-check's entry is another, but of the same revision.
    Expect(Pack(EmmcManifest() + EmmcManifest({"ext_csd_rev = 7"}).substr(20)), 0);
    // A device that the update renames is served by both of its entries.
    const std::string renamed = UfsTable({"product_name = 'KLUEG8U1EM-REWK'", "revision = '1000'"});
    Expect(Pack(UfsManifest(original) + renamed), 0);
    Expect(Fwlab("pack manifest.toml -o gone/package"), 2, "gone/package: No such file");
    fs::create_symlink("package", directory + "/link");
    ASSERT_EQ(mkfifo(Path("/fifo").c_str(), 0600), 0);
    for (const std::string output : {"link", "fifo", "/dev/null", ".", "manifest.toml", "image"}) {
        Expect(Fwlab("pack manifest.toml -o " + output), 2, "fwlab: " + output + ": is ");
    }
    EXPECT_TRUE(fs::is_symlink(directory + "/link") && fs::is_character_file("/dev/null"));
}

TEST_F(FwlabTest, MatchTellsBothDecisions) {
    const std::string record = "Sat Mar  7 09:05:02 2026\nproduct name:SIMUFS128G-B0B1 , "
                               "current fw version:0800, upgrading to version:";
    const std::string ufs = UfsEntry(), emmc = EmmcEntry();
    const std::string strange = With(emmc, EMMC_MID_FIELD, "\x11");
    const std::string large = EmmcEntry(EMMC_NEW_REV, Body(0x100001));
    const std::string wrong = "WRONG IMAGE: the pre-check selects ", second = "entry 2 at 0x44, ";
    const std::string swapped = wrong + second + "the update selects entry 1 at 0x0";
    const auto named = [](const std::string& name, const std::string& rev = UFS_NEW_REV) {
        return With(UfsEntry(rev), UFS_PNM_FIELD, name);
    };
    const std::string answers =
        UfsPhone({{"write_buffer", "['good', 'sense 5/26/00']"}, {"faults", "'SG_IO EIO'"}});
    const std::string bytes = With(emmc, EMMC_BASE_FIELD, std::string("\5\0\0\0\0\0\0\0\6", 9));
    Put("/applied", record + "0900\n");
    Put("/another", record + "0850\n");
    Put("/torn", record);
    // The phone, the package.
    const std::vector<Told> rows = {
        {1, "ends here: no usable entry*has no body inside the package*No update.", UfsPhone(),
         named("OTHER") + With(ufs, UFS_SIZE_FIELD, BigEndian32(5))},
        {1, "ends here: selects entry 1 at 0x0, revision \"0800\"*No update.", UfsPhone(),
         UfsEntry("0800")},
        {1,
         "not among its base revisions*log: FFU process CheckFwBin: local fw rev is not valid*No",
         UfsPhone(), With(ufs, UFS_BASE_FIELD, "0700")},
        {1, "entry 1 at 0x0 has \"SIMUFS128G-B0B1\\x00\", which differs only in blanks", UfsPhone(),
         named("SIMUFS128G-B0B1")},
        {1, "the package holds eMMC entries", UfsPhone(), emmc},
        {1,
         "pre-check: goes on*update: ends here*would log: FwVerCheck,line=248: *"
         "USED UP: its revision is not newer*attempt for \"0700\" on record",
         UfsPhone(), UfsEntry("0700")},
        {1, "update: ends here: selects entry 2 at 0x34, *: its revision is running already",
         NormalPhone(), strange + EmmcEntry(EMMC_REV)},
        {1, "USED UP: entry 1 at 0x0 has manufacturer_id 17, the device 18", NormalPhone(), strange,
         "--set cid.manufacturer_id=18"},
        {1, "USED UP: entry 1 at 0x0 has manfid \"0x1ce\\n*, the device \"0x0001ad", UfsPhone(),
         With(ufs, UFS_MID_FIELD, "0x1ce\n"), "--set manfid=0x0001ad"},
        {1, "USED UP: entry 1 at 0x0 has ext_csd_rev 51, the device 7", GkiPhone(),
         With(emmc, EMMC_REV_FIELD, "3"), "--set ext_csd_rev=7"},
        {1, wrong + "entry 1 at 0x0, the update selects entry 2 at 0x34", NormalPhone(),
         With(strange, EMMC_FW_REV_FIELD, "A") + emmc},
        {1, swapped, UfsPhone(), named("SIMUFS128G\n") + ufs}, // of one revision
        // The pre-check's entry does not admit the revision that runs.
        {1, wrong + "entry 1 at 0x0, the update selects entry 2 at 0x44", UfsPhone(),
         With(ufs, UFS_MID_FIELD, "0x0001ad") + With(ufs, UFS_BASE_FIELD, "0700070007000700")},
        {1, "WRONG IMAGE: entry 2 at 0x46 lies inside the image of entry 1", UfsPhone(),
         With(UfsEntry("0900", "xxxxxx" + ufs), UFS_PNM_FIELD, "OTHER")},
        {1, "USED UP: the device is older than eMMC 5.0", GkiPhone({{"ext_csd_rev", "6"}}),
         With(emmc, EMMC_REV_FIELD, "\6")},
        {0, "selects entry 1*selects entry 2*An update to \"1000\": 4 bytes of entry 2", UfsPhone(),
         named("KLUEG8U1EM-B0B1\n", "1000") + named("KLUEG8U1EM-REWK", "1000"),
         "--set revision=0900 --set product_name=KLUEG8U1EM-B0B1"},
        {1, "USED UP: the body is larger than 8 MiB", UfsPhone(), UfsEntry("0900", Body(0x800001))},
        {1, "USED UP: its body is empty", UfsPhone(), UfsEntry("0900", "")},
        {1, "USED UP: the body is larger than 1 MiB", GkiPhone(), large, "--set mode=normal"},
        {1, "USED UP: its body is larger than the 4 KiB", UfsPhone(), UfsEntry("0900", Body(4097)),
         "--set max_hw_sectors_kb=4"},
        {0, "An update to \"FW000002\": 1048577 bytes*Note: *1 MiB", GkiPhone(), large},
        {1, "RECORD UNREADABLE: *has a line feed: *Every run that has an update stops.", GkiPhone(),
         EmmcEntry("FW\n")},
        {1, "goes on*record: ends here*\"0800\" to \"0900\"*already attempted: *No update.",
         UfsPhone(), ufs, "--record applied"},
        {0, "record: goes on", UfsPhone(), ufs, "--record another"},
        {1, "cannot parse the record*log: FFU process SubParseResultFile: Parse base rev failed!",
         UfsPhone(), ufs, "--record torn"},
        // What a device answers and which calls fail, match does not know.
        {0, "Note: write_buffer in the description is not looked at*Note: faults in", answers, ufs},
        {0, "\"not_looked_at\": [*\"write_buffer\",*\"faults\"", answers, ufs, "--json"},
        // An empty revision goes on record, too.
        {0, "\"recorded\": \"\"", GkiPhone(), EmmcEntry(std::string(8, '\0')), "--json"},
        {0, "runs \"\\x05\\x00", GkiPhone(), bytes, "--set 'revision=\\x05'"},
        {1, "not among its base revisions", GkiPhone(), bytes, "--set 'revision=[5, 1]'"},
        {0, "An update", GkiPhone(), With(emmc, EMMC_PNM_FIELD, "SIM065"),
         "--set cid.product_name=SIM065"},
        {2, "name is not 6 characters", GkiPhone(), emmc, "--set cid.product_name=SIM06"},
        {2, "phone.toml: unknown key: product_name", GkiPhone(), emmc, "--set product_name=SIM064"},
        // A run reads four bytes of the node, and the node has a line feed behind the revision.
        {1, "revision has fewer than 3 bytes", UfsPhone({{"revision", "'08'"}}), ufs},
        {1, "RECORD UNREADABLE: the running or the new revision has a line feed",
         UfsPhone({{"revision", "'080'"}}), ufs},
    };
    ExpectEach("match package --phone phone.toml", {"/phone.toml", "/package"}, rows);
}

TEST_F(FwlabTest, RehearseTellsWhatHasBecomeOfThePhone) {
    const std::string shortRead = "--fault 'read /data/vendor/fw/ufs_fw_body.bin short=3'";
    const std::string again = "--reboot-and-run-again ";
    const std::string inside =
        With(UfsEntry("0900", "xxxxxx" + UfsEntry()), UFS_PNM_FIELD, "OTHER");
    // The phone, the package.
    const std::vector<Told> rows = {
        {1, "runs \"0900\", from 0 bytes*NOT entry 1 at 0x0*is NOT updated: nothing-to-do: ",
         UfsPhone(), UfsEntry(), "--set revision=0900"},
        {1,
         "-> CHECK CONDITION*upgrade to 0900 fail*runs \"0800\", from 0 bytes*NOT entry 1*"
         "is NOT updated: used-up: ",
         UfsPhone({{"write_buffer", "'sense 5/26/00'"}}), UfsEntry()},
        {1,
         "update to 0900 pass*runs \"0900\", from 3 bytes*NOT entry 1*NOT updated: wrong-image: ",
         UfsPhone(), UfsEntry(), shortRead},
        {1, "from 4 bytes that were downloaded: entry 2*is NOT updated: wrong-image: ", UfsPhone(),
         inside},
        {1, "is NOT updated: record-unreadable: ", GkiPhone(), EmmcEntry("FW\n")},
        {1, "is NOT updated: stopped: ", UfsPhone(), UfsEntry(),
         "--fault 'open /vendor/firmware/ufs_emer_fw.bin EIO'"},
        {1, "runs \"FW000001\", from 0 bytes*NOT entry 1*is NOT updated: used-up: ", NormalPhone(),
         With(EmmcEntry(), EMMC_MID_FIELD, "x")},
        {1,
         "signal 9*the power failed during its update*The second run:*"
         "has been applied, no need to update*found nothing to do*is NOT updated: used-up: ",
         NormalPhone(), EmmcEntry(), again + "--fault 'FFU_INSTALL end'"},
        {1, "signal 9*did NOT find nothing to do*is NOT updated: updated-next: ", UfsPhone(),
         UfsEntry(), again + "--fault 'fsync /data/vendor/fw/fw_result end lost=fw_result'"},
        // Of a phone that is updated, whatever became of the run.
        {0,
         "runs \"0900\", from 4 bytes that were downloaded: entry 1*The phone is updated, *status "
         "255.",
         UfsPhone(), UfsEntry(), "--fault 'open /data/vendor/fw/ffu.end ENOSPC'"},
        {0,
         "signal 9*found nothing to do*The phone is updated, though *first run ended with signal 9",
         NormalPhone(), EmmcEntry(), again + "--fault 'remove /data/vendor/fw/ffu.bgn end'"},
        {1,
         "runs \"FW3*\", from 4 bytes*downloaded: entry 1*?firmware? revision*has \"FW000002\"*"
         "The phone is updated, but it reports another revision",
         GkiPhone(), EmmcEntry(), "--set firmware.revision=FW3"},
    };
    ExpectEach("rehearse package --phone phone.toml", {"/phone.toml", "/package"}, rows);
    // Nothing is left of a rehearsal that did not come about.
    const std::string wrong = "rehearse package --phone phone.toml --keep kept --fault ";
    Expect(Fwlab(wrong + "'open sometimes'"), 2, "sometimes");
    Expect(Fwlab(wrong + "'SG_IO EIO' --fault 'fsync EIO'"), 2,
           "faults that met no call of the run: SG_IO EIO");
    Expect(Fwlab("rehearse package --phone phone.toml --keep ''"), 2, "--keep: is empty");
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), 2);
}

// From what runs have left on a phone.
TEST_F(FwlabTest, RehearseStartsFromAPulledState) {
    const std::string rehearse = "rehearse package --phone phone.toml --json --state ";
    Put("/phone.toml", UfsPhone());
    Put("/package", UfsEntry());
    Put("/pulled/fw_result", AttemptRecord("0800", "0900", UFS_PNM));
    Expect(Fwlab(rehearse + "pulled"), 1, "has been applied*\"answer\": \"already-attempted\"");
    Put("/pulled/fw_result", AttemptRecord("0700", "0800", UFS_PNM));
    Put("/pulled/ffu.bgn", "");
    Put("/pulled/notes", "of the one who pulled it");
    Expect(Fwlab(rehearse + "pulled --keep kept"), 0, "\"answer\": \"updated\"");
    EXPECT_EQ(Get("/kept/data/vendor/fw/fw_result").find(Get("/pulled/fw_result")), 0U);
    EXPECT_FALSE(fs::exists(directory + "/kept/data/vendor/fw/notes"));
    Put("/pulled/fw_result", "torn");
    Expect(Fwlab(rehearse + "pulled"), 1, "\"answer\": \"record-unreadable\"");
    Expect(Fwlab(rehearse + "gone"), 2, "gone: has no file of a run");
    Put("/pulled/ffu.ok/file", "");
    Expect(Fwlab(rehearse + "pulled"), 2, "ffu.ok: is no regular file");
}

// Whenever it comes: before the phone is made, while the tool runs, or after it all.
TEST_F(FwlabTest, InterruptedRehearsalLeavesNoPhone) {
    Put("/phone.toml", UfsPhone());
    Put("/package", UfsEntry());
    fs::create_directory(directory + "/tmp");
    for (const char* after : {"0.001", "0.004", "0.008", "0.012", "0.02", "0.03"}) {
        const std::string interrupt = "TMPDIR=$PWD/tmp timeout -s INT ";
        (void)Fwlab("rehearse package --phone phone.toml", interrupt + after);
        EXPECT_TRUE(fs::is_empty(directory + "/tmp"));
    }
}

TEST_F(FwlabTest, WrongUsageEndsWithTwo) {
    Put("/package", UfsEntry());
    Put("/phone.toml", "technology = 'ufs'");
    for (const char* arguments :
         {"", "unpack", "list", "list gone", "list .", "list package more", "pack gone -o package",
          "match package", "match package --phone phone.toml", "match package --phone gone",
          "match package --set revision=0800", "rehearse package --phone gone", "outcome gone",
          "outcome package"}) {
        SCOPED_TRACE(arguments);
        Expect(Fwlab(arguments), 2);
    }
    Expect(Fwlab("rehears"), 2, "\"rehears\" is no command");
    Expect(Fwlab("list 'a\x1b' --json"), 2, R"({"error":"a\\x1b: No such file*","status":2})");
    Expect(Fwlab("list '\xff' --json"), 2, R"({"error":"\\xff: No such file*","status":2})");
    Expect(Fwlab("list package '\x1b'"), 2, "not expected: \\x1b");
    Expect(Fwlab("list package >/dev/full"), 2);
    Expect(Fwlab("--version"), 0, "fwlab 1.");
    for (const char* command :
         {"", "pack", "list", "match", "rehearse", "plan", "sweep", "outcome"}) {
        Expect(Fwlab(std::string(command) + " --help"), 0, "Usage: *Options:*Exit status");
    }
}
