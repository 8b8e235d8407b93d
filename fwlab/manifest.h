// What the user writes about entries and devices: a manifest, a phone's description, the options of
// `fwlab match`. Texts are brought into the form that they have on the phone.
#pragma once

#include "fwlab/package.h"

struct ManifestEntry {
    Identity identity; // everything but the size of the body
    MappedFile image;
};
std::vector<ManifestEntry> ReadManifest(const std::string& path);

// A device by hand; what is not given is empty or negative.
struct DeviceOptions {
    std::string manfid, product, revision;
    int manufacturerId = -1, extCsdRev = -1;
};
Identity ReadDevice(const DeviceOptions& options);

// The device of a simulated phone, as its nodes and registers show it.
Identity ReadPhone(const std::string& descriptionFile);
