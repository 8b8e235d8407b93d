// The manifest of a package: its entries and their images, as the user writes them down.
#pragma once

#include "fwlab/layout.h"

#include <vector>

struct ManifestEntry {
    Identity identity;            // everything but the size of the body
    std::string image, imageFile; // its content and path
};
std::vector<ManifestEntry> ReadManifest(const std::string& path);

// A manifest that gives the same entries, in a folder from which imageFile leads to the image. What
// no manifest gives is left out: PRV and PSN.
std::string ManifestText(const Layout& layout, const std::vector<ManifestEntry>& entries);
