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
enum Need { REQUIRED, OPTIONAL };

// False with an error, which names the file and the line, if the file is no TOML. `text`, if it is
// given, becomes the file's.
[[nodiscard]] bool ReadTable(const std::string& file, toml::table& table, std::string& error,
                             std::string* text = nullptr);

// Gives a key of the table another value, by a text "KEY=VALUE"; KEY has dots between the tables
// that it is in. VALUE is TOML, else a text for a new key. Where the table has a text, its
// quotation marks may be left out; bytes are \n, \\ and \xHH then, and a line feed at the end of
// the old text stays. False with an error, which has the setting.
[[nodiscard]] bool SetKey(toml::table& table, const std::string& setting, std::string& error);

// Lets `use` read the node of the key; it returns false if the node is not `wanted`.
template <typename Use>
void Take(Keys keys, const char* key, Need need, const char* wanted, Use use) {
    toml::node* node = keys.table.get(key);
    if (!keys.error.empty() || (node == nullptr && need == OPTIONAL)) {
        return;
    }
    if (node == nullptr) {
        keys.error = std::string(key) + " is missing";
    } else if (!use(*node) && keys.error.empty()) {
        keys.error = std::string(key) + " is not " + wanted;
    }
    keys.table.erase(key);
}

// Notes the error if it is the first one and `isRight` does not hold.
void Demand(Keys keys, bool isRight, const std::string& error);

// A required key each, if nothing else is said; empty or 0 after an error and without the key.
std::string TakeText(Keys keys, const char* key);
uint32_t TakeNumber(Keys keys, const char* key, uint32_t most, Need need = REQUIRED);
std::string TakeBytes(Keys keys, const char* key, size_t most);

// A text or a list of texts; none without the key.
std::vector<std::string> TakeTexts(Keys keys, const char* key);

// Appends the bytes of a text or of a list of numbers; false if the node is neither.
[[nodiscard]] bool AppendBytes(const toml::node& node, std::string& bytes);

void RefuseTheRest(Keys keys);

// Lets `use` take the keys of the table that the key is.
template <typename Use> void TakeTable(Keys keys, const char* key, Use use) {
    Take(keys, key, REQUIRED, "a table", [&](toml::node& node) {
        if (toml::table* table = node.as_table()) {
            use(Keys{*table, keys.error});
            RefuseTheRest({*table, keys.error});
        }
        return node.is_table();
    });
}
