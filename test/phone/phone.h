// Whole runs of a tool on a simulated phone: a phone of each kind, packages for it, the run, and
// what the run left. Every test of a whole run uses it. A phone lives in a temporary directory that
// is removed with its test.
#pragma once

#include "simphone/files.h"
#include "simphone/phone.h"
#include "simphone/text.h"
#include "simphone/tool_run.h"

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;
using Overrides = std::map<std::string, std::string>;    // keys of a description, values in TOML
using Files = std::map<std::string, std::string>;        // path on the phone and content
inline Files operator+(Files files, const Files& more) { // of two with one path, the first
    files.insert(more.begin(), more.end());
    return files;
}
inline const std::string MISSING = "<missing>"; // the content of a file that is not there

// The two phones of the tests, and the firmware that they run.
inline const std::string EMMC_PNM = "SIM064";
inline const std::string EMMC_REV = "FW000001";
inline const std::string EMMC_NEW_REV = "FW000002";
inline const std::string UFS_MID = "0x0001ce";
inline const std::string UFS_PNM = "SIMUFS128G-B0B1 ";
inline const std::string UFS_REV = "0800";
inline const std::string UFS_NEW_REV = "0900";

inline const std::string EMMC_PACKAGE = "/vendor/firmware/emmc_emer_fw.bin";
inline const std::string UFS_PACKAGE = "/vendor/firmware/ufs_emer_fw.bin";
inline const std::string STATE = "/data/vendor/fw";
// What is left there by a run that passed, that failed, and that found nothing to do.
inline const std::string PASS = "ffu.end ffu.ok fw_result";
inline const std::string FAIL = "ffu.bgn ffu.fail fw_result";
inline const std::string NOTHING = "ffu.end fw_result";
// The phones' clock, in the state files.
inline const std::string CLOCK_TEXT = "Sat Mar  7 09:05:02 2026\n";

// The faults of these texts, and the other way round.
std::vector<Fault> Faults(const Texts& texts);
Texts FaultTexts(const std::vector<Fault>& faults);

// A number from the environment, such as a seed.
unsigned FromEnvironment(const char* name, unsigned otherwise);

// The shipped descriptions; `overrides` replaces or adds keys, such as {{"ext_csd_rev", "6"}}.
std::string GkiPhone(const Overrides& overrides = {});
std::string NormalPhone(Overrides overrides = {});
std::string UfsPhone(const Overrides& overrides = {});

// The bytes of package entries, put together from the format's offsets.
struct Place {
    size_t offset, size;
};
constexpr Place EMMC_MID_FIELD = {4, 1}, EMMC_PNM_FIELD = {5, 6}, EMMC_PRV_FIELD = {11, 1},
                EMMC_PSN_FIELD = {12, 4}, EMMC_REV_FIELD = {16, 1}, EMMC_FW_REV_FIELD = {17, 8},
                EMMC_SIZE_FIELD = {25, 4}, EMMC_MARKET_FIELD = {29, 3}, EMMC_BASE_FIELD = {32, 16};
constexpr Place UFS_MID_FIELD = {4, 8}, UFS_PNM_FIELD = {12, 16}, UFS_REV_FIELD = {28, 4},
                UFS_SIZE_FIELD = {32, 4}, UFS_BASE_FIELD = {48, 16};

// An entry for the phones above: `rev` from any base revision, with `body`.
std::string EmmcEntry(const std::string& rev = EMMC_NEW_REV, const std::string& body = "body");
std::string UfsEntry(const std::string& rev = UFS_NEW_REV, const std::string& body = "body");
// `entry` with another value in one field, zeros behind it.
std::string With(std::string entry, Place field, const std::string& value);
std::string BigEndian32(uint32_t number);
// A record of an attempt.
std::string AttemptRecord(const std::string& base, const std::string& target,
                          const std::string& pnm = EMMC_PNM);
// `size` bytes in which no two blocks are alike and no magic occurs.
std::string Body(size_t size);

class PhoneTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Makes the phone anew and puts `files` on it; nothing of the last one stays.
    void Make(const std::string& description, const Files& files = {});
    // A file of the phone, by its path there; folders are made as needed, and MISSING removes the
    // file.
    std::string Path(const std::string& file) const {
        return directory + file;
    }
    void Put(const std::string& file, const std::string& content) const;
    std::string Get(const std::string& file) const; // MISSING if it cannot be read
    // Name and content of every file in the state directory; the names alone, a blank between them.
    Files State() const {
        return ReadStateDirectory(directory).files;
    }
    std::string Left() const;

    // One run of the tool; it must end by itself and give back what it acquired. An empty text is
    // no fault.
    RunResult Run(const Texts& faults = {}) const;
    // One run that may end in any way, such as by a power cut; one that may not even start.
    RunResult RunAnyhow(const Texts& faults) const;
    RunResult TryRun(const Texts& faults = {}, const std::string& tool = FFU_PATH,
                     const std::string& library = SIMPHONE_LIBRARY) const;

    std::string directory;
};

// Nothing was opened or mapped with other flags or modes, looked at for other rights or removed
// than is due. What the kernel and the vendor provide is only read, but for the node that updates.
// The only pause is that of the trigger test.
void ExpectProperCalls(const RunResult& result);
// Every descriptor, stream and mapping of the run was given back, exactly once. Memory is
// LeakSanitizer's.
void ExpectAllGivenBack(const RunResult& result);

// The console without any time stamp; the device's requests, a line each; the system log without
// the "FFU process " that each message must begin with, untagged and at error priority.
std::string Console(const RunResult& result);
std::string Requests(const RunResult& result);
std::string Steps(const RunResult& result);
void ExpectEnd(const std::string& text, const std::string& end);
long Count(const std::string& text, const std::string& part);
