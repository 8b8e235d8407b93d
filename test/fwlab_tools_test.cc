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
