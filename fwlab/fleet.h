// The phones that a package is released to: device models, and which revisions run on how many.
#pragma once

#include "fwlab/device.h"

#include <vector>

struct Running {
    std::string revision; // bytes, of the field's size
    uint64_t phones;
};
struct Model {
    Device device; // its revision is not set
    std::vector<Running> running;
};

// fleet.toml explains the file. Stop if it cannot be read or names no phone.
std::vector<Model> ReadFleet(const std::string& path);
