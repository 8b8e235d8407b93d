// Fields of headers in the TOML files that users write: manifests and fleets. Values are brought
// into the form that they have on a phone.
#pragma once

#include "fwlab/package/layout.h"
#include "simphone/keys.h"

// Takes the field's key into identity; does nothing if the layout does not have the field.
void TakeField(Keys keys, const Field& field, Identity& identity);

// The field's value in TOML, from which TakeField reads the same bytes.
std::string TomlValue(const Identity& identity, const Field& field);
