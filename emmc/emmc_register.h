// Reads the two eMMC registers that tell which device this is and what it runs.
#pragma once

#include <cstdint>

constexpr int CID_SIZE = 16; // JEDEC: 128 bits, byte 0 the most significant
constexpr int CID_MID = 0;   // manufacturer
constexpr int CID_PNM = 3;   // product name, six characters
constexpr int CID_PRV = 9;   // product revision
constexpr int CID_PSN = 10;  // serial number, four bytes

constexpr int EXT_CSD_SIZE = 512; // JEDEC: byte i is EXT_CSD byte i

constexpr int EXT_CSD_REV = 192;              // structure revision
constexpr uint8_t EXT_CSD_REV_5_0 = 7;        // its value for eMMC 5.0
constexpr int EXT_CSD_FIRMWARE_VERSION = 254; // eight bytes, 254 to 261

// Fills cid (CID_SIZE bytes) from the sysfs node. Returns 0, or -1 on failure.
[[nodiscard]] int EmmcGetCidFromSysfs(uint8_t* cid);

// Fills extCsd (EXT_CSD_SIZE bytes, whatever extCsdLen; a negative one is refused). Returns 0, or
// a non-zero status: -1, the MMC ioctl's own result, or the code of a refused copy. What extCsd
// holds is of no use then.
[[nodiscard]] int EmmcGetExtCsd(uint8_t* extCsd, int extCsdLen);
