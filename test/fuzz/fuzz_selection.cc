// The scan and the three selections, on any device record and any package. The input is the record,
// as long as a UFS header, and the package.
#include "emmc/emmc_update.h"
#include "fuzz_phone.h"
#include "run/package_check.h"
#include "ufs/ufs_selection.h"

#include <cstring>
#include <memory>

static void PreCheck(const char* pnm, const uint8_t* package, size_t size) {
    DeviceInfo device = {DEVICE_EMMC, {}, "FW000001"};
    uint8_t legalBaseRev[BASE_REVS_SIZE];
    char fwFileRev[REV_SIZE + 1] = {};
    if (GetEmmcRev(package, size, pnm, fwFileRev, legalBaseRev) == 0) {
        (void)!IsSameRev(device.localFwRev, fwFileRev);
        (void)!CheckBaseRev(device, legalBaseRev);
    }
    device.type = DEVICE_UFS;
    if (GetUfsRev(package, size, pnm, fwFileRev, legalBaseRev) == 0) {
        (void)!CheckBaseRev(device, legalBaseRev);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const FuzzPhone phone(UFS_PHONE);
    if (size < sizeof(UfsFwHeader)) {
        return 0;
    }
    EmmcFwHeader emmcDevice;
    UfsFwHeader ufsDevice;
    memcpy(&emmcDevice, data, sizeof(emmcDevice));
    memcpy(&ufsDevice, data, sizeof(ufsDevice));
    // A block of its own, so that a read beyond the package is seen.
    const size_t packageSize = size - sizeof(ufsDevice);
    const auto package = std::make_unique<uint8_t[]>(packageSize);
    memcpy(package.get(), data + sizeof(ufsDevice), packageSize);

    phone.Attach();
    char pnm[PNM_SIZE + 1] = {};
    memcpy(pnm, ufsDevice.ufsPnm, PNM_SIZE);
    PreCheck(pnm, package.get(), packageSize);
    const auto count = static_cast<int32_t>(packageSize);
    const uint8_t* body = nullptr;
    uint32_t bodySize = 0;
    if (EmmcFwhdrCheck(emmcDevice, package.get(), count, body, bodySize) == 0) {
        const size_t offset = static_cast<size_t>(body - package.get());
        Require(offset <= packageSize && bodySize <= packageSize - offset, "the body lies inside");
    }
    (void)!GetUfsFwFromFwBin(ufsDevice, package.get(), count, 1);
    simphone_detach();
    return 0;
}
