// The state directory and its flag files, which show how runs and updates ended.
#pragma once

constexpr char STATE_DIR[] = "/data/vendor/fw";
constexpr unsigned STATE_FILE_MODE = 0770;

// Empty files. Begin flag: a run is under way, or stopped before its regular end. End flag: the
// last run came to its regular end.
constexpr char BEGIN_FLAG[] = "/data/vendor/fw/ffu.bgn";
constexpr char END_FLAG[] = "/data/vendor/fw/ffu.end";
// Outcome flags: files with the time at which the last update passed or failed.
constexpr char OK_FLAG[] = "/data/vendor/fw/ffu.ok";
constexpr char FAIL_FLAG[] = "/data/vendor/fw/ffu.fail";

// Makes the state directory if it is not there. Returns 0, or -1 when it cannot be made.
[[nodiscard]] int CreateResultDir();

// BeginFlag removes the end flag and sets the begin flag. EndFlag does the opposite. A removal that
// fails is only logged. Return 0, or -1 when the flag cannot be set.
[[nodiscard]] int BeginFlag();
[[nodiscard]] int EndFlag();

// Logs it when there is no outcome flag.
void CheckResultFlag();

// Writes the time into the outcome flag of an update to fwBinRev: OK_FLAG when result is STEP_DONE,
// FAIL_FLAG otherwise. Writes no flag when it is STEP_NOTHING_TO_DO.
void UpdateResultFlag(int result, const char* fwBinRev);
