// The state directory and its flag files, by which others see how runs and updates ended.
#pragma once

constexpr char STATE_DIR[] = "/data/vendor/fw";
constexpr unsigned STATE_FILE_MODE = 0770;

// Empty files. Begin flag: a run is under way, or stopped before its regular end. End flag: the
// last run came to its regular end.
constexpr char BEGIN_FLAG[] = "/data/vendor/fw/ffu.bgn";
constexpr char END_FLAG[] = "/data/vendor/fw/ffu.end";
// Files with the time at which the last update passed, or failed.
constexpr char OK_FLAG[] = "/data/vendor/fw/ffu.ok";
constexpr char FAIL_FLAG[] = "/data/vendor/fw/ffu.fail";

// Makes the state directory if it is not there. Returns 0 or -1.
[[nodiscard]] int CreateResultDir();

// BeginFlag removes the end flag and sets the begin flag, EndFlag the other way round. A removal
// that fails is told on the log only. Return 0, or -1 when the flag cannot be set.
[[nodiscard]] int BeginFlag();
[[nodiscard]] int EndFlag();

// Says on the log when no update has left its outcome.
void CheckResultFlag();

// Leaves the flag of a passed (result 0) or failed update to fwBinRev, with the time in it; no flag
// when there was nothing to do (1).
void UpdateResultFlag(int result, const char* fwBinRev);
