#include "fwlab/base/toml.h"

#include "fwlab/base/stop.h"
#include "simphone/toml.h"

#include <fmt/format.h>

// Calls `use`, and finishes the table. Stop names the table.
static void UseTable(const std::string& title, Keys keys, const std::function<void(Keys)>& use) {
    try {
        use(keys);
        FinishTable(keys);
    } catch (const Stop& stop) {
        throw Stop{stop.status, title + ": " + stop.text};
    }
}

void ReadToml(const std::string& path, const std::function<void(Keys)>& use) {
    toml::table table;
    std::string error;
    Require(ReadTable(path, table, error), 2, error);
    UseTable(path, {table, error}, use);
}

void TakeTables(Keys keys, const char* key, const char* wanted,
                const std::function<void(Keys)>& use) {
    Take(keys, key, REQUIRED, wanted, [&](toml::node& node) {
        const size_t count = node.is_array_of_tables() ? node.as_array()->size() : 0;
        for (size_t i = 0; i < count; i++) {
            toml::table& table = *(*node.as_array())[i].as_table();
            UseTable(fmt::format("{} {}", key, i + 1), {table, keys.error}, use);
        }
        return count > 0;
    });
}

void FinishTable(Keys keys) {
    RefuseTheRest(keys);
    Require(keys.error.empty(), 2, keys.error);
}

bool TakeChoice(Keys keys, const char* key, const std::string& first, const std::string& second) {
    const std::string text = TakeText(keys, key);
    Demand(keys, text == first || text == second,
           fmt::format("{} is not \"{}\" or \"{}\"", key, first, second));
    return text == first;
}
