// Where headers and packages differ. Fields are named as in manifests.
#pragma once

#include "fwlab/base/json.h"

// `field` is the key of a header's field, or
//   "body"  the first byte at which the bodies differ; the values are the two bytes
//   "end"   the second package ends in this entry, or goes on after the last one; the values are
//           the two packages' sizes
struct Difference {
    size_t entry; // its number among the first package's own entries; 0: after the last one
    std::string field;
    size_t offset; // in the package, of the field, the byte or the end
    Json first, second;
};
// Sorted by offset. The comparison ends where the sizes of two bodies differ.
std::vector<Difference> DifferencesOf(const Package& first, const Package& second);

// For two headers of one layout. offset is in the header, entry is 0.
std::vector<Difference> DifferencesOf(const Identity& first, const Identity& second);
