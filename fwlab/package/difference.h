// Where two packages differ first.
#pragma once

#include "fwlab/package/package.h"

#include <optional>

struct Difference {
    size_t offset;             // in both packages
    std::string place;         // "entry 1 at 0x0: revision", for people
    std::string first, second; // what stands there, for people
};
// No value if the packages are the same. first is one that pack makes: the places are its own.
std::optional<Difference> FirstDifference(const Package& first, const Package& second);
