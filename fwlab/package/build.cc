#include "fwlab/package/build.h"

#include "fwlab/base/stop.h"
#include "fwlab/package/manifest.h"

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
        if (bytes->size() > PACKAGE_SIZE_MAX) {
            throw Stop{1, manifestFile + ": the package is 2 GiB or larger: phones refuse it"};
        }
    }
    const PackageBytes owned(bytes, reinterpret_cast<const uint8_t*>(bytes->data()));
    built.package = LookInto(manifestFile, owned, bytes->size(), *layout);
    return built;
}
