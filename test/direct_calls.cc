// A tool for the simulated phone that calls what no run reaches and prints what came back. What it
// prints is the expectation of direct_test.cc.
#include "emmc/emmc_command.h"
#include "emmc/emmc_register.h"
#include "emmc/emmc_update.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "run/time_stamp.h"
#include "run/update_dispatch.h"
#include "ufs/ufs_update.h"

#include <cstdio>
#include <unistd.h>

static void CallUfs() {
    (void)!CreateResultDir();
    const int inTmp = UfsFfu(UFS_FW_PACKAGE, UFS_FW_PACKAGE, 0, 0);
    const int ofNoType = DoFfu('x');
    UpdateResultFlag(7, "0900");
    printf("%d %d\n", inTmp, ofNoType);
}

static void CallEmmc() {
    const uint8_t body[512] = {};
    const uint8_t* fwBody = nullptr;
    uint32_t fwBodySize = 0;
    uint8_t extCsd[EXT_CSD_SIZE] = {};
    GetTmeStamp(nullptr);
    const int statuses[] = {EmmcGetCidFromSysfs(nullptr),
                            EmmcGetExtCsd(nullptr, EXT_CSD_SIZE),
                            EmmcGetExtCsd(extCsd, -1),
                            EmmcGetExtCsd(extCsd, 0),
                            DoEmmc50Ffu(nullptr, 512, 0),
                            DoEmmcFfu(255, body, 512, 1),
                            EmmcFfu(nullptr, EMMC_FW_PACKAGE, 0, 1),
                            EmmcFfu(EMMC_FW_PACKAGE, nullptr, 0, 0),
                            EmmcFfu(EMMC_FW_PACKAGE, "/vendor/firmware/none", 0, 1),
                            EmmcFwhdrCheck({}, body, -1, fwBody, fwBodySize),
                            WriteResultFile(nullptr, "", ""),
                            WriteResultFile("", nullptr, ""),
                            WriteResultFile("", "", nullptr)};
    for (const int status : statuses) {
        printf("%d ", status);
    }
    printf("%.8s\n", reinterpret_cast<const char*>(extCsd + EXT_CSD_FIRMWARE_VERSION));
}

int main() {
    access("/dev/block/sdc", F_OK) == 0 ? CallUfs() : CallEmmc();
}
