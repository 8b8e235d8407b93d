// Which bytes of a package belong to which entry.
#pragma once

#include "fwlab/package.h"

struct Span {
    size_t offset, size;
};

// The bytes that belong to no entry, by offset. An entry whose body does not fit has its header
// only.
std::vector<Span> Uncovered(const Package& package);

// The entry inside which this one begins; null without one. That is no entry of the package's
// maker, but a magic that stands in an image.
const Entry* OuterEntry(const Package& package, const Entry& entry);

// In lower-case hexadecimal digits.
std::string Sha256(const Package& package, size_t offset, size_t size);
