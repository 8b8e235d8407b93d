// A tool for the simulated phone, in normal mode, that calls what no run reaches and prints what
// came back. Its console is the expectation of direct_test.cc.
#include "emmc/emmc_command.h"
#include "emmc/emmc_register.h"
#include "emmc/emmc_update.h"
#include "run/result_record.h"

#include <cstdio>
#include <cstring>

int main() {
    const uint8_t body[1024] = {};
    uint8_t extCsd[EXT_CSD_SIZE] = {};
    printf("= %d\n", EmmcGetCidFromSysfs(nullptr));
    printf("= %d\n", EmmcGetExtCsd(nullptr, EXT_CSD_SIZE));
    printf("= %d\n", EmmcGetExtCsd(extCsd, -1));
    printf("= %d", EmmcGetExtCsd(extCsd, 0));
    printf(" %.8s\n", reinterpret_cast<const char*>(extCsd + EXT_CSD_FIRMWARE_VERSION));

    printf("= %d\n", DoEmmc50Ffu(nullptr, 512, 0));
    printf("= %d\n", DoEmmc50Ffu(body, 513, 1));
    printf("= %d\n", DoEmmcFfu(6, body, 512, 0));
    printf("= %d\n", DoEmmcFfu(255, body, 512, 1));

    printf("= %d\n", EmmcFfu(nullptr, EMMC_FW_PACKAGE, 0, 1));
    printf("= %d\n", EmmcFfu(EMMC_FW_PACKAGE, nullptr, 0, 0));
    printf("= %d\n", EmmcFfu(EMMC_FW_PACKAGE, "/vendor/firmware/none", 0, 1));
    printf("= %d\n", EmmcFfu("/vendor/firmware/none", EMMC_FW_PACKAGE, 0, 0));

    const uint8_t* fwBody = body;
    uint32_t fwBodySize = 5;
    printf("= %d\n", EmmcFwhdrCheck({}, body, 0, fwBody, fwBodySize));
    printf("= %d\n", EmmcFwhdrCheck({}, body, -1, fwBody, fwBodySize));
    printf("= %d %u\n", fwBody == body, fwBodySize);

    GetTmeStamp(nullptr);
    printf("= %d\n", WriteResultFile(nullptr, "", ""));
    printf("= %d\n", WriteResultFile("", nullptr, ""));
    printf("= %d\n", WriteResultFile("", "", nullptr));
}
