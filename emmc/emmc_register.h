// Reads the two eMMC registers that tell which device this is and what it runs.
#pragma once

#include <cstdint>
#include <linux/mmc/ioctl.h>

// Where the kernel takes a whole firmware update; writable only where it does so (GKI mode).
constexpr char EMMC_FFU_NODE[] = "/proc/bootdevice/ffu";
constexpr char EMMC_BLOCK_NODE[] = "/dev/block/mmcblk0";

constexpr unsigned MMC_BLOCK_SIZE = 512;

constexpr int CID_SIZE = 16; // JEDEC: 128 bits, byte 0 the most significant
constexpr int CID_MID = 0;   // manufacturer
constexpr int CID_PNM = 3;   // product name, six characters
constexpr int CID_PRV = 9;   // product revision
constexpr int CID_PSN = 10;  // serial number, four bytes

constexpr int EXT_CSD_SIZE = 512; // JEDEC: byte i is EXT_CSD byte i

constexpr int EXT_CSD_REV = 192;              // structure revision
constexpr uint8_t EXT_CSD_REV_5_0 = 7;        // its value for eMMC 5.0
constexpr int EXT_CSD_FIRMWARE_VERSION = 254; // eight bytes, 254 to 261

// Whether the kernel does the update itself (GKI mode); otherwise (normal mode) registers and
// firmware go through MMC requests. Asked anew at every step: no mode outlives a call.
[[nodiscard]] bool IsGkiMode();

// Clears request and fills it for MMC_IOC_CMD: an R1 response and a transfer of blocks blocks of
// MMC_BLOCK_SIZE bytes at data, which may be null without blocks; writeFlag is 1 for data to the
// device, else 0. Returns 0, or non-zero when the record cannot be cleared.
[[nodiscard]] int MakeMmcRequest(mmc_ioc_cmd& request, int writeFlag, uint32_t opcode,
                                 uint32_t blocks, const uint8_t* data);

// Fills cid (CID_SIZE bytes) from the sysfs node. Returns 0, or -1 on failure.
[[nodiscard]] int EmmcGetCidFromSysfs(uint8_t* cid);

// Fills extCsd (EXT_CSD_SIZE bytes, whatever extCsdLen; a negative one is refused). Returns 0, or
// a non-zero status: -1, the MMC ioctl's own result, or the code of a refused copy. What extCsd
// holds is of no use then.
[[nodiscard]] int EmmcGetExtCsd(uint8_t* extCsd, int extCsdLen);
