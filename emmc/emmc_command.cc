// Sends a firmware image to the eMMC device: one write to the kernel's FFU node (GKI mode), or a
// download and an install request (normal mode). The eMMC update calls it. After a failed download
// no install request is sent. What a failed install leaves depends on the device.
#include "emmc/emmc_command.h"

#include "emmc/emmc_device.h"
#include "run/log/ffu_print.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// Opcode values of the platform's eMMC driver for the two steps of an update. They are not MMC
// commands.
constexpr unsigned FFU_DOWNLOAD = 302;
constexpr unsigned FFU_INSTALL = 303;

constexpr int GKI_WRITE_RETRIES = 3;

// The routine that messages name when one of its helpers logs them.
constexpr char DO_EMMC50_FFU[] = "DoEmmc50Ffu";

[[nodiscard]] int Ffu50DownloadImage(int fd, const uint8_t* fwBody, uint32_t fwBodySize) {
    if (!FitsOneDownload(fwBodySize)) {
        ffu_print("%s,line=%d: (ffu50) firmware file size error\n", __func__, 315);
        return -1;
    }
    mmc_ioc_cmd request;
    if (MakeMmcRequest(1, FFU_DOWNLOAD, DownloadBlocks(fwBodySize), fwBody, request) != 0) {
        ffu_print("%s,line=%d: TOLMA: SFAE FUNCTION ERROR\n", __func__, 320);
        return -1;
    }
    const int result = ioctl(fd, MMC_IOC_CMD, &request);
    if (result != 0) {
        ffu_print("%s,line=%d: emmc ioctl error (ffu50, ret=%d)\n", __func__, 332, result);
    }
    return result;
}

[[nodiscard]] int Ffu50Install(int fd) {
    mmc_ioc_cmd request;
    if (MakeMmcRequest(0, FFU_INSTALL, 0, nullptr, request) != 0) {
        ffu_print("%s,line=%d: TOLMA: SFAE FUNCTION ERROR\n", __func__, 342);
        return -1;
    }
    const int result = ioctl(fd, MMC_IOC_CMD, &request);
    if (result != 0) {
        ffu_print("%s,line=%d: (ffu50) emmc ioctl error (ffu50, ret=%d)\n", __func__, 353, result);
    }
    return result;
}

[[nodiscard]] int UpdateByRequests(int fd, const uint8_t* fwBody, uint32_t fwBodySize,
                                   int downloadOnly) {
    ffu_print("%s,line=%d: emmc firmware normal mode \n", DO_EMMC50_FFU, 389);
    int status = Ffu50DownloadImage(fd, fwBody, fwBodySize);
    if (status != 0) {
        ffu_print("%s,line=%d: eMMC5.0 ffu download image fail\n", DO_EMMC50_FFU, 392);
        return status;
    }
    ffu_print("%s,line=%d: eMMC5.0 ffu download image sucessful\n", DO_EMMC50_FFU, 396);
    if (downloadOnly != 0) {
        return 0;
    }
    status = Ffu50Install(fd);
    if (status != 0) {
        ffu_print("%s,line=%d: eMMC5.0 ffu install image fail\n", DO_EMMC50_FFU, 403);
        return status;
    }
    ffu_print("%s,line=%d: eMMC5.0 ffu install image sucessful\n", DO_EMMC50_FFU, 405);
    return 0;
}

[[nodiscard]] int UpdateByKernel(int fd, const uint8_t* fwBody, uint32_t fwBodySize) {
    ffu_print("%s,line=%d: emmc firmware GKI mode \n", DO_EMMC50_FFU, 408);
    ssize_t count = -1;
    for (int retries = GKI_WRITE_RETRIES; count < 0 && retries >= 0; retries--) {
        count = write(fd, fwBody, fwBodySize);
        if (count < 0) {
            ffu_print("%s,line=%d: emmc firmware GKI error %s, retry %d\n", DO_EMMC50_FFU, 415,
                      strerror(errno), retries);
        }
    }
    if (count != static_cast<ssize_t>(fwBodySize)) {
        return -1;
    }
    ffu_print("%s,line=%d: eMMC5.0 ffu sucessful\n", DO_EMMC50_FFU, 418);
    return 0;
}

} // namespace

bool FitsOneDownload(uint32_t fwBodySize) {
    return fwBodySize <= NORMAL_MODE_IMAGE_MAX;
}

uint32_t DownloadBlocks(uint32_t fwBodySize) {
    return (fwBodySize + MMC_BLOCK_SIZE - 1) / MMC_BLOCK_SIZE;
}

int DoEmmc50Ffu(const uint8_t* fwBody, uint32_t fwBodySize, int downloadOnly) {
    const bool gkiMode = IsGkiMode();
    const char* node = gkiMode ? EMMC_FFU_NODE : EMMC_BLOCK_NODE;
    if (fwBody == nullptr) {
        ffu_print("%s,line=%d: %s args have NULL\n", __func__, 373, __func__);
        return -1;
    }
    char path[PATH_MAX] = {};
    if (realpath(node, path) == nullptr) {
        ffu_print("%s,line=%d: %s: get realpath %s fail\n", __func__, 378, __func__, node);
        return -1;
    }
    const int fd = open(path, O_RDWR);
    if (fd < 0) {
        ffu_print("%s,line=%d: Could open %s\n", __func__, 384, node);
        return -1;
    }
    const int status = gkiMode ? UpdateByKernel(fd, fwBody, fwBodySize)
                               : UpdateByRequests(fd, fwBody, fwBodySize, downloadOnly);
    close(fd);
    return status;
}
