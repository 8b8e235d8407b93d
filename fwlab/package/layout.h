// The header of an entry in a firmware package: its fields by name, for both technologies.
#pragma once

#include "fwpkg/firmware_package.h"

#include <optional>
#include <string>
#include <vector>

// A field of a header, by the name that manifests and reports give it.
struct Field {
    enum Filling { EXACT, ZEROS, NODE }; // after a short text: nothing, zeros, line feed and zeros
    const char* key;
    size_t offset, size;
    Filling filling;
    bool isOptional; // in manifests: phones do not need it
};

struct Layout {
    const char* title;
    const char* magic;
    size_t headerSize;
    Field manufacturer, name;
    Field productRevision,
        serialNumber; // eMMC: PRV and PSN of the CID, which phones do not compare
    Field extCsdRev, revision, bodySize, marketName, baseRevs;
};
extern const Layout EMMC, UFS; // a field that a UFS header does not have is of size 0

// The fields that a layout has, in the order of the header, without magic and size of the body.
std::vector<const Field*> FieldsOf(const Layout& layout);

// The header of an entry, or a device in the form of a header.
struct Identity {
    const Layout* layout;
    std::string header;
};
Identity NewIdentity(const Layout& layout); // the magic, then zeros
std::string Get(const Identity& identity, const Field& field);
std::string NameOf(const Identity& identity);     // the product name
std::string RevisionOf(const Identity& identity); // the one to install, or the running one
void Set(Identity& identity, const Field& field, const std::string& bytes); // filled up with zeros

// A revision before all printable ones.
std::string OldestRevision(const Layout& layout);

// Whether a slot for a base revision admits no device, as it is left free.
bool IsFreeSlot(const std::string& slot);

// The base revisions of an entry, each once, without free slots. No value if the entry applies to
// any revision.
std::optional<std::vector<std::string>> BaseRevisionsOf(const Identity& identity);
