// The TOML files that users write, and values of files that programs make. Whatever is unknown,
// missing or of the wrong type is refused.
#pragma once

#include "simphone/keys.h"

#include <functional>

// Calls `use` to take the keys of a file. Stop, with the file's name, if it is not TOML, if a key
// is missing or wrong, or if `use` leaves a key.
void ReadToml(const std::string& path, const std::function<void(Keys)>& use);

// The same for each table of the list at `key`; Stop names the key and the table's number. `wanted`
// is for the message when there is no such list.
void TakeTables(Keys keys, const char* key, const char* wanted,
                const std::function<void(Keys)>& use);

// Takes a text that must be first or second; returns whether it is first.
bool TakeChoice(Keys keys, const char* key, const std::string& first, const std::string& second);
