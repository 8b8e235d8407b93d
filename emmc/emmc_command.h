// Downloads a firmware image to the eMMC device and has it installed.
#pragma once

#include <cstdint>

// The largest image, in bytes, that normal mode downloads. GKI mode has no limit.
constexpr uint32_t NORMAL_MODE_IMAGE_MAX = 0x100000;

// Whether normal mode can download an image of fwBodySize bytes.
[[nodiscard]] bool FitsOneDownload(uint32_t fwBodySize);

// Returns how many blocks of MMC_BLOCK_SIZE bytes normal mode sends for an image that fits. The
// last block may reach beyond the image.
[[nodiscard]] uint32_t DownloadBlocks(uint32_t fwBodySize);

// Downloads and installs fwBody (fwBodySize bytes, borrowed). Normal mode sends whole blocks: the
// bytes up to the end of the body's last block must be readable. In normal mode a non-zero
// downloadOnly leaves out the install; GKI mode ignores it.
// Returns 0, -1 on a failure found here, or the non-zero result of the MMC ioctl that failed.
[[nodiscard]] int DoEmmc50Ffu(const uint8_t* fwBody, uint32_t fwBodySize, int downloadOnly);
