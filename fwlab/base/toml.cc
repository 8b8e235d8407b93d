#include "fwlab/base/toml.h"

#include "fwlab/base/stop.h"
#include "simphone/toml.h"

#include <fmt/format.h>

void ReadToml(const std::string& path, const std::function<void(Keys)>& use) {
    toml::table table;
    std::string error;
    Require(ReadTable(path, table, error), 2, error);
    try {
        use({table, error});
        FinishTable({table, error});
    } catch (const Stop& stop) {
        throw Stop{stop.status, path + ": " + stop.text};
    }
}

void TakeTables(Keys keys, const char* key, const char* wanted,
                const std::function<void(Keys)>& use) {
    Take(keys, key, REQUIRED, wanted, [&](toml::node& node) {
        const size_t count = node.is_array_of_tables() ? node.as_array()->size() : 0;
        for (size_t i = 0; i < count; i++) {
            const Keys inner = {*(*node.as_array())[i].as_table(), keys.error};
            try {
                use(inner);
                FinishTable(inner);
            } catch (const Stop& stop) {
                throw Stop{stop.status, fmt::format("{} {}: {}", key, i + 1, stop.text)};
            }
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
    if (keys.error.empty() && text != first && text != second) {
        keys.error = fmt::format("{} is not \"{}\" or \"{}\"", key, first, second);
    }
    return text == first;
}
