// The scan and the three selections, on any device record and any package. The input is the record,
// as long as a UFS header, and the package.
#include "emmc/emmc_update.h"
#include "fuzz_phone.h"
#include "run/package_check.h"
#include "ufs/ufs_selection.h"

#include <vector>

using Bytes = std::vector<uint8_t>;

static void PreCheck(const std::string& pnm, const Bytes& package) {
    for (const char type : {DEVICE_EMMC, DEVICE_UFS}) {
        DeviceInfo device = {type, {}, "FW000001"};
        pnm.copy(device.pnm, PNM_SIZE);
        PackageRevs revs = {};
        const int parsed = GetRevs(device, package.data(), package.size(), revs);
        Require(parsed != 0 || revs.entry < package.size(), "the entry lies inside");
        (void)!JudgeRevs(device, parsed, revs);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const FuzzPhone phone("ufs-phone.toml");
    if (size < sizeof(UfsFwHeader)) {
        return 0;
    }
    const auto& emmcDevice = *reinterpret_cast<const EmmcFwHeader*>(data);
    const auto& ufsDevice = *reinterpret_cast<const UfsFwHeader*>(data);
    // A block of its own, so that a read beyond the package is seen.
    const Bytes package(data + sizeof(ufsDevice), data + size);

    phone.Attach();
    PreCheck({reinterpret_cast<const char*>(ufsDevice.ufsPnm), PNM_SIZE}, package);
    const auto count = static_cast<int32_t>(package.size());
    const uint8_t* body = nullptr;
    uint32_t bodySize = 0;
    if (EmmcFwhdrCheck(emmcDevice, package.data(), count, body, bodySize) == 0) {
        const auto offset = static_cast<size_t>(body - package.data());
        Require(offset <= package.size() && bodySize <= package.size() - offset,
                "the body lies inside");
    }
    (void)!GetUfsFwFromFwBin(ufsDevice, package.data(), count, 1);
    simphone_detach();
    return 0;
}
