// Reads TOML tables key by key: phones' descriptions, and the workstation tool's manifests. Keys
// are taken out of their table as they are read, so that what is left in the end is unknown. After
// the first error nothing more is read.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#define TOML_EXCEPTIONS 0
#define TOML_HEADER_ONLY 0
#include <toml++/toml.h>

struct Keys {
    toml::table& table;
    std::string& error; // empty until the first one
};
enum Need { kRequired, kOptional };

// False with an error, which names the file and the line, if the file is no TOML.
[[nodiscard]] bool ReadTable(const std::string& file, toml::table& table, std::string& error);

// Lets `use` read the node of the key; it returns false if the node is not `wanted`.
template <typename Use>
void Take(Keys keys, const char* key, Need need, const char* wanted, Use use) {
    toml::node* node = keys.table.get(key);
    if (!keys.error.empty() || (!node && need == kOptional)) {
        return;
    }
    if (!node) {
        keys.error = std::string(key) + " is missing";
    } else if (!use(*node) && keys.error.empty()) {
        keys.error = std::string(key) + " is not " + wanted;
    }
    keys.table.erase(key);
}

// A required key each, if nothing else is said; empty or 0 after an error and without the key.
std::string TakeText(Keys keys, const char* key);
uint32_t TakeNumber(Keys keys, const char* key, uint32_t most, Need need = kRequired);
std::string TakeBytes(Keys keys, const char* key, size_t most);

// A text or a list of texts; none without the key.
std::vector<std::string> TakeTexts(Keys keys, const char* key);

// Appends the bytes of a text or of a list of numbers; false if the node is neither.
[[nodiscard]] bool AppendBytes(const toml::node& node, std::string& bytes);

void RefuseTheRest(Keys keys);
