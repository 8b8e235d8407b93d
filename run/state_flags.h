// The state directory and its flag files, by which others see how runs and updates ended.
#pragma once

constexpr char STATE_DIR[] = "/data/vendor/fw";
constexpr unsigned STATE_FILE_MODE = 0770;

// Empty files: a run is under way or stopped early; a run came to its regular end.
constexpr char BEGIN_FLAG[] = "/data/vendor/fw/ffu.bgn";
constexpr char END_FLAG[] = "/data/vendor/fw/ffu.end";
// The time: when the last update passed, or failed.
constexpr char OK_FLAG[] = "/data/vendor/fw/ffu.ok";
constexpr char FAIL_FLAG[] = "/data/vendor/fw/ffu.fail";

// Makes the state directory if it is not there. Returns 0 or -1.
[[nodiscard]] int CreateResultDir();

// Takes the flag of the last run's end away and sets that of this run's begin; the other way round
// at the end. A flag that was not there is no failure. Return 0, or -1 when the flag cannot be set.
[[nodiscard]] int BeginFlag();
[[nodiscard]] int EndFlag();

// Says on the log when no update has left its outcome.
void CheckResultFlag();

// Leaves the flag of a passed (result 0) or failed update to fwBinRev, with the time in it; no flag
// when there was nothing to do (1).
void UpdateResultFlag(int result, const char* fwBinRev);
