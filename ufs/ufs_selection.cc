// Selects the package entry for the local UFS device, compares revisions and saves the entry's
// body. The UFS update calls it before the download. After a failure, or when the entry is not
// newer, a body file may be left, whole or in part. It is not downloaded.
#include "ufs/ufs_selection.h"

#include "run/log/ffu_print.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

namespace {

// The routine that messages name when one of its helpers logs them.
constexpr char GET_UFS_FW_FROM_FW_BIN[] = "GetUfsFwFromFwBin";

bool IsBlank(uint8_t character) {
    return character == ' ' || character == '\r' || character == '\n' || character == '\0';
}

bool PnmCharactersAgree(uint8_t device, uint8_t entry) {
    return device == entry || IsBlank(device) || IsBlank(entry);
}

// Writes the body to the body file and replaces an old one. No sync: the same run reads it back.
[[nodiscard]] int SaveFwBodyToFile(const uint8_t* package, uint32_t ufsCurrentFwOffset,
                                   uint32_t ufsCurrentFwSize, int useDataDir) {
    const char* path = UfsFwBodyPath(useDataDir);
    if (unlink(path) == -1) {
        ffu_print("%s,line=%d: %s unlink %s failed, maybe not exist\n", __func__, 268, __func__,
                  path);
    }
    const int fd = creat(path, 0777);
    if (fd < 0) {
        ffu_print("%s,line=%d: can't create %s\n", __func__, 273, path);
        return -1;
    }
    const ssize_t written = write(fd, package + ufsCurrentFwOffset, ufsCurrentFwSize);
    close(fd);
    if (written != static_cast<ssize_t>(ufsCurrentFwSize)) {
        ffu_print("%s,line=%d: wirte UFS_FW_BODY_TMP fail\n", __func__, 279);
        return -1;
    }
    ffu_print("%s,line=%d: wirte UFS_FW_BODY_TMP success\n", __func__, 282);
    return 0;
}

} // namespace

const char* UfsFwBodyPath(int useDataDir) {
    return useDataDir != 0 ? "/data/vendor/fw/ufs_fw_body.bin" : "/tmp/ufs_fw_body.bin";
}

bool UfsEntryMatches(const UfsFwHeader& device, const UfsFwHeader& entry) {
    return memcmp(device.ufsMagic, entry.ufsMagic, sizeof(device.ufsMagic)) == 0 &&
           memcmp(device.ufsMid, entry.ufsMid, sizeof(device.ufsMid)) == 0 &&
           std::equal(std::begin(device.ufsPnm), std::end(device.ufsPnm), std::begin(entry.ufsPnm),
                      PnmCharactersAgree);
}

int FwVerCheck(const UfsFwHeader& device, const UfsFwHeader& entry) {
    const int order =
        memcmp(device.ufsProductRevisionLevel, entry.ufsProductRevisionLevel, UFS_REV_SIZE);
    if (order > 0) {
        ffu_print("%s,line=%d: can not update fw to a lower fw_rev\n", __func__, 248);
        return -1;
    }
    if (order == 0) {
        ffu_print("%s,line=%d: firmware match, but ufs_fw_rev equal\n", __func__, 253);
        return -1;
    }
    ffu_print("%s,line=%d: firmware match, but ufs_fw_rev not equal\n", __func__, 256);
    return 0;
}

int SelectUfsFw(const UfsFwHeader& device, const uint8_t* package, int32_t size,
                UfsSelection& selection) {
    const size_t packageSize = size < 1 ? 0 : static_cast<size_t>(size);
    int fwNum = 0;
    for (size_t p = FindUfsEntry(package, packageSize, 0); p < packageSize;
         p = FindUfsEntry(package, packageSize, p + 1)) {
        const auto& entry = *reinterpret_cast<const UfsFwHeader*>(package + p);
        const uint32_t ufsCurrentFwSize = ReadBigEndian32(entry.ufsFwSize);
        fwNum++;
        ffu_print("%s,line=%d: ufs fw find, fwNum=%d, fwSize=0x%x\n", GET_UFS_FW_FROM_FW_BIN, 316,
                  fwNum, ufsCurrentFwSize);
        if (!UfsEntryMatches(device, entry) ||
            !BodyFits(packageSize, p, sizeof(entry), ufsCurrentFwSize)) {
            ffu_print("%s,line=%d: firmware not match\n", GET_UFS_FW_FROM_FW_BIN, 326);
            continue;
        }
        const auto ufsCurrentFwOffset = static_cast<uint32_t>(p + sizeof(entry));
        ffu_print("%s,line=%d: ufsCurrentFwOffset=0x%x\n", GET_UFS_FW_FROM_FW_BIN, 320,
                  ufsCurrentFwOffset);
        ffu_print("%s,line=%d: ufsCurrentFwSize=0x%x\n", GET_UFS_FW_FROM_FW_BIN, 321,
                  ufsCurrentFwSize);
        ffu_print("%s,line=%d: firmware file match\n", GET_UFS_FW_FROM_FW_BIN, 322);
        selection = {ufsCurrentFwOffset, ufsCurrentFwSize, FwVerCheck(device, entry)};
        return 0;
    }
    ffu_print("%s,line=%d: firmware not match\n", GET_UFS_FW_FROM_FW_BIN, 331);
    return -1;
}

int GetUfsFwFromFwBin(const UfsFwHeader& device, const uint8_t* package, int32_t size,
                      int useDataDir) {
    UfsSelection selection = {};
    if (SelectUfsFw(device, package, size, selection) != 0) {
        return -1;
    }
    ffu_print("%s,line=%d: Save fw body to file ...\n", GET_UFS_FW_FROM_FW_BIN, 335);
    if (SaveFwBodyToFile(package, selection.ufsCurrentFwOffset, selection.ufsCurrentFwSize,
                         useDataDir) != 0) {
        return -1;
    }
    return selection.verdict;
}
