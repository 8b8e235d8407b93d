// The eMMC side of the device: the requests that its driver takes through MMC_IOC_CMD and the GKI
// node.
#include "simphone/device/device.h"

#include "simphone/files.h"
#include "simphone/text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr uint32_t SEND_EXT_CSD = 8;   // JEDEC
constexpr uint32_t FFU_DOWNLOAD = 302; // the driver's own
constexpr uint32_t FFU_INSTALL = 303;  // the driver's own
// linux/mmc/core.h: MMC_RSP_SPI_R1 | MMC_RSP_R1 | MMC_CMD_ADTC
constexpr unsigned R1_DATA_FLAGS = 0xB5;
constexpr uint32_t R1_READY = 0x900; // ready for data, transfer state

int Install(const std::string& directory) {
    // The bootloader's answer to an install without a download: nothing to install.
    if (access((directory + "/device/downloaded.bin").c_str(), F_OK) != 0) {
        return EINVAL;
    }
    WriteWholeFile(directory + "/device/pending", "");
    return 0;
}

int SendExtCsd(const std::string& directory, const mmc_ioc_cmd& command) {
    if (command.write_flag != 0 || command.blocks != 1) {
        return EINVAL;
    }
    const std::string extCsd = WholeFile(directory + "/device/ext_csd.bin");
    if (extCsd.size() != EXT_CSD_SIZE) {
        return ETIMEDOUT;
    }
    memcpy(reinterpret_cast<void*>(command.data_ptr), extCsd.data(), EXT_CSD_SIZE);
    return 0;
}

int Download(const std::string& directory, const mmc_ioc_cmd& command) {
    if (command.write_flag != 1 || command.blocks == 0) {
        return EINVAL;
    }
    const size_t size = size_t{command.blocks} * command.blksz;
    const char* data = reinterpret_cast<const char*>(command.data_ptr);
    WriteWholeFile(directory + "/device/downloaded.bin", {data, size});
    return 0;
}

} // namespace

Request DescribeMmc(const mmc_ioc_cmd& command) {
    const RequestKind kind = command.opcode == SEND_EXT_CSD   ? RequestKind::SEND_EXT_CSD
                             : command.opcode == FFU_DOWNLOAD ? RequestKind::FFU_DOWNLOAD
                             : command.opcode == FFU_INSTALL  ? RequestKind::FFU_INSTALL
                                                              : RequestKind::OTHER_MMC;
    return {kind, Taken::NOTHING,
            Text("MMC_IOC_CMD opcode=%u write=%d arg=%u flags=0x%x blksz=%u blocks=%u%s",
                 command.opcode, command.write_flag, command.arg, command.flags, command.blksz,
                 command.blocks, command.data_ptr == 0 ? " no data" : "")};
}

Request DescribeGkiWrite(size_t size) {
    return {RequestKind::GKI_WRITE, Taken::NOTHING, Text("GKI write %zu", size)};
}

int AnswerMmc(const Phone& phone, int openFlags, mmc_ioc_cmd& command, Reply& reply) {
    const auto& [directory, description] = phone;
    const bool isInstall = command.opcode == FFU_INSTALL;
    if ((openFlags & O_ACCMODE) != O_RDWR) {
        return EPERM;
    }
    if (command.is_acmd != 0 || command.arg != 0 || command.__pad != 0 ||
        command.flags != R1_DATA_FLAGS || command.blksz != 512) {
        return EINVAL;
    }
    if ((command.data_ptr == 0) != isInstall) {
        return isInstall ? EINVAL : EFAULT;
    }
    int status = EINVAL;
    if (command.opcode == SEND_EXT_CSD) {
        status = SendExtCsd(directory, command);
    } else if (command.opcode == FFU_DOWNLOAD && !description.gki) {
        status = Download(directory, command);
    } else if (isInstall && !description.gki && command.write_flag == 0 && command.blocks == 0) {
        status = Install(directory);
    }
    if (status == 0) {
        command.response[0] = R1_READY;
        reply.taken = Taken::WHOLE;
    }
    return status;
}

void TakeGkiImage(const Phone& phone, std::string_view image, bool isWhole, Reply& reply) {
    WriteWholeFile(phone.directory + "/device/downloaded.bin", image);
    if (isWhole) {
        WriteWholeFile(phone.directory + "/device/pending", "");
    }
    reply.taken = isWhole ? Taken::WHOLE : image.empty() ? Taken::NOTHING : Taken::PART;
}
