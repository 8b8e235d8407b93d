// Reads TOML tables key by key: phones' descriptions, and the workstation tool's manifests. Keys
// are taken out of their table as they are read, so that what is left in the end is unknown. What
// is wrong is thrown as std::runtime_error, for the user.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Of the TOML library, whose own headers few files need: simphone/toml.h.
namespace toml {
inline namespace v3 {
class node;
class table;
} // namespace v3
} // namespace toml

using Keys = toml::table&;
enum Need { REQUIRED, OPTIONAL };

// The error names the file and the line. `text`, if it is given, becomes the file's.
toml::table ReadTable(const std::string& file, std::string* text = nullptr);

// Gives a key of the table another value, by a text "KEY=VALUE"; KEY has dots between the tables
// that it is in. VALUE is TOML, else a text for a new key. Where the table has a text, its
// quotation marks may be left out; bytes are \n, \\ and \xHH then, and a line feed at the end of
// the old text stays. The error has the setting.
void SetKey(Keys keys, const std::string& setting);

// A text in quotation marks if it needs no escapes but \n and \\, else a list of numbers:
// AppendBytes reads both.
std::string TomlBytes(const std::string& bytes);
std::string TomlList(const std::string& bytes); // always a list of numbers

bool Has(Keys keys, const char* key);

// Lets `use` read the node of the key; false: the node is not `wanted`.
void Take(Keys keys, const char* key, Need need, const char* wanted,
          const std::function<bool(toml::node&)>& use);

// Throws unless it is right.
void Demand(bool isRight, const std::string& otherwise);

// A required key each, if nothing else is said; else 0 without the key.
std::string TakeText(Keys keys, const char* key);
uint32_t TakeNumber(Keys keys, const char* key, uint32_t most, Need need = REQUIRED);
std::string TakeBytes(Keys keys, const char* key, size_t most);

// A text or a list of texts; none without the key.
std::vector<std::string> TakeTexts(Keys keys, const char* key);

// Appends the bytes of a text or of a list of numbers; false if the node is neither.
[[nodiscard]] bool AppendBytes(const toml::node& node, std::string& bytes);

void RefuseTheRest(Keys keys);

// Lets `use` take the keys of the table that the key is.
void TakeTable(Keys keys, const char* key, const std::function<void(Keys)>& use);
