// Fields of headers in the TOML files that users write: manifests and fleets. Values are brought
// into the form that they have on a phone.
#pragma once

#include "fwlab/layout.h"
#include "simphone/keys.h"

#include <functional>

// Lets `use` take the keys of a file. Stop, with the file's name, if it is no TOML, if a key is
// missing or wrong, or if one is left that nothing took.
void ReadToml(const std::string& path, const std::function<void(Keys)>& use);

// The same for each table of the key's list; Stop names the key and the number of the table.
void TakeTables(Keys keys, const char* key, const char* wanted,
                const std::function<void(Keys)>& use);

// Stop if there was an error, or if a key is left.
void FinishTable(Keys keys);

// A text that must be one of the two; true for the first one.
bool TakeChoice(Keys keys, const char* key, const std::string& first, const std::string& second);

// Takes the key of the field, into identity; nothing for a field that the layout does not have.
void TakeField(Keys keys, const Field& field, Need need, Identity& identity);

// The value of the field as a TOML text: TakeField reads the same bytes from it.
std::string TomlValue(const Identity& identity, const Field& field);
