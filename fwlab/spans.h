// Which bytes of a package belong to which entry.
#pragma once

#include "fwlab/package.h"

struct Span {
    size_t offset, size;
};

// The entries that were packed. What begins inside an entry is a magic in its image, whatever size
// it seems to have. An entry whose body does not fit ends with its header.
std::vector<const Entry*> OwnEntries(const Package& package);

// The bytes that belong to no own entry, by offset; none if there is no entry.
std::vector<Span> Uncovered(const Package& package);

// The own entry inside which this one begins; null without one.
const Entry* OuterEntry(const Package& package, const Entry& entry);

// In lower-case hexadecimal digits.
std::string Sha256(const std::string& bytes);
std::string Sha256(const Package& package, size_t offset, size_t size);
