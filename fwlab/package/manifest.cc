// Reads and writes manifests. Whatever is unknown, missing or of the wrong type is input that
// cannot be read; a value that would not work on a phone is refused.
#include "fwlab/package/manifest.h"

#include "fwlab/base/stop.h"
#include "fwlab/base/toml.h"
#include "fwlab/package/digest.h"
#include "fwlab/package/fields.h"
#include "simphone/files.h"
#include "simphone/toml.h"

#include <cerrno>
#include <filesystem>
#include <fmt/format.h>

namespace {

std::string ReadImage(const std::string& path) {
    const std::string title = "image " + path;
    std::string image;
    std::error_code error;
    Require(path.find('\0') == std::string::npos, 2, "image has a zero byte in its name");
    const size_t size = std::filesystem::file_size(path, error); // of a regular file only
    Require(!error, 2, title + ": " + error.message());
    Require(size <= PACKAGE_SIZE_MAX, 1, title + ": 2 GiB or larger");
    if (!ReadWholeFile(path, image)) {
        throw FailureAt(title, errno);
    }
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

// For devices of any revision: what an entry without the optional keys has.
Identity NewEntry(const Layout& layout) {
    Identity identity = NewIdentity(layout);
    Set(identity, layout.baseRevs, std::string(BASE_REVS_SIZE, '\xFF'));
    return identity;
}

ManifestEntry ReadEntry(Keys keys, const Layout& layout, const std::filesystem::path& folder) {
    Identity identity = NewEntry(layout);
    for (const Field* field : FieldsOf(layout)) {
        TakeField(keys, *field, identity);
    }
    const std::string imageFile = folder / TakeText(keys, "image");
    const std::string wanted = TakeDigest(keys);
    RefuseTheRest(keys);
    const std::string image = ReadImage(imageFile);
    const std::string digest = Sha256(image);
    Require(wanted.empty() || wanted == digest, 1,
            fmt::format("image {}: its sha256 is {}, not {}", imageFile, digest, wanted));
    return {identity, image, imageFile};
}

std::vector<ManifestEntry> ReadManifest(const std::string& path) {
    std::vector<ManifestEntry> entries;
    ReadToml(path, [&](Keys keys) {
        const Layout& layout = TakeChoice(keys, "technology", "emmc", "ufs") ? EMMC : UFS;
        TakeTables(keys, "entry", "[[entry]] tables", [&](Keys entry) {
            const auto folder = std::filesystem::path(path).parent_path();
            entries.push_back(ReadEntry(entry, layout, folder));
        });
    });
    return entries;
}

} // namespace

std::string ManifestText(const Layout& layout, const std::vector<ManifestEntry>& entries) {
    std::string text = fmt::format("technology = \"{}\"\n", &layout == &UFS ? "ufs" : "emmc");
    for (const ManifestEntry& entry : entries) {
        const auto add = [&](const char* key, const std::string& value) {
            text += fmt::format("{} = {}\n", key, value);
        };
        text += "\n[[entry]]\n";
        for (const Field* field : FieldsOf(layout)) {
            const bool isDefault = Get(entry.identity, *field) == Get(NewEntry(layout), *field);
            if (!field->isOptional || !isDefault) {
                add(field->key, TomlValue(entry.identity, *field));
            }
        }
        add("image", TomlBytes(entry.imageFile));
        add("image_sha256", '"' + Sha256(entry.image) + '"');
    }
    return text;
}

Built BuildPackage(const std::string& manifestFile) {
    const auto bytes = std::make_shared<std::string>();
    Built built = {{}, {manifestFile}};
    const Layout* layout = nullptr;
    for (ManifestEntry& entry : ReadManifest(manifestFile)) {
        built.inputs.push_back(entry.imageFile);
        layout = entry.identity.layout;
        std::string size;
        for (const int shift : {24, 16, 8, 0}) {
            size += static_cast<char>(entry.image.size() >> shift);
        }
        Set(entry.identity, layout->bodySize, size);
        *bytes += entry.identity.header + entry.image;
        Require(bytes->size() <= PACKAGE_SIZE_MAX, 1,
                manifestFile + ": the package is 2 GiB or larger: phones refuse it");
    }
    const PackageBytes owned(bytes, reinterpret_cast<const uint8_t*>(bytes->data()));
    built.package = LookInto(manifestFile, owned, bytes->size(), *layout);
    return built;
}
