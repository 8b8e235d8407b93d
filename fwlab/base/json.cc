#include "fwlab/base/json.h"

#include <fmt/format.h>

void Show(bool asJson, const Json& report, const std::function<void()>& print) {
    if (asJson) {
        fmt::print("{}\n", report.dump(2));
    } else {
        print();
    }
}

std::string Shown(const Json& value) {
    std::string shown;
    for (const Json& element : value.is_array() ? value : Json::array({value})) {
        const bool isText = element.is_string();
        shown += (shown.empty() ? "" : " ") +
                 (isText ? '"' + element.get<std::string>() + '"' : element.dump());
    }
    return shown;
}
