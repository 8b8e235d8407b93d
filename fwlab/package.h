// A firmware package on a desk, with every place in it that a reader on the phone visits.
#pragma once

#include "fwpkg/firmware_package.h"

#include <memory>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

// Thrown to end the command: exit status 1 (the answer is "no") or 2 (wrong usage, unreadable
// input), and why.
struct Stop {
    int status;
    std::string text;
};
// A text with errno needs the call to be a statement of its own: arguments have no order.
void Require(bool isSo, int status, const std::string& text);

// A field of a header, by the name that manifests and reports give it.
struct Field {
    enum Filling { EXACT, ZEROS, NODE }; // behind a short text: none, zeros, line feed and zeros
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

// What an entry is for, or what a device is: the bytes of a header.
struct Identity {
    const Layout* layout;
    std::string header;
};
Identity NewIdentity(const Layout& layout); // with the magic, else zeros
std::string Get(const Identity& identity, const Field& field);
void Set(Identity& identity, const Field& field, const std::string& bytes); // zeros behind them

struct Entry {
    size_t number; // from 1
    size_t offset, body;
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
    std::string flaw;           // why the phone does not look into it
    std::vector<Entry> entries; // every candidate, by offset; none if there is a flaw
};
// Without a layout, that of the first entry is taken. OpenPackage maps the file: a large package
// costs no memory.
Package OpenPackage(const std::string& path, const Layout* layout = nullptr);
Package LookInto(const std::string& path, const PackageBytes& bytes, size_t size,
                 const Layout* layout);

std::string Title(const Entry& entry); // "entry 2 at 0x1040"
// Printable; in quotation marks, if nothing else is said.
std::string Quoted(const std::string& bytes, const char* mark = "\"");
