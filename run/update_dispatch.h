// Runs the update of the detected technology.
#pragma once

// Removes the last outcome flags, then updates: eMMC when deviceType is DEVICE_EMMC, else UFS.
// Returns 0 when the update is done, 1 when it found nothing to do, -1 when it failed.
[[nodiscard]] int DoFfu(char deviceType);
