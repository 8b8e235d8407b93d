// Where headers and packages differ, by the names that manifests give their fields.
#pragma once

#include "fwlab/json.h"

// `field` is the key of a header's field, or
//   "body"  from this byte on the body is another; the values are the two bytes
//   "end"   the second package ends in this entry, or goes on behind the last one; the values are
//           the two packages' sizes
struct Difference {
    size_t entry; // its number among the own entries of the first package; 0: behind the last one
    std::string field;
    size_t offset; // in the package: of the field, of the byte, of the end
    Json first, second;
};
// By offset. Behind bodies of different sizes nothing is compared.
std::vector<Difference> DifferencesOf(const Package& first, const Package& second);

// Of two headers of one layout; with the offset in the header, and 0 for the entry.
std::vector<Difference> DifferencesOf(const Identity& first, const Identity& second);
