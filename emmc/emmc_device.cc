// Finds out the mode and builds MMC requests. The register access and the firmware commands call
// it. Nothing is opened or sent here.
#include "emmc/emmc_device.h"

#include "platform/bounded.h"

#include <unistd.h>

bool IsGkiMode() {
    return access(EMMC_FFU_NODE, W_OK) == 0;
}

int MakeMmcRequest(int writeFlag, uint32_t opcode, uint32_t blocks, const uint8_t* data,
                   mmc_ioc_cmd& request) {
    // MMC_RSP_SPI_R1 | MMC_RSP_R1 | MMC_CMD_ADTC of the kernel's linux/mmc/core.h, for which user
    // space has no header.
    constexpr unsigned MMC_R1_DATA_FLAGS = 0xB5;
    const int status = memset_s(&request, sizeof(request), 0, sizeof(request));
    if (status != 0) {
        return status;
    }
    request.write_flag = writeFlag;
    request.opcode = opcode;
    request.flags = MMC_R1_DATA_FLAGS;
    request.blksz = MMC_BLOCK_SIZE;
    request.blocks = blocks;
    mmc_ioc_cmd_set_data(request, data);
    return 0;
}
