// The eMMC side of the device: the requests that its driver takes through MMC_IOC_CMD and the GKI
// node.
#include "device.h"
#include "files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

static const uint32_t kSendExtCsd = 8;
static const uint32_t kDownload = 302; // the driver's own
static const uint32_t kInstall = 303;  // the driver's own
static const unsigned kFlags = 0xB5; // linux/mmc/core.h: MMC_RSP_SPI_R1 | MMC_RSP_R1 | MMC_CMD_ADTC
static const uint32_t kReady = 0x900; // R1: ready for data, transfer state

std::string DescribeMmc(const mmc_ioc_cmd& command) {
    char text[160];
    snprintf(text, sizeof(text),
             "MMC_IOC_CMD opcode=%u write=%d arg=%u flags=0x%x blksz=%u blocks=%u%s",
             command.opcode, command.write_flag, command.arg, command.flags, command.blksz,
             command.blocks, command.data_ptr ? "" : " no data");
    return text;
}

const char* MmcRequestName(uint32_t opcode) {
    return opcode == kSendExtCsd ? "SEND_EXT_CSD"
           : opcode == kDownload ? "FFU_DOWNLOAD"
           : opcode == kInstall  ? "FFU_INSTALL"
                                 : "";
}

static int Install(const std::string& directory) {
    // The bootloader's answer to an install without a download: nothing to install.
    if (access((directory + "/device/downloaded.bin").c_str(), F_OK) != 0) {
        return EINVAL;
    }
    return WriteWholeFile(directory + "/device/pending", "", 0) ? 0 : EIO;
}

static int SendExtCsd(const std::string& directory, const mmc_ioc_cmd& command) {
    std::string extCsd;
    if (command.write_flag != 0 || command.blocks != 1) {
        return EINVAL;
    }
    if (!ReadWholeFile(directory + "/device/ext_csd.bin", extCsd) || extCsd.size() != 512) {
        return ETIMEDOUT;
    }
    memcpy(reinterpret_cast<void*>(command.data_ptr), extCsd.data(), extCsd.size());
    return 0;
}

static int Download(const std::string& directory, const mmc_ioc_cmd& command) {
    if (command.write_flag != 1 || command.blocks == 0) {
        return EINVAL;
    }
    const size_t size = size_t{command.blocks} * command.blksz;
    const void* data = reinterpret_cast<const void*>(command.data_ptr);
    return WriteWholeFile(directory + "/device/downloaded.bin", data, size) ? 0 : EIO;
}

int AnswerMmc(const std::string& directory, bool gki, int openFlags, mmc_ioc_cmd& command) {
    const bool install = command.opcode == kInstall;
    if ((openFlags & O_ACCMODE) != O_RDWR) {
        return EPERM;
    }
    if (command.is_acmd || command.arg || command.__pad || command.flags != kFlags ||
        command.blksz != 512) {
        return EINVAL;
    }
    if (!command.data_ptr != install) {
        return install ? EINVAL : EFAULT;
    }
    int status = EINVAL;
    if (command.opcode == kSendExtCsd) {
        status = SendExtCsd(directory, command);
    } else if (command.opcode == kDownload && !gki) {
        status = Download(directory, command);
    } else if (install && !gki && command.write_flag == 0 && command.blocks == 0) {
        status = Install(directory);
    }
    if (status == 0) {
        command.response[0] = kReady;
    }
    return status;
}

int TakeGkiImage(const std::string& directory, const void* image, size_t taken, size_t size) {
    if (!WriteWholeFile(directory + "/device/downloaded.bin", image, taken)) {
        return EIO;
    }
    return taken == size && size > 0 ? Install(directory) : 0;
}
