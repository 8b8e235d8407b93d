// The manifest of a package: its entries and their images, as the user writes them down.
#pragma once

#include "fwlab/package/layout.h"

#include <vector>

struct ManifestEntry {
    Identity identity;            // without the size of the body
    std::string image, imageFile; // the image's bytes and path
};
std::vector<ManifestEntry> ReadManifest(const std::string& path);

// The text of a manifest with these entries, for a folder to which imageFile is relative.
std::string ManifestText(const Layout& layout, const std::vector<ManifestEntry>& entries);
