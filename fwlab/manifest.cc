// Reads manifests and descriptions. Whatever is unknown, missing or of the wrong type is input that
// cannot be read; a value that a phone would not treat as meant is refused.
#include "fwlab/manifest.h"

#include "simphone/description.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

namespace {

const toml::node& Find(const toml::table& table, const std::string& key, const std::string& where) {
    const toml::node* node = table.get(key);
    if (node == nullptr) {
        throw Stop{2, where + key + " is missing"};
    }
    return *node;
}

std::string Text(const toml::table& table, const std::string& key, const std::string& where) {
    const toml::node& node = Find(table, key, where);
    if (!node.is_string()) {
        throw Stop{2, where + key + " is not a text"};
    }
    return node.ref<std::string>();
}

char Byte(const toml::node& node, const std::string& where) {
    const int64_t number = node.value_exact<int64_t>().value_or(-1);
    if (number < 0 || number > UINT8_MAX) {
        throw Stop{2, where + " is not made of numbers from 0 to 255"};
    }
    return static_cast<char>(number);
}

// A text, a list of bytes, or one byte, brought to the size of its field.
std::string Bytes(const toml::node& node, const Field& field, std::string where) {
    where += field.key;
    std::string bytes;
    if (node.is_string() && field.size > 1) {
        bytes = node.ref<std::string>();
    } else if (node.is_array() && field.size > 1) {
        for (const toml::node& element : *node.as_array()) {
            bytes += Byte(element, where);
        }
    } else {
        bytes = Byte(node, where);
    }
    const bool fromNode = field.filling == Field::NODE && node.is_string();
    if (fromNode && bytes.find('\n') != std::string::npos) {
        throw Stop{1, where + " has a line feed: fwlab adds it where a phone reads one"};
    }
    const bool isExact =
        field.filling == Field::EXACT || (field.filling == Field::NODE && !fromNode);
    if (bytes.size() > field.size || (isExact && bytes.size() < field.size)) {
        throw Stop{1, fmt::format("{} has {} bytes, not {}{}", where, bytes.size(),
                                  isExact ? "" : "at most ", field.size)};
    }
    bytes.append(fromNode && bytes.size() < field.size ? 1 : 0, '\n');
    bytes.resize(field.size);
    return bytes;
}

// Free slots repeat the last revision, so that they admit nothing else.
std::string BaseRevs(const toml::node& node, const Layout& layout, const std::string& where) {
    const size_t slots = BASE_REVS_SIZE / layout.revision.size;
    const toml::array* list = node.as_array();
    if (list == nullptr) {
        throw Stop{2, where + "base_revisions is not a list"};
    }
    if (list->empty() || list->size() > slots) {
        throw Stop{1, fmt::format("{}base_revisions has {} revisions, not 1 to {}", where,
                                  list->size(), slots)};
    }
    std::string bytes;
    for (size_t slot = 0; slot < slots; slot++) {
        bytes += Bytes((*list)[std::min(slot, list->size() - 1)], layout.revision,
                       where + "base_revisions: ");
    }
    return bytes;
}

void CheckKeys(const toml::table& table, const std::vector<std::string>& known,
               const std::string& where) {
    for (const auto& [key, value] : table) {
        const std::string name(key.str());
        if (std::count(known.begin(), known.end(), name) == 0) {
            throw Stop{2, where + "unknown key " + Quoted(name)};
        }
    }
}

Identity NewIdentity(const Layout& layout) {
    Identity identity = {&layout, &layout == &UFS ? UFS_MAGIC : EMMC_MAGIC};
    identity.header.resize(layout.headerSize);
    return identity;
}

Identity ReadIdentity(const toml::table& table, const Layout& layout, const std::string& where) {
    Identity identity = NewIdentity(layout);
    for (const Field& field :
         {layout.manufacturer, layout.name, layout.extCsdRev, layout.revision}) {
        if (field.size > 0) {
            Set(identity, field, Bytes(Find(table, field.key, where), field, where));
        }
    }
    return identity;
}

MappedFile OpenImage(const std::string& path, const std::string& where) {
    try {
        return MapFile(path);
    } catch (const Stop& stop) {
        throw Stop{2, where + "image " + stop.text};
    }
}

ManifestEntry ReadEntry(const toml::table& table, const Layout& layout,
                        const std::filesystem::path& folder, const std::string& where) {
    CheckKeys(table,
              {layout.manufacturer.key, "product_name", layout.extCsdRev.key, "revision",
               "base_revisions", "market_name", "image"},
              where);
    Identity identity = ReadIdentity(table, layout, where);
    const toml::node* base = table.get("base_revisions");
    Set(identity, layout.baseRevs,
        base == nullptr ? std::string(BASE_REVS_SIZE, '\xFF') : BaseRevs(*base, layout, where));
    if (const toml::node* marketName = table.get("market_name")) {
        Set(identity, layout.marketName, Bytes(*marketName, layout.marketName, where));
    }
    return {identity, OpenImage(folder / Text(table, "image", where), where)};
}

} // namespace

std::vector<ManifestEntry> ReadManifest(const std::string& path) {
    const toml::parse_result parsed = toml::parse_file(path);
    const std::string where = path + ": ";
    if (!parsed) {
        throw Stop{2, fmt::format("{}line {}: {}", where, parsed.error().source().begin.line,
                                  parsed.error().description())};
    }
    const toml::table& table = parsed.table();
    CheckKeys(table, {"technology", "entry"}, where);
    const std::string technology = Text(table, "technology", where);
    const toml::array* list = Find(table, "entry", where).as_array();
    if ((technology != "emmc" && technology != "ufs") || list == nullptr || list->empty()) {
        throw Stop{2, where + "needs technology = \"emmc\" or \"ufs\", and [[entry]] tables"};
    }
    std::vector<ManifestEntry> entries;
    for (const toml::node& node : *list) {
        const std::string at = fmt::format("{}entry {}: ", where, entries.size() + 1);
        if (!node.is_table()) {
            throw Stop{2, at + "is not a table"};
        }
        entries.push_back(ReadEntry(*node.as_table(), technology == "ufs" ? UFS : EMMC,
                                    std::filesystem::path(path).parent_path(), at));
    }
    return entries;
}

Identity ReadDevice(const DeviceOptions& options) {
    const auto value = [](const std::string& text) -> std::string {
        return !text.empty() && text[0] == '[' ? text : "'''" + text + "'''";
    };
    const toml::parse_result parsed = toml::parse(fmt::format(
        "manfid = {}\nproduct_name = {}\nrevision = {}\nmanufacturer_id = {}\next_csd_rev = {}\n",
        value(options.manfid), value(options.product), value(options.revision),
        options.manufacturerId, options.extCsdRev));
    if (!parsed) {
        throw Stop{2, "the device: " + std::string(parsed.error().description())};
    }
    try {
        return ReadIdentity(parsed.table(), options.manfid.empty() ? EMMC : UFS, "the device's ");
    } catch (const Stop& stop) {
        throw Stop{2, stop.text};
    }
}

Identity ReadPhone(const std::string& descriptionFile) {
    Description phone;
    std::string error;
    if (!ReadDescription(descriptionFile, phone, error)) {
        throw Stop{2, error};
    }
    if (phone.ufs && phone.revision.size() + 1 < UFS_REV_SIZE) {
        throw Stop{1, descriptionFile + ": the revision is too short for a run"};
    }
    const Layout& layout = phone.ufs ? UFS : EMMC;
    Identity identity = NewIdentity(layout);
    const auto set = [&](const Field& field, std::string bytes) {
        bytes.resize(field.size);
        Set(identity, field, bytes);
    };
    set(layout.name, phone.productName);
    set(layout.revision, phone.revision + (phone.ufs ? "\n" : ""));
    set(layout.manufacturer,
        phone.ufs ? phone.manfid : std::string(1, static_cast<char>(phone.cid[0])));
    set(layout.extCsdRev, std::string(1, static_cast<char>(phone.extCsdRev)));
    return identity;
}
