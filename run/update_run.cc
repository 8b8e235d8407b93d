// The course of a run: state directory, begin flag, device, package check, record, update, outcome,
// end flag. main calls it. A begin flag that stays, without an end flag, tells that a run stopped
// before its regular end.
#include "run/update_run.h"

#include "emmc/emmc_register.h"
#include "platform/bounded.h"
#include "run/log/system_log.h"
#include "run/package_check.h"
#include "run/result_record.h"
#include "run/run_values.h"
#include "run/update_dispatch.h"
#include "ufs/ufs_identity.h"
#include "ufs/ufs_write_buffer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char PNM_NODE[] = "/proc/bootdevice/product_name";
constexpr mode_t STATE_DIR_MODE = 0755;
constexpr size_t EMMC_PNM_SIZE = sizeof(EmmcFwHeader::emmcPnm);

[[nodiscard]] int CreateResultDir() {
    if (access(STATE_DIR, F_OK) == 0 || mkdir(STATE_DIR, STATE_DIR_MODE) == 0) {
        return 0;
    }
    SYSTEM_LOG("FFU process %s: mkdir for result file failed! errno:%d\n", __func__, errno);
    return -1;
}

// step names the routine that moves the flag. A flag that was not there is no failure.
void RemoveFlag(const char* step, const char* path) {
    const int status = remove(path);
    if (status != 0) {
        SYSTEM_LOG("FFU process %s: remove %s: %d\n", step, path, status);
    }
}

[[nodiscard]] int CreateFlag(const char* step, const char* path) {
    const int fd = open(path, O_RDWR | O_CREAT, STATE_FILE_MODE);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: open %s error %d!\n", step, path, fd);
        return -1;
    }
    close(fd);
    return 0;
}

[[nodiscard]] int BeginFlag() {
    RemoveFlag(__func__, END_FLAG);
    return CreateFlag(__func__, BEGIN_FLAG);
}

[[nodiscard]] int EndFlag() {
    RemoveFlag(__func__, BEGIN_FLAG);
    return CreateFlag(__func__, END_FLAG);
}

// Returns whether a storage device was found; UFS comes first.
[[nodiscard]] bool DetectDevice(char& type) {
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

[[nodiscard]] int GetPnm(DeviceInfo& device) {
    const int fd = open(PNM_NODE, O_RDONLY);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: Open PNM_NODE failed! %s\n", __func__, strerror(errno));
        return -1;
    }
    const ssize_t count =
        read(fd, device.pnm, device.type == DEVICE_EMMC ? EMMC_PNM_SIZE : PNM_SIZE);
    if (count < 0) {
        SYSTEM_LOG("FFU process %s: Read product name failed! %s\n", __func__, strerror(errno));
    }
    close(fd);
    if (count < 0) {
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
    const int fd = open(UFS_REV_NODE, O_RDONLY);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: Open UFS product rev node fail! %s\n", __func__,
                   strerror(errno));
        return -1;
    }
    const ssize_t count = read(fd, device.localFwRev, UFS_REV_SIZE);
    const bool isWhole = count == static_cast<ssize_t>(UFS_REV_SIZE);
    if (!isWhole) {
        SYSTEM_LOG("FFU process %s: Read UFS product rev fail! %s\n", __func__, strerror(errno));
    }
    close(fd);
    if (!isWhole) {
        return -1;
    }
    device.localFwRev[UFS_REV_SIZE] = '\0';
    return 0;
}

// device holds its type already.
[[nodiscard]] int GetDeviceInfo(DeviceInfo& device) {
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

// Attempts the update to the package's revision, once. Returns the verdict of the run.
[[nodiscard]] int RecordAndUpdate(const DeviceInfo& device, const char* fwFileRev) {
    int step = CheckResultFile(fwFileRev);
    if (step != STEP_DONE) {
        return step;
    }
    step = WriteResultFile(device.pnm, device.localFwRev, fwFileRev);
    if (step != STEP_DONE) {
        return step;
    }
    step = DoFfu(device.type);
    UpdateResultFlag(step, fwFileRev);
    return step;
}

} // namespace

int UpdateRun() {
    if (CreateResultDir() != 0) {
        return -1;
    }
    if (BeginFlag() != 0) {
        return 0;
    }
    DeviceInfo device = {};
    if (!DetectDevice(device.type) || GetDeviceInfo(device) != 0) {
        return 0;
    }
    char fwFileRev[REV_SIZE + 1] = {};
    int step = CheckFwBin(device, fwFileRev);
    if (step == STEP_DONE) {
        step = RecordAndUpdate(device, fwFileRev);
    }
    if (step == STEP_FAILED) {
        return 0;
    }
    return EndFlag();
}
