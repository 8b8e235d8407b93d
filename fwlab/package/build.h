// Makes packages of manifests, in memory.
#pragma once

#include "fwlab/package/package.h"

struct Built {
    Package package;
    std::vector<std::string> inputs; // the files from which it was made
};
// Its own entries are those of the manifest, in its order, whatever they are. Stop if the manifest
// or an image cannot be read, or if the package has 2 GiB or more.
Built BuildPackage(const std::string& manifestFile);
