// The header of an entry in a firmware package: its fields by name, for both technologies.
#pragma once

#include "fwpkg/firmware_package.h"

#include <string>

// A field of a header, by the name that manifests and reports give it.
struct Field {
    enum Filling { EXACT, ZEROS, NODE }; // after a short text: nothing, zeros, line feed and zeros
    const char* key;
    size_t offset, size;
    Filling filling;
};

struct Layout {
    const char* title;
    const char* magic;
    size_t headerSize;
    Field manufacturer, name, extCsdRev, revision, bodySize, marketName, baseRevs;
};
extern const Layout EMMC, UFS; // a UFS header has no extCsdRev: size 0

// The header of an entry, or a device in the form of a header.
struct Identity {
    const Layout* layout;
    std::string header;
};
Identity NewIdentity(const Layout& layout); // the magic, then zeros
std::string Get(const Identity& identity, const Field& field);
void Set(Identity& identity, const Field& field, const std::string& bytes); // filled up with zeros
