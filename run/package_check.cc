// The pre-check of the firmware package. It selects the entry by the product name alone. The run
// calls it before the update. It only reads: a failure leaves nothing behind but its messages.
#include "run/package_check.h"

#include "platform/bounded.h"
#include "run/log/system_log.h"
#include "run/step.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The routines that messages name when one of their helpers logs them.
constexpr char PARSE_FW_BIN[] = "ParseFwBin";
constexpr char CHECK_FW_BIN[] = "CheckFwBin";

// step is the routine that messages name.
[[nodiscard]] int CopyRevs(const char* step, const uint8_t* rev, size_t revSize,
                           const uint8_t* baseRevs, PackageRevs& revs) {
    if (memcpy_s(revs.fwFileRev, REV_SIZE, rev, revSize) != 0) {
        SYSTEM_LOG("FFU process %s: memcpy_s fwFileRev error!\n", step);
        return PARSE_FAILED;
    }
    revs.fwFileRev[revSize] = '\0';
    if (memcpy_s(revs.legalBaseRev, BASE_REVS_SIZE, baseRevs, BASE_REVS_SIZE) != 0) {
        SYSTEM_LOG("FFU process %s: memcpy_s legalBaseRev error!\n", step);
        return PARSE_FAILED;
    }
    return 0;
}

[[nodiscard]] size_t FindEmmcEntryByPnm(const uint8_t* package, size_t size, const char* pnm) {
    // The scan leaves out the last offset at which a header fits: only an empty body can follow.
    const size_t scanned = size == 0 ? 0 : size - 1;
    for (size_t p = FindEmmcEntry(package, scanned, 0); p < scanned;
         p = FindEmmcEntry(package, scanned, p + 1)) {
        const auto& entry = *reinterpret_cast<const EmmcFwHeader*>(package + p);
        if (memcmp(entry.emmcPnm, pnm, sizeof(entry.emmcPnm)) == 0 &&
            BodyFits(size, p, sizeof(entry), ReadBigEndian32(entry.emmcFwSize))) {
            return p;
        }
    }
    return size;
}

[[nodiscard]] size_t FindUfsEntryByPnm(const uint8_t* package, size_t size, const char* pnm) {
    for (size_t p = FindUfsEntry(package, size, 0); p < size;
         p = FindUfsEntry(package, size, p + 1)) {
        const auto& entry = *reinterpret_cast<const UfsFwHeader*>(package + p);
        if (memcmp(entry.ufsPnm, pnm, sizeof(entry.ufsPnm)) == 0 &&
            BodyFits(size, p, sizeof(entry), ReadBigEndian32(entry.ufsFwSize))) {
            return p;
        }
    }
    return size;
}

[[nodiscard]] int GetEmmcRev(const DeviceInfo& device, const uint8_t* package, size_t size,
                             PackageRevs& revs) {
    const size_t p = FindEmmcEntryByPnm(package, size, device.pnm);
    if (p == size) {
        return ENTRY_NOT_FOUND;
    }
    revs.entry = p;
    const auto& entry = *reinterpret_cast<const EmmcFwHeader*>(package + p);
    return CopyRevs(__func__, entry.emmcFwRev, sizeof(entry.emmcFwRev), entry.legalBaseRev, revs);
}

[[nodiscard]] int GetUfsRev(const DeviceInfo& device, const uint8_t* package, size_t size,
                            PackageRevs& revs) {
    const size_t p = FindUfsEntryByPnm(package, size, device.pnm);
    if (p == size) {
        return ENTRY_NOT_FOUND;
    }
    revs.entry = p;
    const auto& entry = *reinterpret_cast<const UfsFwHeader*>(package + p);
    return CopyRevs(__func__, entry.ufsProductRevisionLevel, sizeof(entry.ufsProductRevisionLevel),
                    entry.legalBaseRev, revs);
}

// Maps the package that fd is open on and fills revs. Its messages name ParseFwBin.
[[nodiscard]] int ParseOpenFwBin(int fd, const DeviceInfo& device, PackageRevs& revs) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        SYSTEM_LOG("FFU process %s: fstat fw file failed. %s\n", PARSE_FW_BIN, strerror(errno));
        return PARSE_FAILED;
    }
    if (status.st_size == 0) {
        SYSTEM_LOG("FFU process %s: No fw include, no need to ffu! \n", PARSE_FW_BIN);
        return ENTRY_NOT_FOUND;
    }
    const auto size = static_cast<size_t>(status.st_size);
    errno = EFBIG; // unless mmap says why
    void* mapped = status.st_size > PACKAGE_SIZE_MAX
                       ? MAP_FAILED
                       : mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (mapped == MAP_FAILED) {
        SYSTEM_LOG("FFU process %s: map fw file failed! %s\n", PARSE_FW_BIN, strerror(errno));
        return PARSE_FAILED;
    }
    const int result = GetRevs(device, static_cast<const uint8_t*>(mapped), size, revs);
    munmap(mapped, size);
    return result;
}

[[nodiscard]] int ParseFwBin(const char* path, const DeviceInfo& device, PackageRevs& revs) {
    const int fd = open(path, O_RDONLY);
    if (fd < 0) {
        SYSTEM_LOG("FFU process %s: Open FW file failed! %s\n", __func__, strerror(errno));
        return PARSE_FAILED;
    }
    const int result = ParseOpenFwBin(fd, device, revs);
    close(fd);
    return result;
}

} // namespace

int GetRevs(const DeviceInfo& device, const uint8_t* package, size_t size, PackageRevs& revs) {
    return device.type == DEVICE_EMMC ? GetEmmcRev(device, package, size, revs)
                                      : GetUfsRev(device, package, size, revs);
}

bool IsSameRev(const char* localFwRev, const char* fwFileRev) {
    return memcmp(fwFileRev, localFwRev, strlen(localFwRev)) == 0;
}

bool CheckBaseRev(const DeviceInfo& device, const uint8_t* legalBaseRev) {
    const uint8_t* end = legalBaseRev + BASE_REVS_SIZE;
    if (std::all_of(legalBaseRev, end, [](uint8_t byte) { return byte == 0xFF; })) {
        SYSTEM_LOG("FFU process %s: Revision validity check is no necessary,exit!\n", __func__);
        return true;
    }
    SYSTEM_LOG("FFU process %s: Revision validity check is necessary\n", __func__);
    const size_t revSize = device.type == DEVICE_EMMC ? EMMC_REV_SIZE : UFS_REV_SIZE;
    for (const uint8_t* slot = legalBaseRev; slot < end; slot += revSize) {
        if (memcmp(slot, device.localFwRev, revSize) == 0) {
            SYSTEM_LOG("FFU process %s: current rev is valid for update.\n", __func__);
            return true;
        }
    }
    return false;
}

int JudgeRevs(const DeviceInfo& device, int parsed, const PackageRevs& revs) {
    if (parsed == ENTRY_NOT_FOUND) {
        SYSTEM_LOG("FFU process %s: pnm not found in fw file. no need to update. \n", CHECK_FW_BIN);
        return STEP_NOTHING_TO_DO;
    }
    if (parsed != 0) {
        SYSTEM_LOG("FFU process %s: Parse rev in fw file failed!\n", CHECK_FW_BIN);
        return STEP_FAILED;
    }
    if (IsSameRev(device.localFwRev, revs.fwFileRev)) {
        SYSTEM_LOG("FFU process %s: local fw rev %s is as new as fwBin\n", CHECK_FW_BIN,
                   device.localFwRev);
        return STEP_NOTHING_TO_DO;
    }
    SYSTEM_LOG("FFU process %s: pnm:%s current:%s, fwBinRev:%s\n", CHECK_FW_BIN, device.pnm,
               device.localFwRev, revs.fwFileRev);
    if (!CheckBaseRev(device, revs.legalBaseRev)) {
        SYSTEM_LOG("FFU process %s: local fw rev is not valid for FFU. Skip updating.\n",
                   CHECK_FW_BIN);
        return STEP_NOTHING_TO_DO;
    }
    return STEP_DONE;
}

int CheckFwBin(const DeviceInfo& device, PackageRevs& revs) {
    const char* path = device.type == DEVICE_EMMC ? EMMC_FW_PACKAGE : UFS_FW_PACKAGE;
    if (access(path, F_OK) != 0) {
        SYSTEM_LOG("FFU process %s: fw file not found, exit.\n", __func__);
        return STEP_NOTHING_TO_DO;
    }
    return JudgeRevs(device, ParseFwBin(path, device, revs), revs);
}
