// The phones that get a package: device models, and how many phones run which revision.
#pragma once

#include "fwlab/phone/device.h"

#include <vector>

struct Running {
    std::string revision; // raw bytes, as in the header
    uint64_t phones;
};
struct Model {
    Device device; // its revision is not set
    std::vector<Running> running;
};

// examples/fleet.toml explains the file. Stop if it cannot be read or names no phone.
std::vector<Model> ReadFleet(const std::string& path);
