// The workstation tool as a user starts it: exit status, output, files left. Each command works in
// a temporary directory that is removed with its test.
#include "phone.h"

#include <filesystem>
#include <fnmatch.h>
#include <fstream>
#include <sstream>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace {

struct Answer {
    int status;
    std::string text; // standard output and error
};

class FwlabTest : public PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        folder = fs::path(directory).parent_path();
    }

    Answer Fwlab(const std::string& arguments, const std::string& before = "") const {
        const std::string command =
            "cd " + folder + " && " + before + " " FWLAB_PATH " " + arguments + " 2>&1";
        FILE* pipe = popen(command.c_str(), "r"); // NOLINT(cert-env33-c): as in a user's shell
        Answer answer = {};
        for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) {
            answer.text += static_cast<char>(c);
        }
        const int status = pclose(pipe);
        answer.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return answer;
    }

    void Write(const std::string& name, const std::string& content) const {
        fs::create_directories(fs::path(folder + "/" + name).parent_path());
        std::ofstream(folder + "/" + name, std::ios::binary) << content;
    }

    Answer Pack(const std::string& manifest, const std::string& options = "") const {
        Write("manifest.toml", manifest);
        return Fwlab("pack manifest.toml -o package " + options);
    }

    std::string Read(const std::string& name) const {
        std::string content;
        return ReadWholeFile(folder + "/" + name, content) ? content : "<missing>";
    }

    std::string folder;
};

// The status, and the texts between the stars in the output, in this order.
void Expect(const Answer& answer, int status, const std::string& texts = "") {
    EXPECT_EQ(answer.status, status) << answer.text;
    EXPECT_EQ(fnmatch(("*" + texts + "*").c_str(), answer.text.c_str(), FNM_NOESCAPE), 0)
        << "no " << texts << " in:\n"
        << answer.text;
}

// Manifests with one entry for the phones of the tests.
std::string Manifest(Keys keys, const Keys& overrides) {
    std::string text = "technology = " + keys["technology"] + "\n[[entry]]\n";
    keys.erase("technology");
    for (const auto& [key, value] : overrides) {
        keys[key] = value;
    }
    for (const auto& [key, value] : keys) {
        if (!value.empty()) {
            text.append(key).append(" = ").append(value).append("\n");
        }
    }
    return text;
}

std::string EmmcManifest(const Keys& overrides = {}) {
    return Manifest({{"technology", "'emmc'"},
                     {"manufacturer_id", "0x13"},
                     {"product_name", "'SIM064'"},
                     {"ext_csd_rev", "8"},
                     {"revision", "'FW000002'"},
                     {"image", "'image'"}},
                    overrides);
}

std::string UfsManifest(const Keys& overrides = {}) {
    return Manifest({{"technology", "'ufs'"},
                     {"manfid", "'0x0001ce'"},
                     {"product_name", "'SIMUFS128G-B0B1 '"},
                     {"revision", "'0900'"},
                     {"image", "'image'"}},
                    overrides);
}

// The entry table again, behind another manifest.
std::string Second(const std::string& manifest) {
    return manifest.substr(manifest.find("[[entry]]"));
}

} // namespace

TEST_F(FwlabTest, FromManifestToUpdatedPhone) {
    const std::string body = Body(1000);
    const struct {
        const char* name;
        std::string phone, manifest, package;
    } rows[] = {
        {"gki", GkiPhone(),
         EmmcManifest({{"base_revisions", "['FW000001']"}, {"market_name", "'EU'"}}),
         With(With(EmmcEntry(EMMC_NEW_REV, body), EMMC_BASE_FIELD, EMMC_REV + EMMC_REV),
              EMMC_MARKET_FIELD, "EU")},
        {"normal", NormalPhone(), EmmcManifest(), EmmcEntry(EMMC_NEW_REV, body)},
        {"ufs", UfsPhone(), UfsManifest({{"base_revisions", "['0700', '0800']"}}),
         With(UfsEntry(UFS_NEW_REV, body), UFS_BASE_FIELD, "0700080008000800")},
    };
    Write("image", body);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("phone.toml", row.phone);
        Expect(Pack(row.manifest), 0);
        EXPECT_EQ(Read("package"), row.package);
        Expect(Fwlab("list package"), 0);
        Expect(Fwlab("match package --phone phone.toml"), 0, "An update to ");
        Expect(Fwlab("rehearse package --phone phone.toml --reboot-and-run-again"), 0,
               "log     | FFU process CheckBaseRev: *console | *"
               "device  | *log     | FFU process UpdateResultFlag: update to *exit status 0*"
               "The device took *The second run:*is as new as fwBin*"
               "The second run found nothing to do.*The phone is updated as meant.");
    }
}

TEST_F(FwlabTest, PackFillsShortTextsAsPhonesDo) {
    Write("image", "abc");
    Expect(Pack(UfsManifest({{"product_name", "'SIMUFS128G-B0'"}, {"manfid", "'0x1ce'"}})), 0);
    EXPECT_EQ(Read("package"),
              With(With(UfsEntry(UFS_NEW_REV, "abc"), UFS_PNM_FIELD, "SIMUFS128G-B0\n"),
                   UFS_MID_FIELD, "0x1ce\n"));
    Expect(Pack(EmmcManifest({{"revision", "[5, 1]"}, {"base_revisions", "['4']"}})), 0);
    EXPECT_EQ(Read("package"), With(EmmcEntry("\5\1", "abc"), EMMC_BASE_FIELD,
                                    std::string("4\0\0\0\0\0\0\0004", 9)));
    Expect(Fwlab("list --json package"), 0, // FIPS 180-2 gives this digest of "abc"
           "\"base_revisions\": [*\"4\\\\x00*\"body_offset\": 48,*\"body_size\": 3,*\"sha256\": "
           "\"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\"*\"findings\": []");
}

TEST_F(FwlabTest, PackRefuses) {
    const std::string trap = With(UfsEntry("0850", "x"), UFS_MID_FIELD, "0x0001ce");
    const struct {
        const char* name;
        std::string manifest;
        int status;
        std::string image, text;
    } rows[] = {
        {"no TOML", "technology = ", 2, "x", "line 1: "},
        {"unknown technology", "technology = 'nand'\n[[entry]]\n", 2, "x", "\"emmc\" or \"ufs\""},
        {"no entry", "technology = 'ufs'\n", 2, "x", "entry is missing"},
        {"unknown key", UfsManifest({{"ext_csd_rev", "8"}}), 2, "x", "entry 1: unknown key"},
        {"wrong type", UfsManifest({{"revision", "true"}}), 2, "x", "entry 1: revision is not"},
        {"byte too large", EmmcManifest({{"revision", "[256]"}}), 2, "x", "0 to 255"},
        {"missing key", EmmcManifest({{"revision", ""}}), 2, "x", "revision is missing"},
        {"missing image", UfsManifest({{"image", "'gone'"}}), 2, "x", "gone: No such file"},
        {"empty image", UfsManifest(), 1, "", "entry 1 (in the package entry 1 at 0x0): the body"},
        {"eMMC name too short", EmmcManifest({{"product_name", "'SIM06'"}}), 1, "x", "5 bytes"},
        {"eMMC revision too long", EmmcManifest({{"revision", "'FW0000002'"}}), 1, "x", "9 bytes"},
        {"UFS name too long", UfsManifest({{"product_name", "'SIMUFS128G-B0B1  '"}}), 1, "x",
         "product_name has 17 bytes"},
        {"UFS revision too short", UfsManifest({{"revision", "'090'"}}), 1, "x", "3 bytes"},
        {"too many base revisions", EmmcManifest({{"base_revisions", "['1', '2', '3']"}}), 1, "x",
         "3 revisions, not 1 to 2"},
        {"zero revision", EmmcManifest({{"revision", "[0, 1]"}}), 1, "x", "zero byte"},
        {"line feed in a revision", EmmcManifest({{"revision", "[0x46, 0x0A]"}}), 1, "x",
         "line feed"},
        {"base revision not older", UfsManifest({{"base_revisions", "['0800', '1000']"}}), 1, "x",
         "from \"1000\": the update finds nothing to do"},
        {"base revision that begins the entry's",
         EmmcManifest({{"revision", "[5, 1]"}, {"base_revisions", "[[4], [5]]"}}), 1, "x",
         "taken for equal"},
        {"reworked device without its entry",
         UfsManifest({{"product_name", "'KLUEG8U1EM-B0B1'"},
                      {"revision", "'1000'"},
                      {"base_revisions", "['0900']"}}),
         1, "x", "the update finds nothing to do"},
        {"shadowed by its like", UfsManifest() + Second(UfsManifest({{"revision", "'1000'"}})), 1,
         "x", "entry 2 (in the package entry 2 at 0x41): shadowed, the pre-check takes entry 1"},
        {"shadowed for the update only", // a blank agrees with every character
         UfsManifest({{"product_name", "'SIMUFS128G      '"}}) + Second(UfsManifest()), 1, "x",
         "shadowed, the update takes entry 1"},
        {"shadowed from inside an earlier body",
         UfsManifest({{"product_name", "'OTHER'"}}) + Second(UfsManifest()), 1, trap,
         "entry 2 (in the package entry 3 at 0x81): shadowed, the pre-check takes entry 2 at 0x40"},
        {"larger than a request", EmmcManifest(), 1, Body(0x100001), "1 MiB"},
        {"larger than WRITE BUFFER", UfsManifest(), 1, Body(0x800001), "8 MiB"},
    };
    Write("package", "as it was");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("image", row.image);
        Expect(Pack(row.manifest), row.status, "fwlab: *manifest.toml: *" + row.text);
        EXPECT_EQ(Read("package"), "as it was");
        EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 3); // nothing half-written
    }
    Write("image", Body(0x100001));
    Expect(Pack(EmmcManifest(), "--gki-only"), 0);
    Write("image", Body(0x100000));
    Expect(Pack(EmmcManifest()), 0);
    // A device that the update renames is served by both of its entries.
    const Keys reworked = {{"product_name", "'KLUEG8U1EM-REWK'"}, {"revision", "'1000'"}};
    const Keys original = {{"product_name", "'KLUEG8U1EM-B0B1'"},
                           {"revision", "'1000'"},
                           {"base_revisions", "['0900']"}};
    Expect(Pack(UfsManifest(original) + Second(UfsManifest(reworked))), 0);
}

TEST_F(FwlabTest, ListFindsWhatPhonesPassOver) {
    const std::string ufs = UfsEntry();
    const struct {
        const char* name;
        std::string package, texts;
    } rows[] = {
        {"empty", "", "is empty"},
        {"truncated header", ufs.substr(0, 63), "holds no entry"},
        {"no entry", Body(5000), "holds no entry"},
        {"body past the end", "pad" + With(ufs, UFS_SIZE_FIELD, BigEndian32(5)),
         "offset           3*the body reaches past the end"},
        {"shadowed", ufs + UfsEntry("1000"),
         "offset           68*body_offset      132*"
         "shadowed, the pre-check takes entry 1 at 0x0"},
        {"magic inside a body", UfsEntry(UFS_NEW_REV, "12" + With(ufs, UFS_MID_FIELD, "other")),
         "offset           66*a magic inside entry 1 at 0x0"},
        {"last offset", EmmcEntry(EMMC_NEW_REV, ""),
         "at the last offset, which the pre-check does not examine"},
        {"empty body", UfsEntry(UFS_NEW_REV, ""), "the body is empty"},
        {"eMMC body", EmmcEntry(EMMC_NEW_REV, Body(0x100001)), "larger than 1 MiB"},
        {"UFS body", UfsEntry(UFS_NEW_REV, Body(0x800001)), "larger than 8 MiB"},
        {"base revisions of nobody", With(ufs, UFS_BASE_FIELD, ""), "no device can have"},
        {"control characters",
         With(With(ufs, UFS_PNM_FIELD, "\x1b[2J\a"), UFS_REV_FIELD, "0\n\r\x9b"),
         "\\x1b[2J\\x07*0\\n\\x0d\\x9b*line feed"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("package", row.package);
        const Answer answer = Fwlab("list package");
        Expect(answer, 1, row.texts);
        Expect(answer, 1, "FINDING: ");
        for (const char c : answer.text) {
            EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~'));
        }
        Expect(Fwlab("list --json package"), 1, "\"findings\": [");
    }
    // Slots that are left free admit nobody, whatever fills them.
    Write("package",
          With(With(ufs, UFS_BASE_FIELD, "0800" + std::string(12, '\xFF')), {52, 4}, ""));
    Expect(Fwlab("list package"), 0, "base_revisions   \"0800\"\n");
}

TEST_F(FwlabTest, ListMapsLargePackages) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own memory is beyond the limit";
#endif
    Write("package", UfsEntry());
    fs::resize_file(folder + "/package", 1U << 30);
    Expect(Fwlab("list package", "ulimit -d 65536 &&"), 0, "size             1073741824");
    fs::resize_file(folder + "/package", 1UL << 31);
    Expect(Fwlab("list package", "ulimit -d 65536 &&"), 1, "2 GiB");
    Write("phone.toml", UfsPhone());
    Expect(Fwlab("match package --phone phone.toml"), 1, "2 GiB");
}

TEST_F(FwlabTest, MatchTellsBothDecisions) {
    const std::string record = "Sat Mar  7 09:05:02 2026\nproduct name:SIMUFS128G-B0B1 , "
                               "current fw version:0800, upgrading to version:";
    const std::string otherEmmc = With(EmmcEntry(), EMMC_MID_FIELD, "\x11");
    const struct {
        const char* name;
        std::string phone, package, record;
        int status;
        std::string texts;
    } rows[] = {
        {"no entry", UfsPhone(), Body(200), "", 1, "pre-check: nothing to do: no entry"},
        {"body past the end", UfsPhone(), With(UfsEntry(), UFS_SIZE_FIELD, BigEndian32(5)), "", 1,
         "pre-check: nothing to do: no entry*update (not reached): nothing to do: no entry"},
        {"last offset", GkiPhone(), EmmcEntry(EMMC_NEW_REV, ""), "", 1,
         "pre-check: nothing to do: no entry*update (not reached): goes on: takes entry 1"},
        {"same revision", UfsPhone(), UfsEntry("0800"), "", 1,
         "pre-check: nothing to do: takes entry 1 at 0x0, revision \"0800\"*(not reached)"},
        {"base revision", UfsPhone(), With(UfsEntry(), UFS_BASE_FIELD, "0700"), "", 1,
         "none of its base revisions*"
         "would log: FFU process CheckBaseRev: Revision validity*"
         "update (not reached): goes on*differ*No update."},
        {"older revision", UfsPhone(), UfsEntry("0700"), "", 1,
         "pre-check: goes on*update: nothing to do*would log: FwVerCheck,line=248: "},
        {"no regard to the manufacturer", NormalPhone(), otherEmmc, "", 1,
         "pre-check: goes on: takes entry 1*update: nothing to do: no entry*differ"},
        {"different entries", NormalPhone(), With(otherEmmc, EMMC_FW_REV_FIELD, "A") + EmmcEntry(),
         "", 1, "entry 1 at 0x0*entry 2 at 0x34*differ*another revision"},
        {"older than eMMC 5.0", GkiPhone({{"ext_csd_rev", "6"}}),
         With(EmmcEntry(), EMMC_REV_FIELD, "\6"), "", 1, "older than eMMC 5.0"},
        {"renamed", UfsPhone({{"product_name", "\"KLUEG8U1EM-B0B1\\n\""}, {"revision", "'0900'"}}),
         With(UfsEntry("1000"), UFS_PNM_FIELD, "KLUEG8U1EM-B0B1\n") +
             With(UfsEntry("1000"), UFS_PNM_FIELD, "KLUEG8U1EM-REWK"),
         "", 0,
         "takes entry 1*takes entry 2*would log: UpdateProductName,line=155: *differ*"
         "An update to \"1000\"."},
        {"attempted", UfsPhone(), UfsEntry(), record + "0900\n", 1,
         "pre-check: goes on*record: nothing to do*\"0800\" to \"0900\"*(not reached)"},
        {"another attempted", UfsPhone(), UfsEntry(), record + "0850\n", 0, "record: goes on"},
        {"damaged record", UfsPhone(), UfsEntry(), record, 1,
         "record: nothing to do: it cannot be read back*"
         "would log: FFU process SubParseResultFile: Parse base rev failed!"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("phone.toml", row.phone);
        Write("package", row.package);
        Write("record", row.record);
        Expect(Fwlab("match package --phone phone.toml" +
                     std::string(row.record.empty() ? "" : " --record record")),
               row.status, row.texts);
    }
    Write("package", With(EmmcEntry(), EMMC_BASE_FIELD, std::string("\5\0\0\0\0\0\0\0\6", 9)));
    const std::string emmc =
        "match package --manufacturer-id 0x13 --product SIM064 --ext-csd-rev 8";
    Expect(Fwlab(emmc + " --revision '[0x05]'"), 0, "runs \"\\x05\\x00");
    Expect(Fwlab(emmc + " --revision '[5, 1]'"), 1);
    Write("package", UfsEntry());
    const std::string ufs = "match package --manfid 0x0001ce --product 'SIMUFS128G-B0B1 '";
    Expect(Fwlab(ufs + " --revision 0800"), 0);
    Expect(Fwlab(ufs), 2, "revision");
}

TEST_F(FwlabTest, RehearseEndsWithZeroOnlyForAnUpdatedPhone) {
    const struct {
        const char* name;
        std::string phone, package, options, texts;
    } rows[] = {
        {"already there", UfsPhone({{"revision", "'0900'"}}), UfsEntry(), "",
         "The device took no firmware."},
        {"refused", UfsPhone({{"write_buffer", "'sense 5/26/00'"}}), UfsEntry(), "",
         "-> CHECK CONDITION*upgrade to 0900 fail*took no firmware*runs \"0800\", NOT"},
        {"part of the body", UfsPhone(), UfsEntry(),
         "--fault 'read /data/vendor/fw/ufs_fw_body.bin short=3'",
         "update to 0900 pass*took 3 bytes, NOT the body of entry 1*runs \"0900\", the"},
        {"another firmware", GkiPhone({{"firmware.revision", "'FW3'"}}), EmmcEntry(), "",
         "took 4 bytes, the body*NOT the revision of entry 1"},
        {"power cut, not attempted again", NormalPhone(), EmmcEntry(),
         "--reboot-and-run-again --fault 'FFU_INSTALL end'",
         "signal 9*the power failed during its update*The second run:*"
         "has been applied, no need to update*found nothing to do*The phone is NOT"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("phone.toml", row.phone);
        Write("package", row.package);
        Expect(Fwlab("rehearse package --phone phone.toml --keep kept " + row.options), 1,
               row.texts);
        EXPECT_TRUE(fs::remove_all(folder + "/kept") > 0);
    }
    Expect(Fwlab("rehearse package --phone phone.toml --fault 'open sometimes'"), 2, "sometimes");
    Expect(Fwlab("rehearse package --phone phone.toml --tool gone"), 2, "gone");
}

TEST_F(FwlabTest, OutcomeExplainsWhatARunLeft) {
    const std::string line = "product name:SIM064, current fw version:A, upgrading to version:";
    const std::string time = "Mon Nov 16 13:36:10 2026\n";
    const struct {
        std::string flags, record; // empty: there is none
        int status;
        std::string texts;
    } rows[] = {
        {"", "", 1, "never ran*will attempt"},
        {"ffu.end", "", 0, "regular end: it found nothing to do*No update was started"},
        {"ffu.end ffu.ok", line + "B\n", 0,
         "regular end*passed (Mon Nov 16 13:36:10 2026)*will not attempt \"B\""},
        {"ffu.end ffu.fail", line + "B\n", 1, "found nothing to do*failed (Mon Nov 16"},
        {"ffu.end", line + "B\n", 0, "found nothing to do*no outcome*attempted from \"A\""},
        {"ffu.bgn", "", 1, "stopped before*no storage device*No update was started"},
        {"ffu.bgn", line + "B\n", 1, "the power failed during its update*no outcome"},
        {"ffu.bgn ffu.fail", line + "B\n", 1, "stopped before*its update failed"},
        {"ffu.bgn ffu.ok", line + "B\n", 1, "the power failed after its update*passed"},
        {"ffu.bgn ffu.end", "", 1, "both run flags"},
        {"ffu.ok", line + "B\n", 1, "could not create its begin flag or its end flag*passed"},
        {"ffu.end ffu.ok ffu.fail", line + "B\n", 1, "cannot be told"},
        {"ffu.end ffu.ok", line + "B", 1, "cannot be read back*Parse base rev failed!"},
        {"ffu.end", line + "123456789\n", 1, "cannot be read back*memcpy_s error!"},
        {"ffu.end", "\n", 1, "cannot be read back"},
        {"ffu.end", line + "\x1b[2J\n", 0, "\"\\x1b[2J\""},
    };
    for (const auto& row : rows) {
        fs::remove_all(folder + "/state");
        fs::create_directory(folder + "/state");
        std::istringstream flags(row.flags);
        for (std::string flag; flags >> flag;) {
            Write("state/" + flag, flag == "ffu.ok" || flag == "ffu.fail" ? time : "");
        }
        if (!row.record.empty()) {
            Write("state/fw_result", time + row.record);
        }
        SCOPED_TRACE(row.flags + row.record);
        Expect(Fwlab("outcome state"), row.status, row.texts);
    }
}

TEST_F(FwlabTest, WrongUsageEndsWithTwo) {
    Write("package", UfsEntry());
    Write("phone.toml", "technology = 'ufs'");
    for (const char* arguments :
         {"", "unpack", "list", "list gone", "list .", "list package more", "pack gone -o package",
          "match package", "match package --phone phone.toml", "match package --phone gone",
          "match package --phone phone.toml --manfid 0x0001ce", "rehearse package --phone gone",
          "outcome gone", "outcome package"}) {
        SCOPED_TRACE(arguments);
        Expect(Fwlab(arguments), 2);
    }
    for (const char* command : {"", "pack", "list", "match", "rehearse", "outcome"}) {
        Expect(Fwlab(std::string(command) + " --help"), 0, "Usage: *Options:*Exit status");
    }
}
