// The pre-check of the package, for both technologies. A failure here means an update that is not
// meant for the device, or never comes.
#include "test/phone/phone.h"

#include <filesystem>

namespace {

class PackageCheckTest : public PhoneTest {};

// The runs here are stopped where they begin to record the attempt.
const std::string ATTEMPTED =
    "WriteResultFile: open ffu result file failed! Read-only file system\n";
const std::string ANY_BASE =
    "CheckBaseRev: Revision validity check is no necessary,exit!\n" + ATTEMPTED;
const std::string NECESSARY = "CheckBaseRev: Revision validity check is necessary\n";
const std::string ADMITTED =
    NECESSARY + "CheckBaseRev: current rev is valid for update.\n" + ATTEMPTED;
const std::string REFUSED =
    NECESSARY + "CheckFwBin: local fw rev is not valid for FFU. Skip updating.\n";
const std::string NOT_FOUND = "CheckFwBin: pnm not found in fw file. no need to update. \n";

std::string Found(const std::string& rev, const std::string& current = EMMC_REV,
                  const std::string& pnm = EMMC_PNM) {
    return "CheckFwBin: pnm:" + pnm + " current:" + current + ", fwBinRev:" + rev + "\n";
}
std::string AsNew(const std::string& rev) {
    return "CheckFwBin: local fw rev " + rev + " is as new as fwBin\n";
}
const std::string FOUND = Found(EMMC_NEW_REV), UFS_FOUND = Found(UFS_NEW_REV, UFS_REV, UFS_PNM);

const std::string GKI = GkiPhone(), UFS = UfsPhone(), ENTRY = EmmcEntry(), UFS_ENTRY = UfsEntry();
const std::string ONE_BYTE_REV = GkiPhone({{"revision", "[5]"}});
const std::string SHORT_NAME = GkiPhone({{"cid.product_name", "\"SIM\\u0000\\u0000A\""}});
const std::string UFS_SHORT_NAME = UfsPhone({{"product_name", "\"SIM\\u0000A\""}});
const std::string UNUSED(8, '\xFF'); // a slot of base revisions

std::string Base(const std::string& slots) {
    return With(ENTRY, EMMC_BASE_FIELD, slots);
}

const struct {
    const char* name;
    std::string package, steps, phone = GKI;
} CASES[] = {
    {"no package", MISSING, "CheckFwBin: fw file not found, exit.\n"},
    {"empty", "", "ParseFwBin: No fw include, no need to ffu! \n" + NOT_FOUND},
    {"header without a body", EmmcEntry(EMMC_NEW_REV, ""), NOT_FOUND},
    {"body of one byte", EmmcEntry(EMMC_NEW_REV, "b"), FOUND + ANY_BASE},
    {"lower of two, runs already", EmmcEntry(EMMC_REV) + ENTRY, AsNew(EMMC_REV)},
    {"in another's header",
     With(With(ENTRY, EMMC_PNM_FIELD, "OTHER1"), EMMC_BASE_FIELD, "............EMMC")
             .substr(0, 48) +
         ENTRY.substr(4),
     FOUND + ANY_BASE},
    {"body a byte too long", With(ENTRY, EMMC_SIZE_FIELD, BigEndian32(5)), NOT_FOUND},
    {"behind a cut one", With(ENTRY, EMMC_SIZE_FIELD, "\x80") + EmmcEntry("FW000003"),
     Found("FW000003") + ANY_BASE},
    {"equals the name up to a zero byte", With(ENTRY, EMMC_PNM_FIELD, {"SIM\0\0B", 6}), NOT_FOUND,
     SHORT_NAME},

    {"first base", Base("FW000001FW000000"), FOUND + ADMITTED},
    {"base across two slots", Base("....FW000001...."), FOUND + REFUSED},
    {"all 0xFF but the last byte", Base(std::string(15, '\xFF')), FOUND + REFUSED},
    {"all 0xFF but the first byte", Base("\xFE" + std::string(15, '\xFF')), FOUND + REFUSED},
    {"unused, then its base", Base(UNUSED + "FW000001"), FOUND + ADMITTED},
    {"no base", Base(""), FOUND + REFUSED},

    {"runs nothing", ENTRY, AsNew(""), GkiPhone({{"revision", "[0, 1, 2]"}})},
    {"runs it in other letters", EmmcEntry("fw000001"), Found("fw000001") + ANY_BASE},
    {"equal as text", EmmcEntry("\x05\x01"), AsNew("\x05"), ONE_BYTE_REV},
    {"base as text", Base({"\x05\0\x01", 3}), Found("FW000002", "\x05") + REFUSED, ONE_BYTE_REV},

    {"UFS, header without a body", UfsEntry(UFS_NEW_REV, ""), UFS_FOUND + ANY_BASE, UFS},
    {"UFS, a byte of it missing", UfsEntry(UFS_NEW_REV, "").substr(0, 63), NOT_FOUND, UFS},
    {"UFS, name without blank", With(UFS_ENTRY, UFS_PNM_FIELD, "SIMUFS128G-B0B1"), NOT_FOUND, UFS},
    {"UFS, equals the name up to a zero byte", With(UFS_ENTRY, UFS_PNM_FIELD, {"SIM\0B", 5}),
     NOT_FOUND, UFS_SHORT_NAME},
    {"UFS, in another's header",
     With(With(UFS_ENTRY, UFS_PNM_FIELD, ""), UFS_BASE_FIELD, "............UFSM").substr(0, 64) +
         UFS_ENTRY.substr(4),
     UFS_FOUND + ANY_BASE, UFS},
    {"UFS, body a byte too long", With(UFS_ENTRY, UFS_SIZE_FIELD, BigEndian32(5)), NOT_FOUND, UFS},
    {"UFS, last base", With(UFS_ENTRY, UFS_BASE_FIELD, "0500060007000800"), UFS_FOUND + ADMITTED,
     UFS},
    {"UFS, bases that agree in three bytes", With(UFS_ENTRY, UFS_BASE_FIELD, "1800090008100801"),
     UFS_FOUND + REFUSED, UFS},
};

// On a phone that has its last run's end flag, and an eMMC node whatever its storage: UFS is first.
TEST_F(PackageCheckTest, OnlyAnEntryForTheDeviceIsAttempted) {
    for (const auto& row : CASES) {
        SCOPED_TRACE(row.name);
        const bool isUfs = row.phone == UFS || row.phone == UFS_SHORT_NAME;
        Make(row.phone, {{isUfs ? UFS_PACKAGE : EMMC_PACKAGE, row.package},
                         {"/dev/block/mmcblk0", ""},
                         {STATE + "/ffu.end", ""}});
        const std::string steps = Steps(Run({"open /data/vendor/fw/fw_result EROFS"}));
        EXPECT_EQ(steps, row.steps);
        EXPECT_EQ(Left(), Count(steps, ATTEMPTED) == 0 ? "ffu.end" : "ffu.bgn");
    }
}

TEST_F(PackageCheckTest, PackageOf2GiBIsNotMapped) {
    Make(GKI, {{EMMC_PACKAGE, ENTRY}, {STATE + "/ffu.end", ""}});
    for (const auto& [size, error] :
         std::map<std::uintmax_t, std::string>{{INT32_MAX, "Cannot allocate memory"},
                                               {1UL << 31, "File too large"},
                                               {(1UL << 32) + 1, "File too large"}}) {
        std::filesystem::resize_file(Path(EMMC_PACKAGE), size);
        ExpectEnd(Steps(Run({"mmap ENOMEM"})), "ParseFwBin: map fw file failed! " + error +
                                                   "\nCheckFwBin: Parse rev in fw file failed!\n");
        EXPECT_EQ(Left(), "ffu.bgn");
    }
}

} // namespace
