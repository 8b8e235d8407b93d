// Reads manifests. Whatever is unknown, missing or of the wrong type is input that cannot be read;
// a value that a phone would not treat as meant is refused.
#include "fwlab/manifest.h"

#include "fwlab/decision.h"
#include "fwlab/spans.h"
#include "fwlab/toml_text.h"
#include "simphone/files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>

namespace {

bool IsFreeSlot(const std::string& slot) {
    return slot[0] == '\0' || slot == std::string(slot.size(), '\xFF');
}

// Free slots repeat the last revision, so that they admit nothing else.
bool ReadBaseRevs(const toml::node& node, const Field& revision, std::string& bytes) {
    const size_t slots = BASE_REVS_SIZE / revision.size;
    if (node.is_array() && node.as_array()->is_homogeneous(toml::node_type::integer)) {
        return AppendBytes(node, bytes) && bytes.size() == BASE_REVS_SIZE; // all slots as they are
    }
    const size_t count = node.is_array() ? node.as_array()->size() : 0;
    Require(!node.is_array() || (count > 0 && count <= slots), 1,
            fmt::format("base_revisions has {} revisions, not 1 to {}", count, slots));
    bool isRight = node.is_array();
    for (size_t slot = 0; isRight && slot < slots; slot++) {
        std::string slotBytes;
        isRight = ReadBytes((*node.as_array())[std::min(slot, count - 1)], revision, slotBytes);
        Require(!isRight || !IsFreeSlot(slotBytes), 1,
                "base_revisions: no device can have " + Quoted(slotBytes));
        bytes += slotBytes;
    }
    return isRight;
}

std::string ReadImage(const std::string& path) {
    std::string image;
    std::error_code error;
    Require(path.find('\0') == std::string::npos, 2, "image has a zero byte in its name");
    const size_t size = std::filesystem::file_size(path, error); // of a regular file only
    Require(!error, 2, "image " + path + ": " + error.message());
    Require(size <= PACKAGE_SIZE_MAX, 1, "image " + path + ": 2 GiB or larger");
    const bool isRead = ReadWholeFile(path, image);
    Require(isRead, 2, "image " + path + ": " + strerror(errno));
    return image;
}

// Empty without the key.
std::string TakeDigest(Keys keys) {
    std::string digest;
    const char wanted[] = "64 hexadecimal digits in lower case";
    Take(keys, "image_sha256", OPTIONAL, wanted, [&](const toml::node& node) {
        digest = node.value_exact<std::string>().value_or("");
        return digest.size() == 64 &&
               digest.find_first_not_of("0123456789abcdef") == std::string::npos;
    });
    return digest;
}

ManifestEntry ReadEntry(Keys keys, const Layout& layout, const std::filesystem::path& folder) {
    Identity identity = NewIdentity(layout);
    Set(identity, layout.baseRevs, std::string(BASE_REVS_SIZE, '\xFF'));
    const auto take = [&](const Field& field, Need need) {
        TakeField(keys, field, need, identity);
    };
    take(layout.manufacturer, REQUIRED);
    take(layout.name, REQUIRED);
    if (layout.extCsdRev.size > 0) {
        take(layout.extCsdRev, REQUIRED);
    }
    take(layout.revision, REQUIRED);
    take(layout.baseRevs, OPTIONAL);
    take(layout.marketName, OPTIONAL);
    const std::string imageFile = folder / TakeText(keys, "image");
    const std::string wanted = TakeDigest(keys);
    RefuseTheRest(keys);
    Require(keys.error.empty(), 2, keys.error);
    const std::string image = ReadImage(imageFile);
    const std::string digest = Sha256(image);
    Require(wanted.empty() || wanted == digest, 1,
            fmt::format("image {}: its sha256 is {}, not {}", imageFile, digest, wanted));
    return {identity, image, imageFile};
}

// The value of which ReadBytes makes these bytes: a text, or else a list.
std::string ValueOf(const Field& field, const std::string& bytes) {
    if (field.size == 1) {
        return fmt::format("{:#04x}", static_cast<uint8_t>(bytes[0]));
    }
    const std::string text = field.filling == Field::NODE ? bytes.substr(0, bytes.find('\n'))
                             : field.filling == Field::ZEROS
                                 ? bytes.substr(0, bytes.find_last_not_of('\0') + 1)
                                 : bytes;
    std::string value = TomlBytes(text);
    std::string read;
    try {
        if (value[0] == '"' && ReadBytes(toml::value<std::string>(text), field, read) &&
            read == bytes) {
            return value;
        }
    } catch (const Stop&) { // what texts may not be, lists may
    }
    return TomlList(bytes);
}

// Likewise for ReadBaseRevs.
std::string BaseRevsOf(const Identity& identity) {
    const Field& revision = identity.layout->revision;
    const std::string bytes = Get(identity, identity.layout->baseRevs);
    Texts slots;
    for (size_t slot = 0; slot < bytes.size(); slot += revision.size) {
        slots.push_back(bytes.substr(slot, revision.size));
    }
    if (std::any_of(slots.begin(), slots.end(), IsFreeSlot)) {
        return TomlList(bytes);
    }
    while (slots.size() > 1 && slots.back() == slots[slots.size() - 2]) {
        slots.pop_back();
    }
    std::string list;
    for (const std::string& slot : slots) {
        list += (list.empty() ? "" : ", ") + ValueOf(revision, slot);
    }
    return "[" + list + "]";
}

} // namespace

bool ReadBytes(const toml::node& node, const Field& field, std::string& bytes) {
    const bool isText = node.is_string();
    const bool isExact = field.filling == Field::EXACT || (field.filling == Field::NODE && !isText);
    if (field.size == 1 ? !AppendBytes(toml::array{node}, bytes) : !AppendBytes(node, bytes)) {
        return false;
    }
    Require(bytes.size() <= field.size && (!isExact || bytes.size() == field.size), 1,
            fmt::format("{} has {} bytes, not {}{}", field.key, bytes.size(),
                        isExact ? "" : "at most ", field.size));
    Require(field.filling != Field::NODE || !bytes.empty(), 1,
            std::string(field.key) + " is empty: no device has it");
    if (&field == &UFS.manufacturer && isText) {
        const bool isRight = bytes.size() == field.size && bytes.rfind("0x", 0) == 0 &&
                             bytes.find_first_not_of("0123456789abcdef", 2) == std::string::npos;
        Require(isRight, 1,
                Quoted(bytes) + " is no manfid as kernels print it, such as \"0x0001ce\": 0x and "
                                "six digits, letters in lower case; write a list of 8 numbers "
                                "where a kernel prints another one");
    }
    if (field.filling == Field::NODE && isText) {
        Require(bytes.find('\n') == std::string::npos, 1,
                std::string(field.key) + " has a line feed: fwlab adds it, as phones read one");
        bytes += '\n';
    }
    bytes.resize(field.size);
    return true;
}

void TakeField(Keys keys, const Field& field, Need need, Identity& identity) {
    Take(keys, field.key, need,
         field.size == 1                        ? "a number from 0 to 255"
         : &field == &identity.layout->baseRevs ? "a list of revisions"
                                                : "made of texts, or of numbers from 0 to 255",
         [&](const toml::node& node) {
             std::string bytes;
             const bool isRight = &field == &identity.layout->baseRevs
                                      ? ReadBaseRevs(node, identity.layout->revision, bytes)
                                      : ReadBytes(node, field, bytes);
             Set(identity, field, bytes);
             return isRight;
         });
}

std::string ManifestText(const Layout& layout, const std::vector<ManifestEntry>& entries) {
    std::string text = fmt::format("technology = \"{}\"\n", &layout == &UFS ? "ufs" : "emmc");
    for (const ManifestEntry& entry : entries) {
        const auto add = [&](const char* key, const std::string& value) {
            text += fmt::format("{} = {}\n", key, value);
        };
        text += "\n[[entry]]\n";
        for (const Field* field : {&layout.manufacturer, &layout.name, &layout.extCsdRev,
                                   &layout.revision, &layout.marketName}) {
            const std::string bytes = Get(entry.identity, *field);
            const bool isLeftOut =
                field == &layout.marketName && bytes == std::string(bytes.size(), '\0');
            if (field->size > 0 && !isLeftOut) {
                add(field->key, ValueOf(*field, bytes));
            }
        }
        if (BaseRevisionsOf(entry.identity)) {
            add(layout.baseRevs.key, BaseRevsOf(entry.identity));
        }
        add("image", TomlBytes(entry.imageFile));
        add("image_sha256", '"' + Sha256(entry.image) + '"');
    }
    return text;
}

std::vector<ManifestEntry> ReadManifest(const std::string& path) {
    toml::table table;
    std::string error;
    Require(ReadTable(path, table, error), 2, error);
    const std::string technology = TakeText({table, error}, "technology");
    Require(technology == "emmc" || technology == "ufs" || !error.empty(), 2,
            path + ": technology is not \"emmc\" or \"ufs\"");
    std::vector<ManifestEntry> entries;
    Take({table, error}, "entry", REQUIRED, "[[entry]] tables", [&](toml::node& node) {
        bool isRight = node.is_array_of_tables();
        for (size_t i = 0; isRight && i < node.as_array()->size(); i++) {
            try {
                entries.push_back(ReadEntry({*(*node.as_array())[i].as_table(), error},
                                            technology == "ufs" ? UFS : EMMC,
                                            std::filesystem::path(path).parent_path()));
            } catch (const Stop& stop) {
                throw Stop{stop.status, fmt::format("{}: entry {}: {}", path, i + 1, stop.text)};
            }
        }
        return isRight;
    });
    RefuseTheRest({table, error});
    Require(error.empty(), 2, path + ": " + error);
    return entries;
}

Description ReadPhone(const std::string& descriptionFile) {
    Description phone;
    std::string error;
    Require(ReadDescription(descriptionFile, {}, phone, error), 2, error);
    return phone;
}
