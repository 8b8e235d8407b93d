// What fwlab makes of packages and phones that are there already: what they hold, how they differ,
// how to make them again.
#include "test/fwlab.h"

namespace fs = std::filesystem;

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
         ufs, one + OtherUfs("0850")},
        {"entry 1 at 0x0: base_revisions (at 0x30): *makes \"any\", the package has \"0800\"", ufs,
         With(both, UFS_BASE_FIELD, "0800080008000800")},
        {"base_revisions (at 0x30): *makes \"08000800080008*has \"0800\\x00", fromOld,
         With(both, UFS_BASE_FIELD, "0800")},
        {"entry 2 at 0x43: body: another one from its byte 4 on (at 0x87)", ufs,
         one + OtherUfs(UFS_NEW_REV, "otheR")},
        {"entry 1 at 0x0: body_size*makes 3, the package has 4; what follows is not compared", ufs,
         UfsEntry(UFS_NEW_REV, "abcd") + OtherUfs()},
        {"ends in front of entry 2 at 0x43: 69 bytes too few", ufs, one},
        {"ends in entry 2 at 0x43: 68 bytes too few", ufs, both.substr(0, 68)},
        {"ends in entry 2 at 0x43: 1 bytes too few", ufs, both.substr(0, both.size() - 1)},
        {"ends in front of entry 1", ufs, ""},
        {"68 bytes too many from 0x88 on", ufs, both + UfsEntry()},
        {"magic (at 0x0)", ufs, With(both, {3, 1}, "N")},
        {"prv_and_psn (at 0xb)", emmc, With(emmcPackage, EMMC_PRV_FIELD, "\1")},
    };
    Put("/image", "abc");
    Put("/other", "other");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.texts);
        Put("/manifest.toml", row.manifest);
        Put("/package", row.package);
        Expect(Fwlab("verify package --manifest manifest.toml"), 1,
               row.texts + "*package: is NOT what manifest.toml makes");
    }
    // No byte of a package escapes.
    Put("/manifest.toml", emmc);
    for (size_t at = 0; at < emmcPackage.size(); at++) {
        Put("/package", With(emmcPackage, {at, 1}, "~"));
        Expect(Fwlab("verify --json package --manifest manifest.toml"), 1,
               "\"same\": false,*\"offset\": ");
    }
    Put("/package", emmcPackage);
    Expect(Fwlab("verify package --manifest manifest.toml"), 0, "package: is what manifest.toml");
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
