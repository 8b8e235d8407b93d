// What the user writes about entries and devices, brought into the form that it has on the phone.
#pragma once

#include "fwlab/package.h"
#include "simphone/description.h"
#include "simphone/keys.h"

struct ManifestEntry {
    Identity identity;            // everything but the size of the body
    std::string image, imageFile; // its content and path
};
std::vector<ManifestEntry> ReadManifest(const std::string& path);

// A text or a list of bytes, or for a field of one byte a number, brought to the size of the field.
// False if the node is neither; Stop if the bytes are none that a device can have there.
[[nodiscard]] bool ReadBytes(const toml::node& node, const Field& field, std::string& bytes);

// Takes the key of the field, into identity.
void TakeField(Keys keys, const Field& field, Need need, Identity& identity);

// A manifest that gives the same entries, in a folder from which imageFile leads to the image. What
// no manifest gives is left out: PRV and PSN.
std::string ManifestText(const Layout& layout, const std::vector<ManifestEntry>& entries);

Description ReadPhone(const std::string& descriptionFile);
