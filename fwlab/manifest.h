// What the user writes about entries and devices, brought into the form that it has on the phone.
#pragma once

#include "fwlab/package.h"
#include "simphone/description.h"

struct ManifestEntry {
    Identity identity;            // everything but the size of the body
    std::string image, imageFile; // its content and path
};
std::vector<ManifestEntry> ReadManifest(const std::string& path);

// A manifest that gives the same entries, in a folder from which imageFile leads to the image. What
// no manifest gives is left out: PRV and PSN.
std::string ManifestText(const Layout& layout, const std::vector<ManifestEntry>& entries);

Description ReadPhone(const std::string& descriptionFile);
