// What fwlab says of a phone and a package, and what the unmodified tool then does, must agree: on
// whether the attempt goes on record, under which revision, which bytes the device is sent, and
// whether the attempt is used up in vain. Packages, phones and records are generated; FFU_SEED
// chooses others, FFU_CASES how many.
#include "fwlab/base/toml.h"
#include "fwlab/phone/decision.h"
#include "test/phone/phone.h"

#include <algorithm>
#include <random>

namespace {

struct Case {
    bool isUfs;
    Overrides phone;
    std::string package, record; // the record may be MISSING
};

// Few values, so that entries, phones and records often agree, or nearly.
const Texts EMMC_NAMES = {"SIM064", "SIM065", std::string("SIM\0\0\0", 6)};
const Texts EMMC_REVS = {"FW000001", "FW000002", "FW000003", "FW",          "\5",
                         "\5\1",     "FW\n",     "A,B",      {"\5\0\2", 3}, {"\0\1", 2}};
const Texts UFS_NAMES = {
    "SIMUFS128G-B0B1 ",  "SIMUFS128G\n",    "SIMUFS128G-B0B1\n", "SIMUFS256G-B0B1 ",
    "KLUEG8U1EM-B0B1\n", "KLUEG8U1EM-B0B1", "KLUEG8U1EM-REWK",   "\n"};
const Texts UFS_REVS = {"0800", "0900", "1000", "0700", "09\n0", {"08\0\1", 4}, {"\0\0\0\1", 4}};
const struct Kind {
    const char* magic;
    Place pnm, base, size; // fields of an entry
    size_t revSize, imageMax;
    Texts names, revs;
} KINDS[] = {
    {"EMMC", EMMC_PNM_FIELD, EMMC_BASE_FIELD, EMMC_SIZE_FIELD, 8, 0x100000, EMMC_NAMES, EMMC_REVS},
    {"UFSM", UFS_PNM_FIELD, UFS_BASE_FIELD, UFS_SIZE_FIELD, 4, 0x800000, UFS_NAMES, UFS_REVS}};

class Generator {
public:
    explicit Generator(unsigned seed)
        : random(seed), isUfs(Chance(2)), kind(KINDS[isUfs]), phoneName(Pick(kind.names)) {
    }

    Case Next() {
        Case made = {isUfs, isUfs ? UfsKeys() : EmmcKeys(), "", MISSING};
        for (unsigned i = Below(4) + (Chance(20) ? 0 : 1); i > 0; i--) {
            made.package += Chance(8) ? "UFSEMM" : "";
            // A magic that is no entry: its body reaches past the end of the package, or it is
            // empty.
            made.package += Chance(8) ? kind.magic : "";
            made.package += Entry(true);
        }
        if (Chance(20)) {
            made.package.resize(made.package.size() - std::min<size_t>(made.package.size(), 7));
        }
        made.record = Chance(2) ? Record() : MISSING;
        return made;
    }

private:
    unsigned Below(size_t end) {
        return std::uniform_int_distribution<unsigned>(0, static_cast<unsigned>(end) - 1)(random);
    }
    bool Chance(unsigned oneIn) {
        return Below(oneIn) == 0;
    }
    // The first one half of the time.
    const std::string& Pick(const Texts& values) {
        return values[Chance(2) ? 0 : Below(values.size())];
    }
    // One of the first three, often.
    const std::string& Revision() {
        return kind.revs[Below(Chance(3) ? kind.revs.size() : 3)];
    }
    std::string UfsMid() {
        return Pick({"0x0001ce\n", "0x0001ad\n", "0x1ce\n"});
    }
    std::string ExtCsdRev() {
        return Pick({"\x08", "\x07", "\x06"});
    }

    Overrides EmmcKeys() {
        return {{"mode", Chance(2) ? "'gki'" : "'normal'"},
                {"revision", TomlList(Revision())},
                {"ext_csd_rev", std::to_string(ExtCsdRev()[0])},
                {"cid.manufacturer_id", Chance(8) ? "0x15" : "0x13"},
                {"cid.product_name", TomlList(phoneName)}};
    }
    Overrides UfsKeys() {
        return {{"manfid", TomlList(UfsMid())},
                {"product_name", TomlList(phoneName)},
                {"revision", TomlList(Chance(20) ? "080" : Revision())},
                {"max_hw_sectors_kb", Chance(4) ? "1" : "0"}};
    }
    std::string BaseRevisions() {
        std::string slots;
        while (slots.empty() ? Chance(3) : slots.size() < 16) {
            std::string slot = Chance(4) ? UNUSED : Revision();
            slot.resize(kind.revSize);
            slots += slot;
        }
        return slots.empty() ? UNUSED : slots;
    }
    std::string Entry(bool mayHoldOther) {
        const size_t sizes[] = {600, 1, 511, 512, 1024, 1025, 0};
        std::string body = Body(Chance(60) ? kind.imageMax + 1 : sizes[Below(7)]);
        if (!body.empty()) { // no two are alike
            body[0] = static_cast<char>(128 | ++bodies);
        }
        if (mayHoldOther && Chance(10)) { // not at the begin of the image
            body += Entry(false);
            body += Body(Below(3));
        }
        std::string entry =
            isUfs ? With(UfsEntry(Revision(), body), UFS_MID_FIELD, UfsMid())
                  : With(With(EmmcEntry(Revision(), body), EMMC_REV_FIELD, ExtCsdRev()),
                         EMMC_MID_FIELD, Chance(8) ? "\x15" : "\x13");
        entry = With(entry, kind.pnm, Chance(3) ? Pick(kind.names) : phoneName);
        const auto beyond = static_cast<uint32_t>(body.size() + 1);
        return With(Chance(20) ? With(entry, kind.size, BigEndian32(beyond)) : entry, kind.base,
                    BaseRevisions());
    }
    std::string Record() {
        const auto text = [&] { return std::string(Revision().c_str()); };
        const std::string whole = AttemptRecord(text(), text(), "P");
        return Texts{whole, whole,      whole.substr(CLOCK_TEXT.size()),
                     "",    CLOCK_TEXT, whole.substr(0, whole.size() - 1)}[Below(6)];
    }

    const std::string UNUSED = std::string(16, '\xFF'); // slots of base revisions
    std::mt19937 random;
    const bool isUfs;
    const Kind& kind;
    const std::string phoneName;
    unsigned bodies = 0;
};

class AgreementTest : public PhoneTest {
protected:
    void Compare(const Case& made) {
        Make(made.isUfs ? UfsPhone(made.phone) : GkiPhone(made.phone),
             {{made.isUfs ? UFS_PACKAGE : EMMC_PACKAGE, made.package},
              {STATE + "/fw_result", made.record}});
        const Description description = DescriptionOf(Path("/phone.toml"));
        const Device device = DeviceOf(description);
        const Package package = InMemory(made.package, *device.identity.layout);
        const StateDirectory before = ReadStateDirectory(directory);
        const Decision decision = Decide(package, device, before);
        (void)Run();
        const std::string record = Get(STATE + "/fw_result");
        std::string sent; // nothing if there is no such file
        (void)ReadWholeFile(Path("/device/downloaded.bin"), sent);
        const bool isAttempted = record != made.record;

        SCOPED_TRACE(std::string(WordOf(decision.verdict)) + ": " + WhyOf(decision));
        const Verdict verdict = decision.verdict;
        verdicts[verdict]++;
        // What rehearse and sweep say of the run is what match said before it.
        EXPECT_STREQ(WordOf(Judge(package, decision, sent, before, ReadStateDirectory(directory))),
                     WordOf(verdict));
        const bool isUpdate =
            verdict == Verdict::UPDATED ||
            (verdict == Verdict::RECORD_UNREADABLE && decision.steps.back().goesOn);
        EXPECT_EQ(isAttempted, decision.recorded.has_value());
        ExpectEnd(record, isAttempted
                              ? ", upgrading to version:" + decision.recorded.value_or("") + "\n"
                              : "");
        // Whole blocks go beyond the body, and into zeros beyond the package.
        const bool isPadded = !made.isUfs && !description.gki;
        const size_t size = isPadded ? (decision.sentSize + 511) / 512 * 512 : decision.sentSize;
        std::string due =
            decision.sent == nullptr ? "" : made.package.substr(decision.sent->body, size);
        due.resize(size);
        EXPECT_TRUE(sent == due);
        const Entry* preCheck = decision.PreCheck();
        const std::string seen = preCheck == nullptr ? "" : RevisionOf(preCheck->identity);
        EXPECT_EQ(isAttempted && IsFor(package, device, seen, isPadded, sent), isUpdate);
        if (isUpdate) {
            const std::string steps = Steps(Run());
            EXPECT_EQ(Count({steps}, "CheckResultFile: ParseResultFile error"),
                      verdict == Verdict::RECORD_UNREADABLE ? 1 : 0);
        }
    }

    static Package InMemory(const std::string& bytes, const Layout& layout) {
        const auto owned = std::make_shared<std::string>(bytes);
        return LookInto("package", {owned, reinterpret_cast<const uint8_t*>(owned->data())},
                        bytes.size(), layout);
    }

    // Whether what was sent is the whole body of an entry for this very device, with the revision
    // that the pre-check saw. Told from the bytes of the headers alone.
    static bool IsFor(const Package& package, const Device& device, const std::string& seen,
                      bool isPadded, const std::string& sent) {
        const Layout& layout = *package.layout;
        std::string name = NameOf(device.identity);
        const std::string running = RevisionOf(device.identity);
        const bool isNewModel = &layout == &UFS && (running[0] > '0' || running[1] >= '9');
        const auto trimmed = [](std::string text) {
            return text.substr(0, text.find_last_not_of(std::string(" \r\n\0", 4)) + 1);
        };
        if (isNewModel && name.substr(0, 15) == "KLUEG8U1EM-B0B1") {
            name = "KLUEG8U1EM-REWK";
        }
        const auto isFor = [&](const Entry& entry) {
            const auto isSame = [&](const Field& field) {
                return ::Get(entry.identity, field) == ::Get(device.identity, field);
            };
            const std::string own = NameOf(entry.identity),
                              slots = ::Get(entry.identity, layout.baseRevs);
            bool isAdmitted = slots == std::string(16, '\xFF');
            for (size_t slot = 0; slot < slots.size(); slot += running.size()) {
                isAdmitted |= slots.compare(slot, running.size(), running) == 0;
            }
            const std::string body = entry.bodyFits ? std::string(BodyOf(package, entry)) : "";
            return (name == "KLUEG8U1EM-REWK" ? trimmed(own) == name : own == name) &&
                   isSame(layout.manufacturer) && isSame(layout.extCsdRev) && isAdmitted &&
                   RevisionOf(entry.identity) == seen && !body.empty() && entry.outer == 0 &&
                   sent.size() == (isPadded ? (body.size() + 511) / 512 * 512 : body.size()) &&
                   sent.compare(0, body.size(), body) == 0;
        };
        return std::any_of(package.entries.begin(), package.entries.end(), isFor);
    }

    std::map<Verdict, unsigned> verdicts; // how often each was given
};

TEST_F(AgreementTest, MatchSaysWhatTheToolDoes) {
    const unsigned seed = FromEnvironment("FFU_SEED", 1),
                   cases = FromEnvironment("FFU_CASES", 2000);
    // For speed: 8 MiB of each UFS run in fewer page faults.
    setenv("GLIBC_TUNABLES", "glibc.malloc.hugetlb=1", 0);
    printf("FFU_SEED=%u FFU_CASES=%u\n", seed, cases);
    for (unsigned i = 0; i < cases && !HasFailure(); i++) {
        SCOPED_TRACE("case " + std::to_string(i));
        Compare(Generator(seed * 1000003 + i).Next());
    }
    for (const Verdict verdict :
         {Verdict::UPDATED, Verdict::NOTHING_TO_DO, Verdict::REFUSED, Verdict::ALREADY_ATTEMPTED,
          Verdict::USED_UP, Verdict::WRONG_IMAGE, Verdict::RECORD_UNREADABLE}) { // each was met
        printf("%-17s %u\n", WordOf(verdict), verdicts[verdict]);
        EXPECT_GE(verdicts[verdict], cases < 2000 ? 0U : 5U);
    }
}

} // namespace
