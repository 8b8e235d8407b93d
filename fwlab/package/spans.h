// Which bytes of a package belong to which entry.
#pragma once

#include "fwlab/package/package.h"

struct Span {
    size_t offset, size;
};

// The own entries: those that were packed. An entry that begins inside another one is only a magic
// in the image. One whose body does not fit is none: phones ignore it.
std::vector<const Entry*> OwnEntries(const Package& package);

// The bytes that belong to no own entry, by offset.
std::vector<Span> Uncovered(const Package& package);

// The own entry inside which this entry begins; null if there is none.
const Entry* OuterEntry(const Package& package, const Entry& entry);
