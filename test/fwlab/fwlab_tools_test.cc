// What fwlab makes of packages and phones that are there already: what they hold, how they differ,
// how to make them again.
#include "test/fwlab/fwlab.h"

#include <map>
#include <random>

namespace {

const std::string OTHER_PNM = "SIMUFS256G-B0B1 ";

std::string OtherUfs(const std::string& rev = UFS_NEW_REV, const std::string& body = "other") {
    return With(UfsEntry(rev, body), UFS_PNM_FIELD, OTHER_PNM);
}

// A magic that stands in an image, with a size that reaches far behind it.
std::string MagicOfSize(uint32_t size) {
    return With(UfsEntry("1000", ""), UFS_SIZE_FIELD, BigEndian32(size));
}

} // namespace

TEST_F(FwlabTest, AMagicInAnImageHidesNoEntryBehindIt) {
    const std::string first =
        UfsEntry(UFS_NEW_REV, "12" + With(MagicOfSize(20), UFS_PNM_FIELD, "x"));
    Put("/package", first + OtherUfs());
    Expect(Fwlab("list package"), 0,
           "note: a magic inside entry 1 at 0x0*number           3*sha256");
    Put("/package", first + "pad" + OtherUfs());
    Expect(Fwlab("list package"), 1, "FINDING: 3 bytes from 0x82 belong to no entry");
}

// In the same words by every command, and by none that takes a phone's answer from it.
TEST_F(FwlabTest, EveryCommandRefusesWhatIsNoPackage) {
    const std::string ufs = UfsEntry();
    const std::string none = "package: is no firmware package: it has no entry",
                      cut = "package: is no firmware package: no entry in it is whole";
    const struct {
        std::string text, package;
    } rows[] = {
        {none, std::string(20000, '\xA5')}, // for bytes of another kind
        {none, ufs.substr(0, 63)},          // cut in its header
        {cut, ufs.substr(0, 67)},           // in its body
        {cut, With(EmmcEntry(), EMMC_SIZE_FIELD, BigEndian32(999)) + ufs.substr(0, 67)},
        {"package: No such file", MISSING},
        {"package: is 2 GiB or larger", "2 GiB"},
    };
    Put("/phone.toml", UfsPhone());
    Put("/fleet.toml", "[[model]]\nphone = 'phone.toml'\n"
                       "running = [{ revision = '0800', phones = 9 }]\n");
    Put("/manifest.toml", "technology = 'ufs'\n[[entry]]\nmanfid = '0x0001ce'\n"
                          "product_name = 'SIM'\nrevision = '0900'\nimage = 'image'\n");
    Put("/image", "image");
    const Texts commands = {"list package",
                            "diff package package",
                            "unpack package -o parts",
                            "verify package --manifest manifest.toml",
                            "match package --phone phone.toml",
                            "plan package --fleet fleet.toml",
                            "rehearse package --phone phone.toml --keep kept",
                            "sweep package --phone phone.toml"};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        Put("/package", row.package == "2 GiB" ? ufs : row.package);
        if (row.package == "2 GiB") {
            fs::resize_file(directory + "/package", 1UL << 31);
        }
        for (const std::string& command : commands) {
            Expect(Fwlab(command), 2, "fwlab: " + row.text);
        }
        EXPECT_FALSE(fs::exists(directory + "/kept") || fs::exists(directory + "/parts"));
    }
    // In an empty package phones find nothing to do.
    Put("/package", "");
    const struct {
        int status;
        std::string text;
    } answers[] = {{1, "FINDING: it is empty"}, {0, "the same"},  {1, "is empty"},
                   {1, "NOT identical"},        {1, "No update"}, {1, "is empty"},
                   {1, "NOT updated"}};
    for (size_t i = 0; i < std::size(answers); i++) {
        Expect(Fwlab(commands[i]), answers[i].status, answers[i].text);
    }
}

// Bytes that look like an entry of the other technology do not choose it.
TEST_F(FwlabTest, ThePackageIsOfTheTechnologyThatItsBytesAre) {
    const std::string emmc = EmmcEntry(EMMC_NEW_REV, Body(200)), ufs = UfsEntry("0900", Body(200));
    const std::string strayUfs = "UFSM" + std::string(60, '\0'),
                      strayEmmc = "EMMC" + std::string(44, '\0');
    const struct {
        bool isUfs;
        std::string package;
    } rows[] = {{false, "UFSM" + emmc}, {false, strayUfs + emmc}, {false, emmc + strayUfs},
                {true, "EMMC" + ufs},   {true, strayEmmc + ufs},  {true, UfsEntry("0900", emmc)}};
    for (const auto& row : rows) {
        Put("/package", row.package);
        Expect(Fwlab("list package"), 1,
               row.isUfs ? "manfid           \"0x0001ce\"" : "manufacturer_id  19");
    }
}

TEST_F(FwlabTest, VerifyNamesTheFieldThatDiffers) {
    const std::string ufs =
        "technology = 'ufs'\n[[entry]]\nmanfid = '0x0001ce'\nproduct_name = 'SIMUFS128G-B0B1 '\n"
        "revision = '0900'\nimage = 'image'\n[[entry]]\nmanfid = '0x0001ce'\n"
        "product_name = 'SIMUFS256G-B0B1 '\nrevision = '0900'\nimage = 'other'\n";
    const std::string emmc = "technology = 'emmc'\n[[entry]]\nmanufacturer_id = 0x13\n"
                             "product_name = 'SIM064'\next_csd_rev = 8\nrevision = 'FW000002'\n"
                             "image = 'image'\n";
    const std::string both = UfsEntry(UFS_NEW_REV, "abc") + OtherUfs(), one = both.substr(0, 67);
    const std::string emmcPackage = EmmcEntry(EMMC_NEW_REV, "abc");
    const std::string fromOld = ufs.substr(0, 29) + "base_revisions = ['0800']\n" + ufs.substr(29);
    const struct {
        std::string texts, manifest, package;
    } rows[] = {
        {"entry 2 at 0x43: revision (at 0x5f): the manifest makes \"0900\", the package has "
         "\"0850\"",
         ufs, one + OtherUfs("0850", "otheR")},
        {"entry 1 at 0x0: base_revisions (at 0x30): *makes \"\\xff*, the package has \"08000800",
         ufs, With(both, UFS_BASE_FIELD, "0800080008000800")},
        {"base_revisions (at 0x30): *makes \"08000800080008*has \"0800\\x00", fromOld,
         With(both, UFS_BASE_FIELD, "0800")},
        {"entry 2 at 0x43: byte 4 of its body (at 0x87): the manifest makes \"r\", *has \"R\"", ufs,
         one + OtherUfs(UFS_NEW_REV, "otheR")},
        {"entry 1 at 0x0: body_size (at 0x20): *makes \"\\x00\\x00\\x00\\x03\", *\\x04\"", ufs,
         UfsEntry(UFS_NEW_REV, "abcd") + OtherUfs()},
        {"entry 2 at 0x43: magic (at 0x43): *\"UFSM\", the package has no byte", ufs, one},
        {"entry 2 at 0x43: manfid (at 0x47): *\"0x0001ce\", the package has \"0x\"", ufs,
         both.substr(0, 73)},
        {"entry 2 at 0x43: byte 4 of its body (at 0x87): *\"r\", the package has no byte", ufs,
         both.substr(0, both.size() - 1)},
        {"entry 1 at 0x0: magic", ufs, ""},
        {"behind the last entry (at 0x88): *makes no byte, the package has \"U\"", ufs,
         both + UfsEntry()},
        {"magic (at 0x0)", ufs, With(both, {3, 1}, "N")},
        {"product_revision (at 0xb): *\"\\x00\", the package has \"\\x01\"", emmc,
         With(emmcPackage, EMMC_PRV_FIELD, "\1")},
    };
    Put("/image", "abc");
    Put("/other", "other");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.texts);
        Put("/manifest.toml", row.manifest);
        Put("/package", row.package);
        Expect(Fwlab("verify package --manifest manifest.toml"), 1,
               row.texts + "*package: is NOT identical to the package that manifest.toml makes");
    }
    // No byte of a package escapes. With another magic or a larger size it is none.
    Put("/manifest.toml", emmc);
    for (size_t at = 0; at < emmcPackage.size(); at++) {
        Put("/package", With(emmcPackage, {at, 1}, "~"));
        const bool isNone = at < 4 || (at >= 25 && at < 29);
        Expect(Fwlab("verify --json package --manifest manifest.toml"), isNone ? 2 : 1,
               isNone ? "no firmware package" : "\"same\": false,*\"offset\": ");
    }
    Put("/package", emmcPackage);
    Expect(Fwlab("verify package --manifest manifest.toml"), 0,
           "package: is identical to the package that manifest.toml makes");
    Expect(Fwlab("verify gone --manifest manifest.toml"), 2, "gone: No such file");
    Put("/image", "");
    Expect(Fwlab("verify package --manifest manifest.toml"), 1, "entry 1 at 0x0 has no body");
}

TEST_F(FwlabTest, PackChecksTheDigestOfAnImage) {
    const std::string digest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    const std::string manifest = "technology = 'ufs'\n[[entry]]\nmanfid = '0x0001ce'\n"
                                 "product_name = 'SIM'\nrevision = '0900'\nimage = 'image'\n"
                                 "image_sha256 = ";
    Put("/image", "abc"); // FIPS 180-2
    Expect(Pack(manifest + "'" + digest + "'\n"), 0);
    for (const std::string& wrong : {"'" + digest.substr(1) + "'", "'B" + digest.substr(1) + "'",
                                     std::string("5"), "'" + digest + "0'"}) {
        Expect(Pack(manifest + wrong), 2, "image_sha256 is not 64 hexadecimal digits");
    }
    Put("/image", "abd");
    Put("/package", "as it was");
    Expect(
        Pack(manifest + "'" + digest + "'\n"), 1,
        "entry 1: image image: its sha256 is a52d159f262b2c6ddb724a61840befc36eb30c88877a4030b65c"
        "be86298449c9, not " +
            digest);
    EXPECT_EQ(Get("/package"), "as it was");
}

namespace {

// Random values for manifests, and images.
class Random {
public:
    size_t Below(size_t limit) {
        return generator() % limit;
    }
    // Bytes as a list, or now and then as a text.
    std::string Bytes(size_t size, bool withText) {
        std::string value;
        const bool isText = withText && Below(2) == 0;
        const std::string letters = "abyzABYZ0189 \"\\#[]=~";
        for (size_t i = 0; i < size; i++) {
            const char letter = letters[Below(letters.size())];
            const int number = Below(4) == 0 ? static_cast<int>(1 + Below(255)) : letter;
            value +=
                isText ? std::string(1, letter) : (i == 0 ? "" : ", ") + std::to_string(number);
        }
        return isText ? "'" + value + "'" : "[" + value + "]";
    }
    std::string Image() {
        std::string image;
        for (size_t left = 1 + Below(99); left > 0; left--) {
            image += Below(30) > 0 ? std::string(1, static_cast<char>(Below(256)))
                                   : With(OtherUfs("1000", ""), UFS_SIZE_FIELD,
                                          BigEndian32(static_cast<uint32_t>(Below(300))));
        }
        return image;
    }

private:
    std::mt19937 generator; // the same ones each time
};

std::string RandomManifest(Random& random, bool ufs, size_t entries) {
    const size_t revision = ufs ? 4 : 8, slots = 16 / revision;
    std::string text = ufs ? "technology = 'ufs'\n" : "technology = 'emmc'\n";
    for (size_t i = 0; i < entries; i++) {
        text += "[[entry]]\nimage = 'image" + std::to_string(i) + "'\n";
        text += ufs ? "manfid = " + (random.Below(2) == 0 ? "'0x0001ce'" : random.Bytes(8, false)) +
                          "\nproduct_name = " +
                          (random.Below(2) == 0 ? "'SIM" + std::to_string(random.Below(99)) + "'"
                                                : random.Bytes(16, true))
                    : "manufacturer_id = " + std::to_string(random.Below(256)) +
                          "\next_csd_rev = 8\nproduct_name = " + random.Bytes(6, true);
        // Over all base revisions below.
        text += "\nrevision = [255, " +
                random.Bytes(ufs ? 3 : 1 + random.Below(7), false).substr(1) + "\n";
        if (random.Below(2) == 0) {
            text += "market_name = " + random.Bytes(random.Below(ufs ? 13 : 4), true) + "\n";
        }
        std::string base;
        for (size_t count = random.Below(slots + 1); count > 0; count--) {
            base += (base.empty() ? "" : ", ") + random.Bytes(revision, true);
        }
        text += base.empty() ? "" : "base_revisions = [" + base + "]\n";
        text +=
            base.empty() && random.Below(3) == 0
                ? "base_revisions = " + random.Bytes(random.Below(2) == 0 ? 16 : 15, false) + "\n"
                : "";
    }
    return text;
}

} // namespace

TEST_F(FwlabTest, UnpackAndPackGiveTheSameBytes) {
    Random random;
    std::map<bool, int> packed;
    for (int round = 0; round < 40; round++) {
        const bool ufs = round % 2 == 0;
        const std::string manifest = RandomManifest(random, ufs, 1 + random.Below(3));
        SCOPED_TRACE(manifest);
        for (const char* image : {"/image0", "/image1", "/image2"}) {
            Put(image, random.Image());
        }
        if (Pack(manifest).status != 0) {
            continue; // pack refuses what would not work on a phone
        }
        packed[ufs]++;
        fs::remove_all(directory + "/parts");
        Expect(Fwlab("unpack package -o parts"), 0, "parts/package.toml: entries: ");
        Expect(Fwlab("pack parts/package.toml -o again"), 0);
        EXPECT_EQ(Get("/again"), Get("/package"));
        Expect(Fwlab("verify package --manifest parts/package.toml"), 0);
    }
    EXPECT_GT(packed[true], 9);
    EXPECT_GT(packed[false], 9);
}

TEST_F(FwlabTest, UnpackRefusesWhatPackDoesNotMake) {
    const std::string ufs = UfsEntry();
    const struct {
        std::string text, package;
    } rows[] = {
        {"is empty: pack makes no such package", ""},
        {"entry 1 at 0x0: magic would be \"UFSM\", not \"padU\"", "pad" + ufs},
        {"entry 2 at 0x44: magic would be \"UFSM\", not \"xUFS\"", ufs + "x" + OtherUfs()},
        {"behind the last entry would be no byte, not \"U\"", OtherUfs() + ufs.substr(0, 67)},
        {"entry 1 at 0x0): no device can have", With(ufs, UFS_BASE_FIELD, "")},
        {"entry 2 at 0x44): entry 1 at 0x0 comes first", ufs + ufs},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        Put("/package", row.package);
        Expect(Fwlab("unpack package -o parts"), 1, "fwlab: package: *" + row.text);
        EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), 1); // nothing is left
    }
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
    const struct {
        int status;
        std::string texts, before, after;
    } rows[] = {
        {0, "The packages are the same.", ufs, ufs},
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
        // The second entry's name agrees with that of the first, as far as it goes.
        {1, "\"SIMUFS128G-B0B1 \" runs another*\n    old: gets \"0900\"*\n    new: WRONG IMAGE: ",
         ufs, wrong + ufs},
        {2, "one package is for eMMC, the other one for UFS", ufs, EmmcEntry()},
        {1, "removed: ", ufs, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.texts);
        Put("/old", row.before);
        Put("/new", row.after);
        Expect(Fwlab("diff old new"), row.status, row.texts);
        const char* same = row.status == 0 ? "\"same\": true,*\"devices\": " : "";
        Expect(Fwlab("diff --json old new"), row.status, same);
    }
    // Of entries that are in both packages nothing is told, wherever they are.
    Put("/old", ufs + other + newer);
    Put("/new", newer + ufs + other);
    const Answer answer = Fwlab("diff old new");
    Expect(answer, 1, "CHANGES: *differ.");
    EXPECT_EQ(answer.text.find("added"), std::string::npos) << answer.text;
    EXPECT_EQ(answer.text.find("removed"), std::string::npos) << answer.text;
    Expect(Fwlab("diff old gone"), 2, "gone: No such file");
}

namespace {

const std::string PULLED_NODES[] = {"/proc/bootdevice/product_name",
                                    "/proc/bootdevice/manfid",
                                    "/proc/bootdevice/rev",
                                    "/proc/bootdevice/ext_csd",
                                    "/proc/bootdevice/ffu",
                                    "/sys/class/mmc_host/mmc0/mmc0:0001/cid",
                                    "/device/ext_csd.bin"};

std::string Hexadecimal(const std::string& bytes) {
    return Hex(bytes.data(), bytes.size());
}

// An EXT_CSD register, JEDEC: byte 192 is EXT_CSD_REV, 254 to 261 FIRMWARE_VERSION.
std::string ExtCsd(const std::string& revision) {
    return With(With(std::string(512, '\0'), {192, 1}, "\7"), {254, 8}, revision);
}

} // namespace

TEST_F(FwlabTest, CaptureMakesTheSamePhoneAgain) {
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
                   {"max_hw_sectors_kb", "1024"}}),
         "ufs --firmware-revision 0900"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.phone);
        const bool isLimited = row.phone.find("1024") != std::string::npos;
        std::string error;
        fs::remove_all(directory + "/pulled");
        fs::remove_all(directory + "/again");
        Put("/phone.toml", row.phone);
        ASSERT_TRUE(
            MakePhone(DescriptionOf(directory + "/phone.toml"), directory + "/pulled", error))
            << error;
        if (isLimited) {
            Put("/pulled/sys/block/sdc/queue/max_hw_sectors_kb", "1024\n");
        }
        const bool isNormal = row.options.find("normal") != std::string::npos;
        if (isNormal) { // taken by another tool
            Put("/pulled/proc/bootdevice/ext_csd", Get("/pulled/device/ext_csd.bin"));
        }
        Expect(Fwlab("capture pulled -o made.toml --kind " + row.options), 0, "made.toml: ");
        ASSERT_TRUE(MakePhone(DescriptionOf(directory + "/made.toml"), directory + "/again", error))
            << error;
        for (const std::string& node : PULLED_NODES) {
            if (!isNormal || node != "/proc/bootdevice/ext_csd") {
                EXPECT_EQ(Get("/again" + node), Get("/pulled" + node)) << node;
            }
        }
        EXPECT_EQ(Get("/made.toml").find("max_hw_sectors_kb = 1024") != std::string::npos,
                  isLimited);
    }
}

TEST_F(FwlabTest, CaptureRefusesWhatIsNoPhone) {
    const std::string cid = "13"
                            "01"
                            "00"
                            "53494d303634"
                            "10"
                            "1234abcd"
                            "00"
                            "00\n";
    const std::string extCsd = Hexadecimal(ExtCsd("FW1"));
    const std::string boot = "proc/bootdevice/", cidNode = "sys/class/mmc_host/mmc0/mmc0:0001/cid",
                      limit = "sys/block/sdc/queue/max_hw_sectors_kb";
    const Files emmc = {
        {boot + "product_name", "SIM064\n"}, {cidNode, cid}, {boot + "ext_csd", extCsd}};
    const Files ufs = {{boot + "product_name", "SIM\n"},
                       {boot + "manfid", "0x0001ce\n"},
                       {boot + "rev", "0800\n"}};
    const struct {
        int status;
        std::string text;
        Files nodes, others; // changed
        std::string options = "ufs --firmware-revision 0900";
    } rows[] = {
        {0, "eMMC (GKI mode)", emmc, {}, "emmc-gki --firmware-revision 0900"},
        {0, "eMMC (normal mode)", emmc, {}, "emmc-normal --firmware-revision 0900"},
        {0, "UFS \"SIM\\n\"", ufs, {{cidNode, cid}}},
        {2, "pulled/proc/bootdevice/manfid: No such file", ufs, {{boot + "manfid", MISSING}}},
        {2, "ext_csd: No such file", ufs, {{cidNode, cid}}, "emmc-gki --firmware-revision 0900"},
        {1,
         "ext_csd is not 1024 hexadecimal digits",
         emmc,
         {{boot + "ext_csd", "g" + extCsd.substr(1)}},
         "emmc-gki --firmware-revision 0900"},
        {1,
         "cid is not 32 hexadecimal digits",
         emmc,
         {{cidNode, "00" + cid}},
         "emmc-gki --firmware-revision 0900"},
        {1,
         "product_name is \"SIM065\", but the CID has \"SIM064\"",
         emmc,
         {{boot + "product_name", "SIM065\n"}},
         "emmc-gki --firmware-revision 0900"},
        {1, "rev has 3 bytes", ufs, {{boot + "rev", "08\n"}}},
        {1, "rev: is empty*take it by `adb exec-out cat`", ufs, {{boot + "rev", ""}}},
        {1, "product_name: *carriage return", ufs, {{boot + "product_name", "SIM\r\n"}}},
        {1, "max_hw_sectors_kb is no number of KiB: \"0\"", ufs, {{limit, "0\n"}}},
        {1, "no number", ufs, {{limit, "9999999\n"}}},
        {2, "rev: is no regular file", ufs, {{boot + "rev", MISSING}, {boot + "rev/file", ""}}},
        {2, "rev: is larger than any node", ufs, {{boot + "rev", std::string(4097, '0')}}},
        {2, "--firmware-revision 090: is not 4 bytes", ufs, {}, "ufs --firmware-revision 090"},
        {2, "--kind", ufs, {}, "nand --firmware-revision 0900"},
        // Not optional: a value that nobody gave would decide how a rehearsal ends.
        {2, "--firmware-revision is required", ufs, {}, "ufs"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        fs::remove_all(directory + "/pulled");
        fs::remove(directory + "/phone.toml");
        for (const Files& files : {row.nodes, row.others}) {
            for (const auto& [name, content] : files) {
                Put("/pulled/" + name, content);
            }
        }
        Expect(Fwlab("capture pulled -o phone.toml --kind " + row.options), row.status, row.text);
        EXPECT_EQ(fs::exists(directory + "/phone.toml"), row.status == 0);
    }
    const std::string capture = "capture pulled --kind ufs --firmware-revision 0900 -o ";
    Expect(Fwlab(capture + "pulled/proc/bootdevice/rev"), 2, "is an input of this command");
    EXPECT_EQ(Get("/pulled/proc/bootdevice/rev"), "0800\n");
    Put("/pulled/proc/bootdevice/rev", MISSING);
    fs::create_symlink("/dev/zero", directory + "/pulled/proc/bootdevice/rev");
    Expect(Fwlab(capture + "phone.toml"), 2, "no regular file");
    Expect(Fwlab("capture gone --kind ufs --firmware-revision 0900 -o phone.toml"), 2, "gone/");
}
