// What the steps of a run pass to each other, and where a run leaves its files.
#pragma once

#include "fwpkg/firmware_package.h"

constexpr char STATE_DIR[] = "/data/vendor/fw";
constexpr char BEGIN_FLAG[] = "/data/vendor/fw/ffu.bgn";
constexpr char END_FLAG[] = "/data/vendor/fw/ffu.end";
constexpr char OK_FLAG[] = "/data/vendor/fw/ffu.ok";
constexpr char FAIL_FLAG[] = "/data/vendor/fw/ffu.fail";
constexpr char RESULT_FILE[] = "/data/vendor/fw/fw_result";
constexpr unsigned STATE_FILE_MODE = 0770;

constexpr char DEVICE_EMMC = '0';
constexpr char DEVICE_UFS = '1';

constexpr size_t PNM_SIZE = 16;
constexpr size_t REV_SIZE = 8;

// Verdict of each step from the package check on.
constexpr int STEP_FAILED = -1;
constexpr int STEP_DONE = 0; // or go on
constexpr int STEP_NOTHING_TO_DO = 1;

// The local device. Names and revisions are raw bytes with a zero byte behind them; a zero byte
// among them ends the value wherever it is used as text.
struct DeviceInfo {
    char type;                     // DEVICE_EMMC or DEVICE_UFS
    char pnm[PNM_SIZE + 1];        // product name as the kernel's node gives it
    char localFwRev[REV_SIZE + 1]; // the revision that runs: REV_SIZE bytes (eMMC) or UFS_REV_SIZE
};
