// Finds the storage device and reads its product name and its running revision. The run calls it
// after setting the begin flag, which stays when this step fails. It only reads.
#include "run/device_info.h"

#include "emmc/emmc_device.h"
#include "emmc/emmc_register.h"
#include "platform/bootdevice.h"
#include "platform/bounded.h"
#include "run/log/system_log.h"
#include "ufs/ufs_write_buffer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

[[nodiscard]] int GetPnm(DeviceInfo& device) {
    const int fd = open(PNM_NODE, O_RDONLY);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: Open PNM_NODE failed! %s\n", __func__, strerror(errno));
        return -1;
    }
    const ssize_t count =
        read(fd, device.pnm, device.type == DEVICE_EMMC ? EMMC_PNM_SIZE : PNM_SIZE);
    const int readError = errno;
    close(fd);
    if (count < 0) {
        SYSTEM_LOG("FFU process %s: Read product name failed! %s\n", __func__, strerror(readError));
        return -1;
    }
    device.pnm[count] = '\0';
    return 0;
}

[[nodiscard]] int GetCurrentRevEmmc(DeviceInfo& device) {
    uint8_t extCsd[EXT_CSD_SIZE] = {};
    int status = EmmcGetExtCsd(extCsd, EXT_CSD_SIZE);
    if (status != 0) {
        SYSTEM_LOG("FFU process %s: eMMC get extcsd failed! Status:%d\n", __func__, status);
        return -1;
    }
    status =
        memcpy_s(device.localFwRev, REV_SIZE, extCsd + EXT_CSD_FIRMWARE_VERSION, EMMC_REV_SIZE);
    if (status != 0) {
        SYSTEM_LOG("FFU process %s: Get eMMC FW rev failed! Status:%d\n", __func__, status);
        return -1;
    }
    device.localFwRev[EMMC_REV_SIZE] = '\0';
    return 0;
}

[[nodiscard]] int GetCurrentRevUfs(DeviceInfo& device) {
    const int fd = open(REV_NODE, O_RDONLY);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: Open UFS product rev node fail! %s\n", __func__,
                   strerror(errno));
        return -1;
    }
    const ssize_t count = read(fd, device.localFwRev, UFS_REV_SIZE);
    const int readError = errno;
    close(fd);
    if (count != static_cast<ssize_t>(UFS_REV_SIZE)) {
        SYSTEM_LOG("FFU process %s: Read UFS product rev fail! %s\n", __func__,
                   strerror(readError));
        return -1;
    }
    device.localFwRev[UFS_REV_SIZE] = '\0';
    return 0;
}

} // namespace

bool DetectDevice(char& type) {
    if (access(UFS_BLOCK_NODE, F_OK) == 0) {
        type = DEVICE_UFS;
        return true;
    }
    if (access(EMMC_BLOCK_NODE, F_OK) == 0) {
        type = DEVICE_EMMC;
        return true;
    }
    return false;
}

int GetDeviceInfo(DeviceInfo& device) {
    if (GetPnm(device) != 0) {
        SYSTEM_LOG("FFU process %s: Get local product name failed!\n", __func__);
        return -1;
    }
    const int status =
        device.type == DEVICE_EMMC ? GetCurrentRevEmmc(device) : GetCurrentRevUfs(device);
    if (status != 0) {
        SYSTEM_LOG("FFU process %s: Get local fw rev failed!\n", __func__);
    }
    return status;
}
