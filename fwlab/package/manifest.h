// The manifest of a package: its entries and their images, as the user writes them down.
#pragma once

#include "fwlab/package/package.h"

struct ManifestEntry {
    Identity identity;            // without the size of the body
    std::string image, imageFile; // the image's bytes and path
};

// The text of a manifest with these entries, for a folder to which imageFile is relative.
std::string ManifestText(const Layout& layout, const std::vector<ManifestEntry>& entries);

// A package, made in memory.
struct Built {
    Package package;
    std::vector<std::string> inputs; // the files from which it was made
};
// Its own entries are those of the manifest, in its order, whatever they are. Stop if the manifest
// or an image cannot be read, or if the package has 2 GiB or more.
Built BuildPackage(const std::string& manifestFile);
