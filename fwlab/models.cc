// Reads fleets. Whatever is unknown, missing or of the wrong type is input that cannot be read.
#include "fwlab/models.h"

#include "fwlab/stop.h"
#include "fwlab/toml_fields.h"

#include <climits>
#include <filesystem>
#include <fmt/format.h>

namespace {

std::vector<Running> TakeRunning(Keys keys, const Field& revision) {
    std::vector<Running> running;
    Take(keys, "running", kRequired, "a list of tables such as { revision = \"0800\", phones = 9 }",
         [&](toml::node& node) {
             bool isRight = node.is_array() && !node.as_array()->empty();
             for (size_t i = 0; isRight && i < node.as_array()->size(); i++) {
                 toml::table* table = (*node.as_array())[i].as_table();
                 isRight = table != nullptr;
                 if (isRight) {
                     std::string bytes;
                     const Keys inner = {*table, keys.error};
                     Take(inner, "revision", kRequired, "a text or a list of bytes",
                          [&](const toml::node& text) { return ReadBytes(text, revision, bytes); });
                     running.push_back({bytes, TakeNumber(inner, "phones", UINT32_MAX)});
                     RefuseTheRest(inner);
                 }
             }
             return isRight;
         });
    return running;
}

// The device of a description, or of the keys of the model itself.
Device TakeDevice(Keys keys, const std::filesystem::path& folder) {
    if (keys.table.contains("phone")) {
        return DeviceOf(ReadPhone(folder / TakeText(keys, "phone")));
    }
    const std::string technology = TakeText(keys, "technology");
    const bool isUfs = technology == "ufs";
    if (keys.error.empty() && !isUfs && technology != "emmc") {
        keys.error = "technology is not \"emmc\" or \"ufs\"";
    }
    const Layout& layout = isUfs ? UFS : EMMC;
    Device device = {NewIdentity(layout), false, 0};
    TakeField(keys, layout.manufacturer, kRequired, device.identity);
    TakeField(keys, layout.name, kRequired, device.identity);
    if (isUfs) {
        device.maxHwSectorsKb = TakeNumber(keys, "max_hw_sectors_kb", INT_MAX / 1024, kOptional);
        return device;
    }
    TakeField(keys, layout.extCsdRev, kRequired, device.identity);
    const std::string mode = TakeText(keys, "mode");
    device.gki = mode == "gki";
    if (keys.error.empty() && !device.gki && mode != "normal") {
        keys.error = "mode is not \"gki\" or \"normal\"";
    }
    return device;
}

} // namespace

std::vector<Model> ReadModels(const std::string& path) {
    toml::table table;
    std::string error;
    if (!ReadTable(path, table, error)) {
        throw Stop{2, error};
    }
    std::vector<Model> fleet;
    Take({table, error}, "model", kRequired, "[[model]] tables", [&](toml::node& node) {
        const bool isRight = node.is_array_of_tables();
        for (size_t i = 0; isRight && i < node.as_array()->size(); i++) {
            const std::string where = fmt::format("{}: model {}: ", path, i + 1);
            try {
                const Keys keys = {*(*node.as_array())[i].as_table(), error};
                Device device = TakeDevice(keys, std::filesystem::path(path).parent_path());
                const auto running = TakeRunning(keys, device.identity.layout->revision);
                RefuseTheRest(keys);
                if (!error.empty()) {
                    throw Stop{2, error};
                }
                fleet.push_back({device, running});
            } catch (const Stop& stop) {
                throw Stop{2, where + stop.text};
            }
        }
        return isRight;
    });
    RefuseTheRest({table, error});
    if (!error.empty()) {
        throw Stop{2, path + ": " + error};
    }
    return fleet;
}
