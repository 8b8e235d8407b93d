// Runs the update of the detected technology and leaves its outcome.
#pragma once

// deviceType is DEVICE_EMMC; every other value is taken for UFS. Clears the last outcome first.
// Returns 0 when the update is done, 1 when it found nothing to do, -1 when it failed.
[[nodiscard]] int DoFfu(char deviceType);

// Leaves the flag of a passed (result 0) or failed (-1) update to fwBinRev, with the time in it; no
// flag when there was nothing to do (1).
void UpdateResultFlag(int result, const char* fwBinRev);
