// A firmware package, with every entry in it that the phone's scan visits.
#pragma once

#include "fwlab/package/layout.h"

#include <memory>
#include <vector>

struct Entry {
    size_t number;       // from 1
    size_t offset, body; // of the header, of the body
    uint32_t bodySize;
    bool bodyFits;
    Identity identity;
};

using PackageBytes = std::shared_ptr<const uint8_t>;

struct Package {
    std::string path;
    const Layout* layout;
    PackageBytes bytes;
    size_t size;
    std::vector<Entry> entries; // every candidate, by offset
};

// Maps a package, so that a large one needs no memory. Without a layout, it is that whose entries
// cover more bytes. An empty file is a package: phones find nothing to do in it. Stop with 2 if the
// file cannot be read, has 2 GiB or more, or is no package: it has no entry of either technology
// whose body lies inside it.
Package OpenPackage(const std::string& path, const Layout* layout = nullptr);

// The same for bytes in memory, whatever they are. path is for messages.
Package LookInto(const std::string& path, const PackageBytes& bytes, size_t size,
                 const Layout& layout);

std::string Title(const Entry& entry); // "entry 2 at 0x1040"
