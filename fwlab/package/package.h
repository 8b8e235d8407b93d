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
    std::string flaw;           // why the phone does not read it; empty for none
    std::vector<Entry> entries; // every candidate, by offset; none if there is a flaw
};
// Without a layout, they take the first entry's. OpenPackage maps the file: a large package needs
// no memory.
Package OpenPackage(const std::string& path, const Layout* layout = nullptr);
Package LookInto(const std::string& path, const PackageBytes& bytes, size_t size,
                 const Layout* layout);

bool IsSame(const Package& one, const Package& other); // byte by byte

std::string Title(const Entry& entry); // "entry 2 at 0x1040"
