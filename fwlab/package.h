// A firmware package on a desk: mapped, with every place in it that a reader on the phone visits.
#pragma once

#include "fwpkg/firmware_package.h"

#include <memory>
#include <string>
#include <vector>

// Thrown to end the command: exit status 1 (the answer is "no") or 2 (wrong usage, unreadable
// input), and why.
struct Stop {
    int status;
    std::string text;
};

// A field of a header, by the name that manifests and descriptions give it.
struct Field {
    enum Filling { EXACT, ZEROS, NODE }; // behind a short text: none, zeros, line feed and zeros
    const char* key;
    size_t offset, size;
    Filling filling;
};

struct Layout {
    const char* technology;
    size_t headerSize;
    Field manufacturer, name, extCsdRev, revision, bodySize, marketName, baseRevs;
};
extern const Layout EMMC, UFS; // a UFS header has no extCsdRev: size 0

// What an entry is for, or what a device is: the bytes of a header.
struct Identity {
    const Layout* layout;
    std::string header;
};
std::string Get(const Identity& identity, const Field& field);
void Set(Identity& identity, const Field& field, const std::string& bytes);

struct Entry {
    size_t number; // from 1
    size_t offset, body;
    uint32_t bodySize;
    bool bodyFits;
    Identity identity;
};

// A file's bytes, mapped as long as somebody holds them.
using MappedBytes = std::shared_ptr<const uint8_t>;

struct Package {
    std::string path;
    const Layout* layout;
    MappedBytes bytes; // null if the phone does not look into it
    size_t size;
    std::vector<Entry> entries; // every candidate, by offset
    std::string flaw;           // why the phone does not look into it
};
// Without a layout, that of the first entry is taken.
Package OpenPackage(const std::string& path, const Layout* layout = nullptr);

struct MappedFile {
    MappedBytes bytes;
    size_t size;
};
MappedFile MapFile(const std::string& path);

std::string Title(const Entry& entry);        // "entry 2 at 0x1040"
std::string Quoted(const std::string& bytes); // printable, in quotation marks
