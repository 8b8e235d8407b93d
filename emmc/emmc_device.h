// How the eMMC device is reached: its nodes, the kernel's mode, and requests to its driver.
#pragma once

#include <cstdint>
#include <linux/mmc/ioctl.h>

// Where the kernel takes a whole firmware update; writable only where it does so (GKI mode).
constexpr char EMMC_FFU_NODE[] = "/proc/bootdevice/ffu";
constexpr char EMMC_BLOCK_NODE[] = "/dev/block/mmcblk0";

constexpr unsigned MMC_BLOCK_SIZE = 512;

// Whether the kernel does the update itself (GKI mode); otherwise (normal mode) registers and
// firmware go through MMC requests. Asked anew at every step: no mode outlives a call.
[[nodiscard]] bool IsGkiMode();

// Clears request and fills it for MMC_IOC_CMD: an R1 response and a transfer of blocks blocks of
// MMC_BLOCK_SIZE bytes at data, which may be null without blocks; writeFlag is 1 for data to the
// device, else 0. Returns 0, or non-zero when the record cannot be cleared.
[[nodiscard]] int MakeMmcRequest(int writeFlag, uint32_t opcode, uint32_t blocks,
                                 const uint8_t* data, mmc_ioc_cmd& request);
