// The pre-check of the package, for both technologies, and what one revision may be attempted how
// often. A failure here means an update that is not meant for the device, or never comes.
#include "test/phone.h"

#include <filesystem>

namespace {

class PackageCheckTest : public PhoneTest {};

const std::string NOT_FOUND = "CheckFwBin: pnm not found in fw file. no need to update. \n";
// The runs here are stopped where they begin to record the attempt.
const char RECORD_FAULT[] = "open /data/vendor/fw/fw_result EROFS";
const std::string ATTEMPTED =
    "WriteResultFile: open ffu result file failed! Read-only file system\n";
const std::string ANY_BASE =
    "CheckBaseRev: Revision validity check is no necessary,exit!\n" + ATTEMPTED;
const std::string BASE_ADMITTED = "CheckBaseRev: Revision validity check is necessary\n"
                                  "CheckBaseRev: current rev is valid for update.\n" +
                                  ATTEMPTED;
const std::string BASE_REFUSED = "CheckBaseRev: Revision validity check is necessary\n"
                                 "CheckFwBin: local fw rev is not valid for FFU. Skip updating.\n";
const std::string LONGER_BODY = BigEndian32(5); // than the four bytes of the entries here
const std::string NO_LENGTH = BigEndian32(0xFFFFFFFF);
const std::string FIVE = std::string("\x05") + std::string(7, '\0');

std::string Found(const std::string& rev, const std::string& current = EMMC_REV) {
    return "CheckFwBin: pnm:SIM064 current:" + current + ", fwBinRev:" + rev + "\n";
}

std::string FoundUfs(const std::string& rev, const std::string& pnm = UFS_PNM) {
    return "CheckFwBin: pnm:" + pnm + " current:0800, fwBinRev:" + rev + "\n";
}

std::string EmmcBase(const std::string& slots) {
    return With(EmmcEntry(), EMMC_BASE_FIELD, slots);
}

std::string UfsBase(const std::string& slots) {
    return With(UfsEntry(), UFS_BASE_FIELD, slots);
}

// What the pre-check says of the package, on a phone that has its last run's end flag.
struct Case {
    const char* name;
    std::string phone;
    std::string package;
    std::string steps;
};

const Case CASES[] = {
    {"header without a body", GkiPhone(), EmmcEntry(EMMC_NEW_REV, ""), NOT_FOUND},
    {"body of one byte", GkiPhone(), EmmcEntry(EMMC_NEW_REV, "b"), Found("FW000002") + ANY_BASE},
    {"magic without an entry", GkiPhone(), "EMMC", NOT_FOUND},
    {"one byte", GkiPhone(), "E", NOT_FOUND},
    {"entry cut off", GkiPhone(), EmmcEntry().substr(0, 47), NOT_FOUND},
    {"unaligned entry", GkiPhone(), "\x01\x02\x03" + EmmcEntry(), Found("FW000002") + ANY_BASE},
    {"entry behind half a magic", GkiPhone(), "EMM" + EmmcEntry(), Found("FW000002") + ANY_BASE},
    {"two entries: the lower offset", GkiPhone(), EmmcEntry("FW000009") + EmmcEntry(),
     Found("FW000009") + ANY_BASE},
    {"two entries, the lower of the same revision", GkiPhone(), EmmcEntry(EMMC_REV) + EmmcEntry(),
     "CheckFwBin: local fw rev FW000001 is as new as fwBin\n"},
    {"behind another product", GkiPhone(),
     With(EmmcEntry(), EMMC_PNM_FIELD, "SIM06X") + EmmcEntry(), Found("FW000002") + ANY_BASE},
    {"in another product's body", GkiPhone(),
     With(EmmcEntry("FW000009", EmmcEntry()), EMMC_PNM_FIELD, "OTHER1"),
     Found("FW000002") + ANY_BASE},
    {"other manufacturer, serial number and market", GkiPhone(),
     With(With(With(EmmcEntry(), EMMC_MID_FIELD, "\x77"), EMMC_PSN_FIELD, "1234"),
          EMMC_MARKET_FIELD, "xyz"),
     Found("FW000002") + ANY_BASE},
    {"body beyond the end", GkiPhone(), With(EmmcEntry(), EMMC_SIZE_FIELD, LONGER_BODY), NOT_FOUND},
    {"body far beyond the end", GkiPhone(), With(EmmcEntry(), EMMC_SIZE_FIELD, NO_LENGTH),
     NOT_FOUND},
    {"sound entry behind one whose body is not there", GkiPhone(),
     With(EmmcEntry("FW000009"), EMMC_SIZE_FIELD, NO_LENGTH) + EmmcEntry(),
     Found("FW000002") + ANY_BASE},
    {"UFS entry in an eMMC package", GkiPhone(), UfsEntry(), NOT_FOUND},
    {"short product name", GkiPhone({{"cid.product_name", "\"SIM\\u0000\\u0000\\u0000\""}}),
     With(EmmcEntry(), EMMC_PNM_FIELD, "SIM"),
     "CheckFwBin: pnm:SIM current:FW000001, fwBinRev:FW000002\n" + ANY_BASE},

    {"first base revision", GkiPhone(), EmmcBase("FW000001FW000000"),
     Found("FW000002") + BASE_ADMITTED},
    {"second base revision", GkiPhone(), EmmcBase("FW000000FW000001"),
     Found("FW000002") + BASE_ADMITTED},
    {"base revision across two slots", GkiPhone(), EmmcBase("....FW000001...."),
     Found("FW000002") + BASE_REFUSED},
    {"base revisions all 0xFF but the last byte", GkiPhone(), EmmcBase(std::string(15, '\xFF')),
     Found("FW000002") + BASE_REFUSED},
    {"base revisions all zero", GkiPhone(), EmmcBase(""), Found("FW000002") + BASE_REFUSED},

    {"revision that begins with zero", GkiPhone({{"revision", "[0, 1, 2]"}}), EmmcEntry(),
     "CheckFwBin: local fw rev  is as new as fwBin\n"},
    {"revision of one byte, equal as text", GkiPhone({{"revision", "[5]"}}), EmmcEntry("\x05\x01"),
     "CheckFwBin: local fw rev \x05 is as new as fwBin\n"},
    {"revision of one byte, base equal", GkiPhone({{"revision", "[5]"}}),
     With(EmmcEntry("\x06"), EMMC_BASE_FIELD, FIVE), Found("\x06", "\x05") + BASE_ADMITTED},
    {"revision of one byte, base equal as text only", GkiPhone({{"revision", "[5]"}}),
     With(EmmcEntry("\x06"), EMMC_BASE_FIELD, "\x05\x01"), Found("\x06", "\x05") + BASE_REFUSED},

    {"UFS", UfsPhone(), UfsEntry(), FoundUfs("0900") + ANY_BASE},
    {"UFS header without a body", UfsPhone(), UfsEntry("0900", ""), FoundUfs("0900") + ANY_BASE},
    {"UFS entry cut off", UfsPhone(), UfsEntry("0900", "").substr(0, 63), NOT_FOUND},
    {"UFS, unaligned, behind another product", UfsPhone(),
     "UFSM" + With(UfsEntry("0999"), UFS_PNM_FIELD, "SIMUFS128G-B0B2 ") + "." + UfsEntry(),
     FoundUfs("0900") + ANY_BASE},
    {"UFS, all 16 characters of the name count", UfsPhone(),
     With(UfsEntry(), UFS_PNM_FIELD, "SIMUFS128G-B0B1"), NOT_FOUND},
    {"UFS, line end of a short name counts", UfsPhone({{"product_name", "\"SIM\\n\""}}),
     With(UfsEntry(), UFS_PNM_FIELD, "SIM"), NOT_FOUND},
    {"UFS, short name with its line end", UfsPhone({{"product_name", "\"SIM\\n\""}}),
     With(UfsEntry(), UFS_PNM_FIELD, "SIM\n"), FoundUfs("0900", "SIM\n") + ANY_BASE},
    {"UFS, other manufacturer", UfsPhone(), With(UfsEntry(), UFS_MID_FIELD, "0x0001ad"),
     FoundUfs("0900") + ANY_BASE},
    {"UFS, older revision", UfsPhone(), UfsEntry("0700"), FoundUfs("0700") + ANY_BASE},
    {"UFS, same revision", UfsPhone(), UfsEntry(UFS_REV),
     "CheckFwBin: local fw rev 0800 is as new as fwBin\n"},
    {"UFS, body beyond the end", UfsPhone(), With(UfsEntry(), UFS_SIZE_FIELD, LONGER_BODY),
     NOT_FOUND},
    {"UFS, body far beyond the end", UfsPhone(), With(UfsEntry(), UFS_SIZE_FIELD, NO_LENGTH),
     NOT_FOUND},
    {"UFS, first base revision", UfsPhone(), UfsBase("0800070006000500"),
     FoundUfs("0900") + BASE_ADMITTED},
    {"UFS, last base revision", UfsPhone(), UfsBase("0500060007000800"),
     FoundUfs("0900") + BASE_ADMITTED},
    {"UFS, base revision across two slots", UfsPhone(), UfsBase("..0800.........."),
     FoundUfs("0900") + BASE_REFUSED},
};

TEST_F(PackageCheckTest, OnlyAnEntryForTheDeviceIsAttempted) {
    for (const Case& row : CASES) {
        SCOPED_TRACE(row.name);
        const bool ufs = row.phone.find("'ufs'") != std::string::npos;
        Make(row.phone,
             {{ufs ? UFS_PACKAGE : EMMC_PACKAGE, row.package}, {STATE + "/ffu.end", ""}});
        EXPECT_EQ(Steps(Run({RECORD_FAULT})), row.steps);
    }
}

TEST_F(PackageCheckTest, UfsComesFirstAndNeedsItsRevision) {
    Make(UfsPhone(), {{UFS_PACKAGE, UfsEntry()}, {"/dev/block/mmcblk0", ""}});
    EXPECT_EQ(Count(SystemLog(Run({RECORD_FAULT})), FoundUfs("0900")), 1);
    for (const auto& [fault, message] :
         Keys{{"open /proc/bootdevice/rev EACCES",
               "GetCurrentRevUfs: Open UFS product rev node fail! Permission denied\n"},
              {"read /proc/bootdevice/rev EIO",
               "GetCurrentRevUfs: Read UFS product rev fail! Input/output error\n"},
              {"read /proc/bootdevice/rev short=3",
               "GetCurrentRevUfs: Read UFS product rev fail! "}}) {
        const RunResult result = Run({fault});
        EXPECT_EQ(Count({Steps(result)}, message), 1) << Steps(result);
        EXPECT_EQ(Tail(SystemLog(result), 1),
                  Texts{"FFU process GetDeviceInfo: Get local fw rev failed!\n"});
        EXPECT_EQ(Left(), "ffu.bgn");
    }
}

TEST_F(PackageCheckTest, HugePackageIsRefusedBeforeItIsMapped) {
    for (const std::uintmax_t size : {std::uintmax_t{1} << 31, (std::uintmax_t{1} << 32) + 1}) {
        for (const bool ufs : {false, true}) {
            const std::string file = ufs ? UFS_PACKAGE : EMMC_PACKAGE;
            Make(ufs ? UfsPhone() : GkiPhone(),
                 {{file, ufs ? UfsEntry() : EmmcEntry()}, {STATE + "/ffu.end", ""}});
            std::filesystem::resize_file(Path(file), size);
            EXPECT_EQ(Steps(Run({"mmap ENOMEM"})),
                      "ParseFwBin: map fw file failed! File too large\n"
                      "CheckFwBin: Parse rev in fw file failed!\n");
            EXPECT_EQ(Left(), "ffu.bgn");
        }
        // A package that grows after the pre-check.
        Make(GkiPhone(), {{EMMC_PACKAGE, EmmcEntry()}});
        const Texts console = Console(Run({"lseek returns=" + std::to_string(size)}));
        EXPECT_EQ(Count({console.back()}, "EmmcFwGetSize,line=90: EmmcFwGetSize lseek "), 1);
        EXPECT_EQ(Left(), "ffu.bgn ffu.fail fw_result");
    }
}

} // namespace
