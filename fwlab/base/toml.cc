#include "fwlab/base/toml.h"

#include "fwlab/base/stop.h"
#include "simphone/toml.h"

#include <fmt/format.h>
#include <stdexcept>

namespace {

// Stop with what `read` throws, behind the name of the place.
void ReadAt(const std::string& place, const std::function<void()>& read) {
    try {
        read();
    } catch (const Stop& stop) {
        throw Stop{stop.status, place + stop.text};
    } catch (const std::runtime_error& wrong) {
        throw Stop{2, place + wrong.what()};
    }
}

} // namespace

void ReadToml(const std::string& path, const std::function<void(Keys)>& use) {
    ReadAt("", [&] {
        toml::table table = ReadTable(path);
        ReadAt(path + ": ", [&] {
            use(table);
            RefuseTheRest(table);
        });
    });
}

void TakeTables(Keys keys, const char* key, const char* wanted,
                const std::function<void(Keys)>& use) {
    Take(keys, key, REQUIRED, wanted, [&](toml::node& node) {
        const size_t count = node.is_array_of_tables() ? node.as_array()->size() : 0;
        for (size_t i = 0; i < count; i++) {
            ReadAt(fmt::format("{} {}: ", key, i + 1), [&] {
                toml::table& inner = *(*node.as_array())[i].as_table();
                use(inner);
                RefuseTheRest(inner);
            });
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
