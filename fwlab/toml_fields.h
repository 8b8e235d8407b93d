// Fields of headers in the TOML files that users write: manifests and fleets. Values are brought
// into the form that they have on a phone.
#pragma once

#include "fwlab/layout.h"
#include "simphone/keys.h"

// A text or a list of bytes, or for a field of one byte a number, brought to the size of the field.
// False if the node is neither; Stop if the bytes are none that a device can have there.
[[nodiscard]] bool ReadBytes(const toml::node& node, const Field& field, std::string& bytes);

// Takes the key of the field, into identity.
void TakeField(Keys keys, const Field& field, Need need, Identity& identity);

// The value of the field as a TOML text: TakeField reads the same bytes from it.
std::string TomlValue(const Identity& identity, const Field& field);
