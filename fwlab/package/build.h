// Makes packages of manifests, in memory.
#pragma once

#include "fwlab/package/package.h"

struct Built {
    std::shared_ptr<const std::string> bytes;
    Package package;                   // of these bytes
    std::vector<const Entry*> entries; // of the manifest, in its order
    std::vector<std::string> inputs;   // the files from which it was made
};
// Whatever the entries are. Stop if the manifest or an image cannot be read, or if the package has
// 2 GiB or more.
Built BuildPackage(const std::string& manifestFile);
