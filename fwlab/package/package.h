// A firmware package, with every entry in it that the phone's scan visits.
#pragma once

#include "fwlab/package/layout.h"

#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string_view>
#include <vector>

struct Entry {
    size_t number;       // from 1
    size_t offset, body; // of the header, of the body
    uint32_t bodySize;
    bool bodyFits;
    std::string_view image; // the body; empty if it does not fit
    size_t outer;           // number of the own entry inside which it begins; 0 for none
    Identity identity;
};

using PackageBytes = std::shared_ptr<const uint8_t>;

struct Package {
    std::string path;
    const Layout* layout;
    PackageBytes bytes; // null: there is no package
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

// The own entries: those that were packed. An entry that begins inside another one is only a magic
// in the image. One whose body does not fit is none: phones ignore it.
std::vector<const Entry*> OwnEntries(const Package& package);

// The own entry inside which this entry begins; null if there is none.
const Entry* OuterEntry(const Package& package, const Entry& entry);

// The bytes that belong to no own entry, by their offsets.
std::map<size_t, std::string_view> Uncovered(const Package& package);

std::string_view BytesOf(const Package& package);
std::string Sha256(std::string_view bytes); // in lower-case hexadecimal digits

std::string Title(const Entry& entry); // "entry 2 at 0x1040"

// A number for a field of one byte, else a printable text.
nlohmann::ordered_json ValueOf(const Identity& identity, const Field& field);

// Its number, places and fields by their keys, and the digest of its body if it is an own entry.
// Without fields that phones do not compare where they are zero. Texts are printable.
nlohmann::ordered_json ReportOf(const Entry& entry);
