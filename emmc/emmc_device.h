// Access to the eMMC device: its nodes, GKI or normal mode, and requests to its driver.
#pragma once

#include <cstdint>
#include <linux/mmc/ioctl.h>

// The kernel updates the device with an image written here. Writable only in GKI mode.
constexpr char EMMC_FFU_NODE[] = "/proc/bootdevice/ffu";
constexpr char EMMC_BLOCK_NODE[] = "/dev/block/mmcblk0";

constexpr unsigned MMC_BLOCK_SIZE = 512;

// Whether the kernel does the update itself (GKI mode). Otherwise (normal mode) EXT_CSD and
// firmware go through MMC requests. Each step asks again; the mode is not kept.
[[nodiscard]] bool IsGkiMode();

// Clears request and fills it for MMC_IOC_CMD, with an R1 response and a data transfer: blocks
// times MMC_BLOCK_SIZE bytes at data (borrowed; may be null if blocks is 0). writeFlag is 1 for
// data to the device, else 0. Returns 0, or non-zero when request cannot be cleared.
[[nodiscard]] int MakeMmcRequest(int writeFlag, uint32_t opcode, uint32_t blocks,
                                 const uint8_t* data, mmc_ioc_cmd& request);
