// Reads the two eMMC registers with the device's identity and running revision. The layouts are
// JEDEC's (JESD84).
#pragma once

#include <cstdint>

constexpr int CID_SIZE = 16; // 128 bits, byte 0 the most significant
constexpr int CID_MID = 0;   // manufacturer
constexpr int CID_PNM = 3;   // product name, six characters
constexpr int CID_PRV = 9;   // product revision
constexpr int CID_PSN = 10;  // serial number, four bytes

constexpr int EXT_CSD_SIZE = 512; // byte i is EXT_CSD byte i

constexpr int EXT_CSD_REV = 192;              // structure revision
constexpr uint8_t EXT_CSD_REV_5_0 = 7;        // its value for eMMC 5.0
constexpr int EXT_CSD_FIRMWARE_VERSION = 254; // eight bytes, 254 to 261

// Fills cid (CID_SIZE bytes) from the sysfs node. Returns 0, or -1; cid is unchanged then.
[[nodiscard]] int EmmcGetCidFromSysfs(uint8_t* cid);

// Fills extCsd, which must have EXT_CSD_SIZE bytes. A negative extCsdLen is refused, any other
// value is ignored. Returns 0, or a non-zero status: -1, the result of the MMC ioctl, or the code
// of a refused copy; extCsd must not be used then.
[[nodiscard]] int EmmcGetExtCsd(uint8_t* extCsd, int extCsdLen);
