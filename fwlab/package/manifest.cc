// Makes packages of manifests, and manifests of packages. Whatever is unknown, missing or of the
// wrong type is input that cannot be read; a value that would not work on a phone is refused.
#include "fwlab/package/manifest.h"

#include "fwlab/base/output.h"
#include "fwlab/base/stop.h"
#include "fwlab/base/toml.h"
#include "fwlab/package/fields.h"
#include "simphone/files.h"
#include "simphone/toml.h"

#include <cerrno>
#include <filesystem>
#include <fmt/format.h>

namespace fs = std::filesystem;

namespace {

std::string ReadImage(const std::string& path) {
    const std::string title = "image " + path;
    std::string image;
    std::error_code error;
    Require(path.find('\0') == std::string::npos, 2, "image has a zero byte in its name");
    const size_t size = fs::file_size(path, error); // of a regular file only
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

// Appends an entry to the package's bytes, and its image file to the inputs.
void AddEntry(Keys keys, const Layout& layout, const fs::path& folder, std::string& bytes,
              std::vector<std::string>& inputs) {
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
    std::string size;
    for (const int shift : {24, 16, 8, 0}) {
        size += static_cast<char>(image.size() >> shift);
    }
    Set(identity, layout.bodySize, size);
    bytes += identity.header;
    bytes += image;
    inputs.push_back(imageFile);
}

} // namespace

Built BuildPackage(const std::string& manifestFile) {
    const auto bytes = std::make_shared<std::string>();
    std::vector<std::string> inputs = {manifestFile};
    const Layout* layout = nullptr;
    ReadToml(manifestFile, [&](Keys keys) {
        layout = TakeChoice(keys, "technology", "emmc", "ufs") ? &EMMC : &UFS;
        TakeTables(keys, "entry", "[[entry]] tables", [&](Keys entry) {
            AddEntry(entry, *layout, fs::path(manifestFile).parent_path(), *bytes, inputs);
        });
    });
    Require(bytes->size() <= PACKAGE_SIZE_MAX, 1,
            manifestFile + ": the package is 2 GiB or larger: phones refuse it");
    const PackageBytes owned(bytes, reinterpret_cast<const uint8_t*>(bytes->data()));
    return {LookInto(manifestFile, owned, bytes->size(), *layout), inputs};
}

void TakeApart(const Package& package, const std::string& folder) {
    const Layout& layout = *package.layout;
    const Identity plain = NewEntry(layout);
    std::string text = fmt::format("technology = \"{}\"\n", &layout == &UFS ? "ufs" : "emmc");
    size_t number = 0;
    for (const Entry* entry : OwnEntries(package)) {
        const std::string imageFile = fmt::format("image-{}.bin", ++number);
        WriteOutput(fs::path(folder) / imageFile, entry->image);
        text += "\n[[entry]]\n";
        for (const Field* field : FieldsOf(layout)) {
            if (!field->isOptional || Get(entry->identity, *field) != Get(plain, *field)) {
                text += fmt::format("{} = {}\n", field->key, TomlValue(entry->identity, *field));
            }
        }
        text +=
            fmt::format("image = \"{}\"\nimage_sha256 = \"{}\"\n", imageFile, Sha256(entry->image));
    }
    WriteOutput(folder + "/" + MANIFEST, text);
}
