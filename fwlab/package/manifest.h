// Packages and their manifests: the entries and their images, as the user writes them down.
#pragma once

#include "fwlab/package/package.h"

// A package, made in memory.
struct Built {
    Package package;
    std::vector<std::string> inputs; // the files from which it was made
};
// Its own entries are those of the manifest, in its order, whatever they are. Stop if the manifest
// or an image cannot be read, or if the package has 2 GiB or more.
Built BuildPackage(const std::string& manifestFile);

constexpr char MANIFEST[] = "package.toml";

// Writes the images of the package's own entries into an empty folder, and a manifest of them,
// which has this name there.
void TakeApart(const Package& package, const std::string& folder);
