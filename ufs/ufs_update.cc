// The update of a UFS device: package, identity, selection, download, trigger test, result. The
// run's dispatch calls it once. After a failure before the download nothing is sent to the device.
// After a failed download the trigger test runs all the same.
#include "ufs/ufs_update.h"

#include "platform/bounded.h"
#include "platform/heap_buffer.h"
#include "run/log/ffu_print.h"
#include "ufs/ufs_identity.h"
#include "ufs/ufs_selection.h"
#include "ufs/ufs_write_buffer.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The trigger test bypasses the page cache, so that its data reaches the storage device. Direct I/O
// needs an aligned buffer and transfers that are multiples of the device's block size.
constexpr char TRIGGER_FILE[] = "/splash2/test_ffu_trigger.tmp";
constexpr size_t TRIGGER_SIZE = 8192;
constexpr size_t TRIGGER_ALIGNMENT = 4096;
constexpr int TRIGGER_COUNT = 128;
constexpr unsigned TRIGGER_PAUSE = 5; // seconds

// Finds the size of the package at path: 1 to PACKAGE_SIZE_MAX bytes.
[[nodiscard]] int GetFwSize(const char* path, int32_t& ufsFwSize) {
    char realPath[PATH_MAX] = {};
    if (realpath(path, realPath) == nullptr) {
        ffu_print("%s,line=%d: get real path fail\n", __func__, 100);
        return -1;
    }
    if (access(realPath, F_OK) != 0) {
        ffu_print("%s,line=%d: ufsFwFilePath not exist!\n", __func__, 104);
        return -1;
    }
    const int fd = open(realPath, O_RDONLY);
    if (fd < 0) {
        ffu_print("%s,line=%d: could not open ufs firmware file %s (fd=%d)\n", __func__, 109,
                  realPath, fd);
        return -1;
    }
    const off64_t size = lseek64(fd, 0, SEEK_END);
    close(fd);
    if (size <= 0 || size > PACKAGE_SIZE_MAX) {
        return -1;
    }
    ufsFwSize = static_cast<int32_t>(size);
    ffu_print("%s,line=%d: ufsFwSize=0x%x\n", __func__, 118, static_cast<unsigned>(size));
    return 0;
}

// Reads the whole package at path, of size bytes, into package.
[[nodiscard]] int UfsFwRead(const char* path, uint8_t* package, int32_t size) {
    char realPath[PATH_MAX] = {};
    if (realpath(path, realPath) == nullptr) {
        ffu_print("%s,line=%d: get real path fail\n", __func__, 129);
        return -1;
    }
    const int fd = open(realPath, O_RDONLY);
    if (fd < 0) {
        ffu_print("%s,line=%d: could not open ufs firmware file %s (fd=%d)\n", __func__, 134, path,
                  fd);
        return -1;
    }
    const auto got = static_cast<int>(read(fd, package, static_cast<size_t>(size)));
    close(fd);
    if (got != size) {
        ffu_print("%s,line=%d: firmware file read error (ret=%d)\n", __func__, 139, got);
        return -1;
    }
    return 0;
}

void FileWriteForTrigger(uint8_t* testBufTrigger) {
    const int fd = open(TRIGGER_FILE, O_WRONLY | O_CREAT | O_DIRECT, 0755);
    if (fd < 0) {
        ffu_print("%s,line=%d: Open %s WR fail,Test Fail Exit!\n", __func__, 358, TRIGGER_FILE);
        return;
    }
    ffu_print("%s,line=%d: trigger test begin\n", __func__, 361);
    (void)memset_s(testBufTrigger, TRIGGER_SIZE, 'Z', TRIGGER_SIZE);
    for (int i = 0; i < TRIGGER_COUNT; i++) {
        const auto ret = static_cast<int>(write(fd, testBufTrigger, TRIGGER_SIZE));
        if (ret != static_cast<int>(TRIGGER_SIZE)) {
            ffu_print("%s,line=%d: trigger write error! ret = %d\n", __func__, 369, ret);
        }
    }
    (void)fsync(fd);
    close(fd);
}

// The data read is not compared: only the traffic matters.
void FileReadForTrigger(uint8_t* testBufTrigger) {
    const int fd = open(TRIGGER_FILE, O_RDONLY | O_CREAT | O_DIRECT, 0755);
    if (fd < 0) {
        ffu_print("%s,line=%d: Open %s RD fail,Test Fail Exit!\n", __func__, 384, TRIGGER_FILE);
        return;
    }
    for (int i = 0; i < TRIGGER_COUNT; i++) {
        const auto ret = static_cast<int>(read(fd, testBufTrigger, TRIGGER_SIZE));
        if (ret != static_cast<int>(TRIGGER_SIZE)) {
            ffu_print("%s,line=%d: trigger read error! ret = %d\n", __func__, 390, ret);
        }
    }
    close(fd);
    (void)sleep(TRIGGER_PAUSE);
}

void RemoveTriggerFile() {
    if (remove(TRIGGER_FILE) != 0) {
        ffu_print("%s,line=%d: remove trigger file error %s\n", __func__, 400, TRIGGER_FILE);
    }
}

// A failure of one part neither stops the others nor changes the result of the update.
void FfuFlashFileForTrigger() {
    void* aligned = nullptr;
    if (posix_memalign(&aligned, TRIGGER_ALIGNMENT, TRIGGER_SIZE) != 0) {
        ffu_print("%s,line=%d: memalign testBufTrigger fail\n", __func__, 411);
        return;
    }
    const HeapBuffer testBufTrigger(static_cast<uint8_t*>(aligned));
    FileWriteForTrigger(testBufTrigger.get());
    FileReadForTrigger(testBufTrigger.get());
    RemoveTriggerFile();
}

} // namespace

int UfsFfu(const char* ufsFwFile, const char* ufsBackupFile, int useDataDir, int useBackupFile) {
    UfsFwHeader device;
    if (memset_s(&device, sizeof(device), 0, sizeof(device)) != 0) {
        ffu_print("%s,line=%d: %s memset_s fail\n", __func__, 450, __func__);
        return -1;
    }
    if (ufsFwFile == nullptr || ufsBackupFile == nullptr) {
        ffu_print("%s,line=%d: Error: ufsFwFile or ufsBackupFile is NULL\n", __func__, 455);
        return -ENOENT;
    }
    const char* path = useBackupFile == 0 ? ufsFwFile : ufsBackupFile;
    int32_t size = 0;
    if (GetFwSize(path, size) != 0) {
        ffu_print("%s,line=%d: Get fw size error!\n", __func__, 461);
        return -ENOENT;
    }
    const HeapBuffer package(static_cast<uint8_t*>(calloc(static_cast<size_t>(size), 1)));
    if (package == nullptr) {
        ffu_print("%s,line=%d: could calloc buffer (ufsFwSize=%d)\n", __func__, 466, size);
        return -ENOENT;
    }
    if (UfsFwRead(path, package.get(), size) != 0) {
        ffu_print("%s,line=%d: Read ufs fw error!\n", __func__, 470);
        return -ENOENT;
    }
    if (GetUfsLocalDevInfo(device) != 0) {
        ffu_print("%s,line=%d: get ufs local device info fail!\n", __func__, 475);
        return -ENOENT;
    }
    ffu_print("%s,line=%d: get ufs local device info success!\n", __func__, 479);
    if (GetUfsFwFromFwBin(device, package.get(), size, useDataDir) != 0) {
        ffu_print("%s,line=%d: ufs not need update...\n", __func__, 481);
        return -ENOENT;
    }
    return DoUfsFfu(device, useDataDir);
}

int DoUfsFfu(const UfsFwHeader& device, int useDataDir) {
    const int code = ufs_ffu_write_buffer(useDataDir, device.ufsMid);
    FfuFlashFileForTrigger();
    ffu_print("%s,line=%d: ufs firmware update ret code = %d\n", __func__, 431, code);
    if (code != 0) {
        ffu_print("%s,line=%d: ufs firmware update fail...\n", __func__, 435);
        return -1;
    }
    ffu_print("%s,line=%d: ufs firmware update success...\n", __func__, 433);
    return 0;
}
