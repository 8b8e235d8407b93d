// What fwlab makes of packages and phones that are there already: what they hold, how they differ,
// how to make them again.
#include "test/fwlab/fwlab.h"

#include <numeric>
#include <tuple>

namespace {

const std::string OTHER_PNM = "SIMUFS256G-B0B1 ";

std::string OtherUfs(const std::string& rev = UFS_NEW_REV, const std::string& body = "other") {
    return With(UfsEntry(rev, body), UFS_PNM_FIELD, OTHER_PNM);
}

} // namespace

TEST_F(FwlabTest, ListFindsWhatPhonesPassOver) {
    const std::string ufs = UfsEntry(), other = With(ufs, UFS_MID_FIELD, "other");
    const std::string large = Body(0x100001), slots = "0800" + std::string(12, '\xFF');
    const std::string longEmmc = EmmcEntry(EMMC_NEW_REV, Body(200)),
                      longUfs = UfsEntry("0900", Body(200));
    const std::string strayUfs = "UFSM" + std::string(60, '\0'),
                      strayEmmc = "EMMC" + std::string(44, '\0');
    const std::string isEmmc = "manufacturer_id  19", isUfs = "manfid           \"0x0001ce\"";
    // In an image, it hides no entry behind it.
    const std::string magic =
        With(With(UfsEntry("1000", ""), UFS_SIZE_FIELD, BigEndian32(20)), UFS_PNM_FIELD, "x");
    const std::string first = UfsEntry(UFS_NEW_REV, "12" + magic);
    const std::vector<Told> rows = {
        {1, "offset           71*FINDING: *the body reaches past the end",
         ufs + "pad" + With(ufs, UFS_SIZE_FIELD, BigEndian32(5))},
        {1, "offset           68*body_offset      132*entry 1 at 0x0 comes first",
         ufs + UfsEntry("1000")},
        {1, "68 bytes from 0x44 belong to no entry", ufs + With(ufs, {3, 1}, "N")}, // its magic
        {1, "3 bytes from 0x0*3 bytes from 0x47*3 bytes from 0x8e",
         "pad" + ufs + "pad" + With(ufs, UFS_PNM_FIELD, "B") + "pad"},
        {1, "63 bytes from 0x44", ufs + ufs.substr(0, 63)}, // cut in a header
        {1, "no usable entry has*: entry 1 at 0x0 has no body", EmmcEntry(EMMC_NEW_REV, "")},
        {1, "its body is empty", UfsEntry(UFS_NEW_REV, "")},
        {1, "\"findings\": [*the product name is empty", With(ufs, UFS_PNM_FIELD, "\n"), MISSING,
         "--json"},
        {1, "\\x1b[2J\\x07*0\\n\\x0d\\x9b*line feed", // control characters
         With(With(ufs, UFS_PNM_FIELD, "\x1b[2J\a"), UFS_REV_FIELD, "0\n\r\x9b")},
        // Slots that are left free admit nobody, whatever fills them.
        {0, "base_revisions   \"0800\"\n", With(With(ufs, UFS_BASE_FIELD, slots), {52, 4}, "")},
        // Bytes that look like an entry of the other technology do not choose it.
        {0, isEmmc, With(EmmcEntry(), EMMC_PNM_FIELD, "UFSM12")},
        {1, isEmmc, "UFSM" + longEmmc},
        {1, isEmmc, strayUfs + longEmmc},
        {1, isEmmc, longEmmc + strayUfs},
        {1, isUfs, "EMMC" + longUfs},
        {1, isUfs, strayEmmc + longUfs},
        {1, isUfs, UfsEntry("0900", longEmmc)},
        {0, "note: a magic inside entry 1 at 0x0*number           3*sha256", first + OtherUfs()},
        {1, "FINDING: 3 bytes from 0x82 belong to no entry", first + "pad" + OtherUfs()},
        // What pack admits.
        {0, "note: a magic inside entry 1", UfsEntry("0900", "12" + other + other)},
        {0, "", UfsEntry("0900", "12" + EmmcEntry())},
        {0, "note: the body is larger than 1 MiB", EmmcEntry(EMMC_NEW_REV, large)},
        {0, "note: *larger than the 1 MiB*max_hw_sectors_kb", UfsEntry("0900", large)},
        {2, "package: more than 1024 entries",
         ufs + std::regex_replace(std::string(1200, 'x'), std::regex("x"), "UFSM")},
    };
    ExpectEach("list package", {"/package"}, rows);
}

TEST_F(FwlabTest, ListMapsLargePackages) {
    Put("/package", UfsEntry());
    fs::resize_file(directory + "/package", 1U << 27);
    Expect(Fwlab("list package", "ulimit -d 32768 &&"), 1,
           "size             134217728*134217660 bytes from 0x44 belong to no entry");
}

// In the same words by every command, and by none that takes a phone's answer from it. In an empty
// package phones find nothing to do.
TEST_F(FwlabTest, EveryCommandRefusesWhatIsNoPackage) {
    const std::string none = "fwlab: package: is no firmware package: ", ufs = UfsEntry();
    const std::vector<Told> packages = {
        {2, none + "it has no entry", std::string(20000, '\xA5')},
        {2, none + "it has no entry", ufs.substr(0, 63)},         // cut in its header
        {2, none + "no entry in it is whole", ufs.substr(0, 67)}, // in its body
        {2, none + "no entry in it is whole",
         With(EmmcEntry(), EMMC_SIZE_FIELD, BigEndian32(999)) + ufs.substr(0, 67)},
        {2, "fwlab: package: No such file", MISSING},
    };
    ExpectEach("list package", {"/package"}, packages);
    // What each says of an empty package.
    const std::tuple<std::string, int, std::string> commands[] = {
        {"list package", 1, "FINDING: it is empty"},
        {"diff package package", 0, "the same"},
        {"unpack package -o parts", 1, "is empty"},
        {"verify package --manifest manifest.toml", 1, "NOT identical"},
        {"match package --phone phone.toml", 1, "No update"},
        {"plan package --fleet fleet.toml", 1, "is empty"},
        {"rehearse package --phone phone.toml", 1, "NOT updated"},
        {"sweep package --phone phone.toml", 1, "NOT UPDATED"},
    };
    Put("/phone.toml", UfsPhone());
    Put("/fleet.toml", "[[model]]\nphone = 'phone.toml'\n"
                       "running = [{ revision = '0800', phones = 9 }]\n");
    Put("/manifest.toml", UfsManifest());
    Put("/image", "image");
    for (const auto& [command, status, text] : commands) {
        SCOPED_TRACE(command);
        Put("/package", "");
        Expect(Fwlab(command), status, text);
        Put("/package", ufs.substr(0, 63));
        Expect(Fwlab(command), 2, none);
        fs::resize_file(Path("/package"), 1UL << 31);
        Expect(Fwlab(command), 2, "fwlab: package: is 2 GiB or larger");
        EXPECT_FALSE(fs::exists(Path("/parts")));
    }
}

TEST_F(FwlabTest, VerifyNamesTheFieldThatDiffers) {
    const std::string ufs =
        UfsManifest() + UfsTable({"product_name = 'SIMUFS256G-B0B1 '", "image = 'other'"});
    const std::string both = UfsEntry(UFS_NEW_REV, "abc") + OtherUfs(), one = both.substr(0, 67);
    const std::string emmcPackage = EmmcEntry(EMMC_NEW_REV, "abc");
    // The manifest, the package.
    std::vector<Told> rows = {
        {1,
         "entry 2 at 0x43: revision (at 0x5f): the manifest makes \"0900\", the package has "
         "\"0850\"",
         ufs, one + OtherUfs("0850", "otheR")},
        {1, "entry 1 at 0x0: base_revisions (at 0x30): *makes \"\\xff*, the package has \"08000800",
         ufs, With(both, UFS_BASE_FIELD, "0800080008000800")},
        {1, "entry 2 at 0x43: byte 4 of its body (at 0x87): the manifest makes \"r\", *has \"R\"",
         ufs, one + OtherUfs(UFS_NEW_REV, "otheR")},
        {1, "entry 1 at 0x0: body_size (at 0x20): *makes \"\\x00\\x00\\x00\\x03\", *\\x04\"", ufs,
         UfsEntry(UFS_NEW_REV, "abcd") + OtherUfs()},
        {1, "entry 2 at 0x43: manfid (at 0x47): *\"0x0001ce\", the package has \"0x\"", ufs,
         both.substr(0, 73)},
        {1, "entry 2 at 0x43: byte 4 of its body (at 0x87): *\"r\", the package has no byte", ufs,
         both.substr(0, both.size() - 1)},
        {1, "entry 1 at 0x0: magic", ufs, ""},
        {1, "behind the last entry (at 0x88): *makes no byte, the package has \"U\"", ufs,
         both + UfsEntry()},
        {1, "magic (at 0x0)", ufs, With(both, {3, 1}, "N")},
    };
    Put("/image", "abc");
    Put("/other", "other");
    for (Told& row : rows) {
        row.texts += "*package: is NOT identical to the package that manifest.toml makes";
    }
    const std::string verify = "verify package --manifest manifest.toml";
    ExpectEach(verify, {"/manifest.toml", "/package"}, rows);
    // No byte of a package escapes. With another magic or a larger size it is none.
    Put("/manifest.toml", EmmcManifest());
    for (size_t at = 0; at < emmcPackage.size(); at++) {
        Put("/package", With(emmcPackage, {at, 1}, "~"));
        const bool isNone = at < 4 || (at >= 25 && at < 29);
        Expect(Fwlab(verify + " --json"), isNone ? 2 : 1,
               isNone ? "no firmware package" : "\"same\": false,*\"offset\": ");
    }
    Put("/package", emmcPackage);
    Expect(Fwlab(verify), 0, "package: is identical to the package that manifest.toml makes");
    Expect(Fwlab("verify gone --manifest manifest.toml"), 2, "gone: No such file");
    Put("/image", "");
    Expect(Fwlab(verify), 1, "entry 1 at 0x0 has no body");
}

// Every byte that no phone takes for an end, in every field, and a magic in an image.
TEST_F(FwlabTest, UnpackAndPackGiveTheSameBytes) {
    for (int first = 11; first <= 241; first += 10) {
        std::string bytes(16, '\0');
        std::iota(bytes.begin(), bytes.end(), static_cast<char>(first));
        const std::string image = bytes + With(UfsEntry(), UFS_SIZE_FIELD, BigEndian32(20)) + bytes;
        const std::string rev = '\xFF' + bytes; // over all base revisions
        const std::string ufs = With(UfsEntry(rev.substr(0, 4), image), UFS_PNM_FIELD, bytes),
                          emmc = With(EmmcEntry(rev.substr(0, 8), image), EMMC_PNM_FIELD, bytes);
        for (const std::string& package :
             {With(ufs, UFS_BASE_FIELD, bytes) + OtherUfs(),
              With(emmc, EMMC_MARKET_FIELD, bytes) + EmmcEntry(rev.substr(0, 8)),
              With(emmc, EMMC_BASE_FIELD, bytes)}) {
            Put("/package", package);
            Put("/parts", MISSING);
            Expect(Fwlab("unpack package -o parts"), 0);
            Expect(Fwlab("pack parts/package.toml -o again"), 0);
            EXPECT_TRUE(Get("/again") == package) << Get("/parts/package.toml");
        }
    }
    Expect(Fwlab("verify package --manifest parts/package.toml"), 0);
}

TEST_F(FwlabTest, UnpackRefusesWhatPackDoesNotMake) {
    const std::string ufs = UfsEntry();
    const std::vector<Told> rows = {
        {1, "is empty: pack makes no such package", ""},
        {1, "entry 1 at 0x0: magic would be \"UFSM\", not \"padU\"", "pad" + ufs},
        {1, "entry 2 at 0x44: magic would be \"UFSM\", not \"xUFS\"", ufs + "x" + OtherUfs()},
        {1, "behind the last entry would be no byte, not \"U\"", OtherUfs() + ufs.substr(0, 67)},
        {1, "entry 1 at 0x0): no device can have", With(ufs, UFS_BASE_FIELD, "")},
        {1, "entry 2 at 0x44): entry 1 at 0x0 comes first", ufs + ufs},
    };
    ExpectEach("unpack package -o parts", {"/package"}, rows);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), 1); // nothing is left
    Put("/package", ufs);
    Put("/there/kept", "");
    for (const char* folder : {"there", "there/kept", "package", "gone/parts", "''"}) {
        Expect(Fwlab(std::string("unpack package -o ") + folder), 2);
    }
    Expect(Fwlab("unpack package -o parts", "trap '' XFSZ && ulimit -f 0 &&"), 2, "File too large");
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), 2);
    // Slots that are free in another way than pack's, fields that phones ignore, the permissions of
    // a folder, a long image.
    Put("/package",
        With(With(With(EmmcEntry(EMMC_NEW_REV, Body(0x100001)), EMMC_BASE_FIELD, EMMC_REV),
                  EMMC_PRV_FIELD, "\1"),
             EMMC_PSN_FIELD, "1\n"));
    Expect(Fwlab("unpack package -o parts/", "umask 027 &&"), 0, "pack it with --gki-only");
    EXPECT_EQ(fs::status(directory + "/parts").permissions(), fs::perms(0750));
    Expect(Fwlab("pack parts/package.toml -o again"), 1, "1 MiB");
    Expect(Fwlab("pack parts/package.toml -o again --gki-only"), 0);
    EXPECT_TRUE(Get("/again") == Get("/package"));
    Expect(Fwlab("unpack --json package -o more"), 0, "\"entries\": 1,*\"gki_only\": true");
}

TEST_F(FwlabTest, DiffTellsEntriesAndDevicesApart) {
    const std::string ufs = UfsEntry(), other = OtherUfs(), newer = UfsEntry("1000");
    const std::string fromNew = With(newer, UFS_BASE_FIELD, "0900090009000900");
    const std::string large = EmmcEntry(EMMC_NEW_REV, Body(0x100001));
    const std::string wrong = With(UfsEntry("1000"), UFS_PNM_FIELD, "SIMUFS128G\n");
    const std::vector<Told> rows = {
        {0, "The packages are the same.", ufs, ufs},
        {0, "\"same\": true,*\"devices\": ", ufs, ufs, "--json"},
        {1,
         "removed: number 1, offset 0, manfid \"0x0001ce\", product_name \"SIMUFS128G-B0B1 \", "
         "revision \"0900\", *base_revisions \"any\", body_size 4, sha256 \"230d8358dc8e*\nadded: "
         "*revision \"1000\", *base_revisions \"0900\", *CHANGES: *runs another, older revision:\n"
         "    old: gets \"0900\", 4 bytes of entry 1, *\n    new: refused: *CHANGES: \"0x0001ce\" "
         "\"SIMUFS128G-B0B1 \" runs \"0900\":\n    old: nothing to "
         "do: *\n    new: gets \"1000\", 4 bytes of entry 1, sha256 230d8358dc8e*runs \"1000\":\n"
         "    old: USED UP: its revision is not newer*differ.",
         ufs, fromNew},
        {1,
         "removed: *body_size 4*added: *body_size 3*CHANGES: *, older revision:*\"0900\", 4 bytes*"
         "\"0900\", 3 bytes*runs \"0900\":\n    old: nothing to do: *new: nothing to do: ",
         ufs, UfsEntry(UFS_NEW_REV, "abc")},
        {1, "added: number 1, *\"SIMUFS256G-B0B1 \", *CHANGES: ", ufs, other + ufs},
        {1, "removed: number 1, *\"SIMUFS256G-B0B1 \", ", other + ufs, ufs},
        {1, "belong to no entry differ: ", ufs, ufs + "pad"},
        {1, "added: ", "", ufs},
        {1, "CHANGES: *gets \"FW000002\", 1048577 *; note: *only GKI mode takes it\n", large,
         With(large, {0x2000, 1}, "")},
        {1, "old: gets \"FW000002\", 4 *\n    new: gets *; note: *only GKI mode takes it\n",
         EmmcEntry(), large},
        // The second entry's name agrees with that of the first, as far as it goes.
        {1, "\"SIMUFS128G-B0B1 \" runs another*\n    old: gets \"0900\"*\n    new: WRONG IMAGE: ",
         ufs, wrong + ufs},
        {2, "one package is for eMMC, the other one for UFS", ufs, EmmcEntry()},
        {1, "removed: ", ufs, ""},
    };
    ExpectEach("diff old new", {"/old", "/new"}, rows);
    // Of entries that are in both packages nothing is told, wherever they are.
    Put("/old", ufs + other + newer);
    Put("/new", newer + ufs + other);
    const Answer answer = Fwlab("diff old new");
    Expect(answer, 1, "CHANGES: *differ.");
    EXPECT_EQ(answer.text.find("added"), std::string::npos) << answer.text;
    EXPECT_EQ(answer.text.find("removed"), std::string::npos) << answer.text;
    Expect(Fwlab("diff old gone"), 2, "gone: No such file");
}

TEST_F(FwlabTest, CaptureMakesTheSamePhoneAgain) {
    const std::string extCsd = "/proc/bootdevice/ext_csd", limit = "max_hw_sectors_kb";
    const Texts nodes = {"/proc/bootdevice/product_name", "/proc/bootdevice/manfid",
                         "/proc/bootdevice/rev",          "/proc/bootdevice/ffu",
                         "/device/ext_csd.bin",           "/sys/class/mmc_host/mmc0/mmc0:0001/cid"};
    const struct {
        std::string phone, options;
    } rows[] = {
        {GkiPhone(), "emmc-gki --firmware-revision FW000002"},
        {GkiPhone({{"revision", "[5, 0, 1]"}, {"ext_csd_rev", "7"}}),
         "emmc-gki --firmware-revision '\\x05\\x00\\x02'"},
        {GkiPhone({{"cid.product_name", "[0, 255, 34, 92, 10, 9]"},
                   {"cid.cbx", "0"},
                   {"cid.oem_id", "0x15"},
                   {"cid.manufacturing_date", "0x7b"},
                   {"cid.crc", "0xff"},
                   {"cid.serial_number", "0xFFFFFFFF"}}),
         "emmc-gki --firmware-revision FW000002"},
        {NormalPhone(), "emmc-normal --firmware-revision FW000002"},
        {UfsPhone(), "ufs --firmware-revision 0900"},
        {UfsPhone({{"manfid", "[1, 255, 10]"},
                   {"product_name", "\"SIM \\\\\\\"'\\t\\u007f\""},
                   {"revision", "'080'"},
                   {limit, "1024"}}),
         "ufs --firmware-revision 0900"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.phone);
        MakeAt("/pulled", row.phone);
        const bool isLimited = row.phone.find("1024") != std::string::npos;
        if (isLimited) {
            Put("/pulled/sys/block/sdc/queue/" + limit, "1024\n");
        }
        const bool isNormal = row.phone == NormalPhone();
        if (isNormal) { // taken by another tool
            Put("/pulled" + extCsd, Get("/pulled/device/ext_csd.bin"));
        }
        Expect(Fwlab("capture pulled -o made.toml --kind " + row.options), 0, "made.toml: ");
        MakeAt("/again", Get("/made.toml"));
        for (const std::string& node : nodes) {
            EXPECT_EQ(Get("/again" + node), Get("/pulled" + node)) << node;
        }
        EXPECT_TRUE(isNormal || Get("/again" + extCsd) == Get("/pulled" + extCsd));
        EXPECT_EQ(Count(Get("/made.toml"), limit + " = 1024"), isLimited ? 1 : 0);
    }
}

TEST_F(FwlabTest, CaptureRefusesWhatIsNoPhone) {
    const std::string boot = "/proc/bootdevice/", name = boot + "product_name", rev = boot + "rev",
                      cid = "/sys/class/mmc_host/mmc0/mmc0:0001/cid",
                      limit = "/sys/block/sdc/queue/max_hw_sectors_kb";
    const std::string gki = "emmc-gki --firmware-revision 0900";
    const struct {
        int status;
        std::string text;
        Files changes; // on the pulled phone
        std::string options = "ufs --firmware-revision 0900", phone = UfsPhone();
    } rows[] = {
        {0, "eMMC (GKI mode)", {}, gki, GkiPhone()},
        {0, "UFS \"SIMUFS128G-B0B1 \\n\"", {{cid, "13\n"}}},
        {2, "pulled/proc/bootdevice/manfid: No such file", {{boot + "manfid", MISSING}}},
        {2, "ext_csd: No such file", {{boot + "ext_csd", MISSING}}, gki, GkiPhone()},
        {1, "is not 1024 hex", {{boot + "ext_csd", std::string(1024, 'g')}}, gki, GkiPhone()},
        {1, "cid is not 32 hexadecimal digits", {{cid, "0013\n"}}, gki, GkiPhone()},
        {1, "is \"SIM065\", but the CID has \"SIM064\"", {{name, "SIM065\n"}}, gki, GkiPhone()},
        {1, "rev has 3 bytes", {{rev, "08\n"}}},
        {1, "rev: is empty*take it by `adb exec-out cat`", {{rev, ""}}},
        {1, "product_name: *carriage return", {{name, "SIM\r\n"}}},
        {1, "max_hw_sectors_kb is no number of KiB: \"0\"", {{limit, "0\n"}}},
        {1, "no number", {{limit, "9999999\n"}}},
        {2, "rev: is no regular file", {{rev, MISSING}, {rev + "/file", ""}}},
        {2, "rev: is larger than any node", {{rev, std::string(4097, '0')}}},
        {2, "--firmware-revision 090: is not 4 bytes", {}, "ufs --firmware-revision 090"},
        {2, "--kind", {}, "nand --firmware-revision 0900"},
        // Not optional: a value that nobody gave would decide how a rehearsal ends.
        {2, "--firmware-revision is required", {}, "ufs"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        MakeAt("/pulled", row.phone);
        for (const auto& [file, content] : row.changes) {
            Put("/pulled" + file, content);
        }
        Put("/made.toml", MISSING);
        Expect(Fwlab("capture pulled -o made.toml --kind " + row.options), row.status, row.text);
        EXPECT_EQ(fs::exists(Path("/made.toml")), row.status == 0);
    }
    const std::string capture = "capture pulled --kind ufs --firmware-revision 0900 -o ";
    Expect(Fwlab(capture + "pulled" + rev), 2, "is an input of this command");
    EXPECT_EQ(Get("/pulled" + rev), "0800\n");
    Put("/pulled" + rev, MISSING);
    fs::create_symlink("/dev/zero", Path("/pulled" + rev));
    Expect(Fwlab(capture + "made.toml"), 2, "no regular file");
    Expect(Fwlab("capture gone --kind ufs --firmware-revision 0900 -o made.toml"), 2, "gone/");
}
