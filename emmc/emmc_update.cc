// The eMMC side of an update: reads the package, describes the device, selects the device's entry
// and downloads it. The dispatch calls it once a run. Before the download it changes nothing.
#include "emmc/emmc_update.h"

#include "emmc/emmc_command.h"
#include "emmc/emmc_device.h"
#include "emmc/emmc_print.h"
#include "emmc/emmc_register.h"
#include "platform/bounded.h"
#include "platform/heap_buffer.h"
#include "run/log/ffu_print.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Returns the package's size in bytes, 1 or more. Returns -1 on a failure, or when the package is
// empty or has 2 GiB or more.
[[nodiscard]] int32_t EmmcFwGetSize(const char* path) {
    const int fd = open(path, O_RDONLY);
    if (fd < 0) {
        ffu_print("%s,line=%d: could not open emmc firmware file %s (fd=%d)\n", __func__, 84, path,
                  fd);
        return -1;
    }
    const off64_t end = lseek64(fd, 0, SEEK_END);
    close(fd);
    const auto size = static_cast<int32_t>(end);
    if (size <= 0 || end > PACKAGE_SIZE_MAX) {
        ffu_print("%s,line=%d: %s lseek %s size fail %d...\n", __func__, 90, __func__, path, size);
        return -1;
    }
    return size;
}

[[nodiscard]] int EmmcFwRead(const char* path, uint8_t* buffer, int32_t size) {
    const int fd = open(path, O_RDONLY);
    if (fd < 0) {
        ffu_print("%s,line=%d: could not open emmc firmware file %s (fd=%d)\n", __func__, 105, path,
                  fd);
        return -1;
    }
    const off_t start = lseek(fd, 0, SEEK_SET);
    const auto count =
        static_cast<int>(start < 0 ? -1 : read(fd, buffer, static_cast<size_t>(size)));
    close(fd);
    if (start < 0) {
        ffu_print("%s,line=%d: %s lseek failed\n", __func__, 110, __func__);
        return -1;
    }
    if (count != size) {
        ffu_print("%s,line=%d: firmware file read error (status=%d)\n", __func__, 118, count);
        return -1;
    }
    return 0;
}

// Builds the device record from the two registers.
[[nodiscard]] int FillEmmcHeader(const uint8_t* cid, const uint8_t* extCsd, EmmcFwHeader& header) {
    const bool copied =
        memcpy_s(header.emmcMagic, sizeof(header.emmcMagic), EMMC_MAGIC, MAGIC_SIZE) == 0 &&
        memcpy_s(&header.emmcMid, sizeof(header.emmcMid), cid + CID_MID, 1) == 0 &&
        memcpy_s(header.emmcPnm, sizeof(header.emmcPnm), cid + CID_PNM, sizeof(header.emmcPnm)) ==
            0 &&
        memcpy_s(&header.emmcPrv, sizeof(header.emmcPrv), cid + CID_PRV, 1) == 0 &&
        memcpy_s(header.emmcPsn, sizeof(header.emmcPsn), cid + CID_PSN, sizeof(header.emmcPsn)) ==
            0 &&
        memcpy_s(&header.emmcRev, sizeof(header.emmcRev), extCsd + EXT_CSD_REV, 1) == 0 &&
        memcpy_s(header.emmcFwRev, sizeof(header.emmcFwRev), extCsd + EXT_CSD_FIRMWARE_VERSION,
                 EMMC_REV_SIZE) == 0;
    return copied ? 0 : -1;
}

[[nodiscard]] int GetEmmcHeader(EmmcFwHeader& fwHeader) {
    uint8_t cid[CID_SIZE] = {};
    if (EmmcGetCidFromSysfs(cid) != 0) {
        ffu_print("%s,line=%d: get emmc cid register value failed by sysfs\n", __func__, 132);
        return -1;
    }
    uint8_t extCsd[EXT_CSD_SIZE] = {};
    if (EmmcGetExtCsd(extCsd, EXT_CSD_SIZE) != 0) {
        ffu_print("%s,line=%d: get emmc extcsd register value failed\n", __func__, 138);
        return -1;
    }
    if (FillEmmcHeader(cid, extCsd, fwHeader) != 0) {
        ffu_print("%s,line=%d: %s copy to EmmcFwHeader fail\n", __func__, 150, __func__);
        return -1;
    }
    PrintEmmcFwHeader("emmc device", fwHeader);
    return 0;
}

} // namespace

int EmmcFfu(const char* emmcFwFile, const char* emmcFwBackupFile, int downloadOnly,
            int useBackupFile) {
    if (emmcFwFile == nullptr || emmcFwBackupFile == nullptr) {
        ffu_print("%s,line=%d: Error: emmcFwFile or emmcFwBackupFile is NULL\n", __func__, 228);
        return -ENOENT;
    }
    EmmcFwHeader fwHeader;
    if (memset_s(&fwHeader, sizeof(fwHeader), 0, sizeof(fwHeader)) != 0) {
        ffu_print("%s,line=%d: fwHeader memset_s 0 fail...\n", __func__, 233);
        return -1;
    }
    const char* path = useBackupFile != 0 ? emmcFwBackupFile : emmcFwFile;
    if (access(path, F_OK) != 0) {
        ffu_print("%s,line=%d: emmc firmware not exist, no need to update...\n", __func__, 239);
        return -ENOENT;
    }
    const int32_t size = EmmcFwGetSize(path);
    if (size < 0) {
        return -1;
    }
    // The download sends whole blocks: the last one may go beyond the package, into zeros.
    const size_t paddedSize = static_cast<size_t>(size) + MMC_BLOCK_SIZE - 1;
    const HeapBuffer fwFileBuffer(static_cast<uint8_t*>(calloc(paddedSize, 1)));
    if (fwFileBuffer == nullptr) {
        ffu_print("%s,line=%d: calloc fwFileBuffer fail...\n", __func__, 250);
        return -1;
    }
    if (EmmcFwRead(path, fwFileBuffer.get(), size) != 0) {
        ffu_print("%s,line=%d: read emmc firmware fail...\n", __func__, 255);
        return -1;
    }
    ffu_print("%s,line=%d: %s read\n", __func__, 260, path);
    if (GetEmmcHeader(fwHeader) != 0) {
        ffu_print("%s,line=%d: get emmc device header fail...\n", __func__, 263);
        return -1;
    }
    ffu_print("%s,line=%d: get emmc device header success...\n", __func__, 267);
    const uint8_t* fwBody = nullptr;
    uint32_t fwBodySize = 0;
    int status = EmmcFwhdrCheck(fwHeader, fwFileBuffer.get(), size, fwBody, fwBodySize);
    if (status != 0) {
        return status;
    }
    ffu_print("%s,line=%d: emmc need update...\n", __func__, 273);
    status = DoEmmcFfu(fwHeader.emmcRev, fwBody, fwBodySize, downloadOnly);
    if (status == 0) {
        ffu_print("%s,line=%d: emmc firmware update sucess...\n", __func__, 277);
    } else {
        ffu_print("%s,line=%d: emmc firmware update fail...\n", __func__, 279);
    }
    return status;
}

bool EmmcEntryMatches(const EmmcFwHeader& device, const EmmcFwHeader& entry) {
    return memcmp(device.emmcMagic, entry.emmcMagic, sizeof(entry.emmcMagic)) == 0 &&
           device.emmcMid == entry.emmcMid &&
           memcmp(device.emmcPnm, entry.emmcPnm, sizeof(entry.emmcPnm)) == 0 &&
           device.emmcRev == entry.emmcRev;
}

int EmmcFwhdrCheck(const EmmcFwHeader& fwHeader, const uint8_t* fwFileBuffer, int32_t size,
                   const uint8_t*& fwBody, uint32_t& fwBodySize) {
    const size_t packageSize = size < 1 ? 0 : static_cast<size_t>(size);
    int fwNum = 0;
    for (size_t p = FindEmmcEntry(fwFileBuffer, packageSize, 0); p < packageSize;
         p = FindEmmcEntry(fwFileBuffer, packageSize, p + 1)) {
        const auto& entry = *reinterpret_cast<const EmmcFwHeader*>(fwFileBuffer + p);
        const uint32_t bodySize = ReadBigEndian32(entry.emmcFwSize);
        fwNum++;
        ffu_print("%s,line=%d: emmc fw find, fwNum=%d, fwSize=%d\n", __func__, 179, fwNum,
                  static_cast<int>(bodySize));
        PrintEmmcFwHeader("emmc fw", entry);
        if (!EmmcEntryMatches(fwHeader, entry) ||
            !BodyFits(packageSize, p, sizeof(entry), bodySize)) {
            continue;
        }
        fwBody = fwFileBuffer + p + sizeof(entry);
        fwBodySize = bodySize;
        ffu_print("%s,line=%d: fwbin file have fwinfo match current device\n", __func__, 184);
        if (memcmp(fwHeader.emmcFwRev, entry.emmcFwRev, sizeof(entry.emmcFwRev)) == 0) {
            ffu_print("%s,line=%d: fwRevGet equal fwRevBase, no need to update\n", __func__, 194);
            return -ENOENT;
        }
        return 0;
    }
    ffu_print("%s,line=%d: fwbin file not match, no need to update\n", __func__, 198);
    return -ENOENT;
}

bool IsEmmc50OrLater(uint8_t emmcRev) {
    return emmcRev >= EXT_CSD_REV_5_0;
}

int DoEmmcFfu(uint8_t emmcRev, const uint8_t* fwBody, uint32_t fwBodySize, int downloadOnly) {
    if (!IsEmmc50OrLater(emmcRev)) {
        ffu_print("%s,line=%d: emmc revision error (emmcRev=%d)\n", __func__, 210, emmcRev);
        return -1;
    }
    ffu_print("%s,line=%d: emmc 5.0 or higher do firmware update\n", __func__, 207);
    return DoEmmc50Ffu(fwBody, fwBodySize, downloadOnly);
}
