// Reads CID and EXT_CSD, from kernel nodes or from the device itself. The run calls it for the
// running revision, the eMMC update for the device record. It changes nothing on the phone.
#include "emmc/emmc_register.h"

#include "emmc/emmc_device.h"
#include "platform/bounded.h"
#include "run/log/ffu_print.h"

#include <cctype>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr char EMMC_CID_NODE[] = "/sys/class/mmc_host/mmc0/mmc0:0001/cid";
constexpr char EMMC_EXT_CSD_NODE[] = "/proc/bootdevice/ext_csd";
constexpr unsigned SEND_EXT_CSD = 8; // CMD8

constexpr int CID_HEX_SIZE = 2 * CID_SIZE;
constexpr int EXT_CSD_HEX_SIZE = 2 * EXT_CSD_SIZE;

// The routine that messages name when one of its helpers logs them.
constexpr char EMMC_GET_EXT_CSD[] = "EmmcGetExtCsd";

// Returns the position of the first character that is not a hexadecimal digit, or size when there
// is none. A garbled register must not pass for an identity.
int FindNonHexDigit(const char* text, int size) {
    int i = 0;
    while (i < size && isxdigit(static_cast<unsigned char>(text[i])) != 0) {
        i++;
    }
    return i;
}

void PrintCid(const char* cidHex) {
    for (int i = 0; i < CID_HEX_SIZE; i++) {
        ffu_print("%s,line=%d: cidHex[%d] = 0x%02x\n", __func__, 154, i,
                  static_cast<unsigned char>(cidHex[i]));
    }
}

[[nodiscard]] int GetExtCsdFromNode(uint8_t* extCsd) {
    ffu_print("%s,line=%d: %s, emmc firmware GKI mode \n", EMMC_GET_EXT_CSD, 255, EMMC_GET_EXT_CSD);
    const int fd = open(EMMC_EXT_CSD_NODE, O_RDONLY);
    if (fd < 0) {
        ffu_print("%s,line=%d: Could not open %s\n", EMMC_GET_EXT_CSD, 258, EMMC_EXT_CSD_NODE);
        return -1;
    }
    char hex[EXT_CSD_HEX_SIZE] = {};
    const auto count = static_cast<int>(read(fd, hex, sizeof(hex)));
    close(fd);
    if (count != EXT_CSD_HEX_SIZE) {
        ffu_print("%s,line=%d: %s: get proc/bootdevice/rev %d\n", EMMC_GET_EXT_CSD, 263,
                  EMMC_GET_EXT_CSD, count);
        return -1;
    }
    const int bad = FindNonHexDigit(hex, EXT_CSD_HEX_SIZE);
    if (bad != EXT_CSD_HEX_SIZE) {
        ffu_print("%s,line=%d: ext_csd character %d is no hexadecimal digit\n", EMMC_GET_EXT_CSD,
                  267, bad);
        return -1;
    }
    for (int i = 0; i < EXT_CSD_SIZE; i++) {
        char digits[3] = {};
        const int status = memcpy_s(digits, 2, &hex[2 * i], 2);
        if (status != 0) {
            ffu_print("%s,line=%d: memcpy_s error %s\n", EMMC_GET_EXT_CSD, 272, EMMC_GET_EXT_CSD);
            return status;
        }
        extCsd[i] = static_cast<uint8_t>(strtol(digits, nullptr, 16));
    }
    return 0;
}

// Sends one command that reads a single block of MMC_BLOCK_SIZE bytes into data.
[[nodiscard]] int EmmcCmd(int fd, unsigned opcode, uint8_t* data) {
    mmc_ioc_cmd request;
    if (MakeMmcRequest(0, opcode, 1, data, request) != 0) {
        ffu_print("%s,line=%d: %s memset_s fail\n", __func__, 102, __func__);
        return -1;
    }
    const int result = ioctl(fd, MMC_IOC_CMD, &request);
    if (result != 0) {
        ffu_print("%s,line=%d: emmc ioctl error (cmd=%d, ret=%d)\n", __func__, 112,
                  static_cast<int>(opcode), result);
    }
    return result;
}

[[nodiscard]] int GetExtCsdFromDevice(uint8_t* extCsd) {
    ffu_print("%s,line=%d: %s, emmc firmware normal mode \n", EMMC_GET_EXT_CSD, 241,
              EMMC_GET_EXT_CSD);
    char path[PATH_MAX] = {};
    if (realpath(EMMC_BLOCK_NODE, path) == nullptr) {
        ffu_print("%s,line=%d: %s: get realpath %s fail\n", EMMC_GET_EXT_CSD, 243, EMMC_GET_EXT_CSD,
                  EMMC_BLOCK_NODE);
        return -1;
    }
    const int fd = open(path, O_RDWR);
    if (fd < 0) {
        ffu_print("%s,line=%d: Could not open %s\n", EMMC_GET_EXT_CSD, 249, path);
        return -1;
    }
    const int status = EmmcCmd(fd, SEND_EXT_CSD, extCsd);
    close(fd);
    return status;
}

} // namespace

int EmmcGetCidFromSysfs(uint8_t* cid) {
    if (cid == nullptr) {
        ffu_print("%s,line=%d: %s args have NULL\n", __func__, 165, __func__);
        return -1;
    }
    const int fd = open(EMMC_CID_NODE, O_RDONLY | O_LARGEFILE);
    if (fd < 0) {
        ffu_print("%s,line=%d: Couldn't open %s fd = %d O_RDONLY  | O_LARGEFILE\n", __func__, 171,
                  EMMC_CID_NODE, fd);
        return -1;
    }
    char cidHex[CID_HEX_SIZE] = {};
    const auto count = static_cast<int>(read(fd, cidHex, CID_HEX_SIZE));
    close(fd);
    if (count != CID_HEX_SIZE) {
        ffu_print("%s,line=%d: Error cid buffRead = %d less than total_read = %d\n", __func__, 176,
                  count, CID_HEX_SIZE);
        return -1;
    }
    PrintCid(cidHex);
    const int bad = FindNonHexDigit(cidHex, CID_HEX_SIZE);
    if (bad != CID_HEX_SIZE) {
        ffu_print("%s,line=%d: cid character %d is no hexadecimal digit\n", __func__, 180, bad);
        return -1;
    }
    for (int i = 0; i < CID_SIZE; i++) {
        const char digits[] = {cidHex[2 * i], cidHex[2 * i + 1], '\0'};
        cid[i] = static_cast<uint8_t>(strtol(digits, nullptr, 16));
    }
    return 0;
}

int EmmcGetExtCsd(uint8_t* extCsd, int extCsdLen) {
    if (extCsd == nullptr || extCsdLen < 0) {
        ffu_print("%s,line=%d: %s extCsd length or extCsd error\n", __func__, 237, __func__);
        return -1;
    }
    return IsGkiMode() ? GetExtCsdFromNode(extCsd) : GetExtCsdFromDevice(extCsd);
}
