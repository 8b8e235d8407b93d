#include "fwlab/base/toml.h"

#include "fwlab/base/stop.h"
#include "simphone/toml.h"

#include <fmt/format.h>
#include <stdexcept>

// Calls `use`, which must take every key of the table. Stop names the table.
static void UseTable(const std::string& title, Keys keys, const std::function<void(Keys)>& use) {
    try {
        use(keys);
        RefuseTheRest(keys);
    } catch (const Stop& stop) {
        throw Stop{stop.status, title + ": " + stop.text};
    } catch (const std::runtime_error& wrong) {
        throw Stop{2, title + ": " + wrong.what()};
    }
}

void ReadToml(const std::string& path, const std::function<void(Keys)>& use) {
    toml::table table = ReadTable(path);
    UseTable(path, table, use);
}

void TakeTables(Keys keys, const char* key, const char* wanted,
                const std::function<void(Keys)>& use) {
    Take(keys, key, REQUIRED, wanted, [&](toml::node& node) {
        const size_t count = node.is_array_of_tables() ? node.as_array()->size() : 0;
        for (size_t i = 0; i < count; i++) {
            UseTable(fmt::format("{} {}", key, i + 1), *(*node.as_array())[i].as_table(), use);
        }
        return count > 0;
    });
}

bool TakeChoice(Keys keys, const char* key, const std::string& first, const std::string& second) {
    const std::string text = TakeText(keys, key);
    Demand(text == first || text == second,
           fmt::format("{} is not \"{}\" or \"{}\"", key, first, second));
    return text == first;
}
