// Reads fleets. Whatever is unknown, missing or of the wrong type is input that cannot be read.
#include "fwlab/phone/fleet.h"

#include "fwlab/base/stop.h"
#include "fwlab/base/toml.h"
#include "fwlab/package/fields.h"

#include <climits>
#include <filesystem>
#include <set>
#include <tuple>

namespace {

// What runs on devices of this identity.
std::vector<Running> TakeRunning(Keys keys, Identity identity) {
    std::vector<Running> running;
    std::set<std::string> seen;
    const char wanted[] = "a list of tables such as { revision = \"0800\", phones = 9 }";
    TakeTables(keys, "running", wanted, [&](Keys inner) {
        TakeField(inner, identity.layout->revision, identity);
        running.push_back({RevisionOf(identity), TakeNumber(inner, "phones", UINT32_MAX)});
        Demand(running.back().phones > 0, "phones is 0");
        Demand(seen.insert(running.back().revision).second, "the revision is there twice");
    });
    return running;
}

// The device of a description, or of the keys of the model itself.
Device TakeDevice(Keys keys, const std::filesystem::path& folder) {
    if (Has(keys, "phone")) {
        Device device = DeviceOf(ReadDescription(folder / TakeText(keys, "phone")));
        Set(device.identity, device.identity.layout->revision, "");
        return device;
    }
    const bool isEmmc = TakeChoice(keys, "technology", "emmc", "ufs");
    const Layout& layout = isEmmc ? EMMC : UFS;
    Device device = {NewIdentity(layout), false, 0};
    for (const Field* field : {&layout.manufacturer, &layout.name, &layout.extCsdRev}) {
        TakeField(keys, *field, device.identity);
    }
    if (isEmmc) {
        device.gki = TakeChoice(keys, "mode", "gki", "normal");
    } else {
        device.maxHwSectorsKb = TakeNumber(keys, "max_hw_sectors_kb", INT_MAX / 1024, OPTIONAL);
    }
    return device;
}

} // namespace

std::vector<Model> ReadFleet(const std::string& path) {
    std::vector<Model> fleet;
    std::set<std::tuple<std::string, bool, uint32_t>> seen;
    const auto folder = std::filesystem::path(path).parent_path();
    try {
        ReadToml(path, [&](Keys keys) {
            TakeTables(keys, "model", "[[model]] tables", [&](Keys model) {
                const Device device = TakeDevice(model, folder);
                // The magic in the header tells the technology.
                const auto key =
                    std::make_tuple(device.identity.header, device.gki, device.maxHwSectorsKb);
                Demand(seen.insert(key).second, "the model is there twice");
                fleet.push_back({device, TakeRunning(model, device.identity)});
            });
        });
    } catch (const Stop& stop) { // a refused value, too, is wrong input here
        throw Stop{2, stop.text};
    }
    return fleet;
}
