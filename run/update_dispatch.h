// Runs the update of the detected technology.
#pragma once

// deviceType is DEVICE_EMMC; every other value is taken for UFS. Clears the last outcome first.
// Returns 0 when the update is done, 1 when it found nothing to do, -1 when it failed.
[[nodiscard]] int DoFfu(char deviceType);
