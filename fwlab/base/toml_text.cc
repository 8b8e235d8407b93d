// Values as the TOML reader of this project reads them back, byte by byte.
#include "fwlab/base/toml_text.h"

#include <algorithm>
#include <fmt/format.h>

std::string TomlList(const std::string& bytes) {
    std::string list;
    for (const char byte : bytes) {
        list += fmt::format("{}{:#04x}", list.empty() ? "" : ", ", static_cast<uint8_t>(byte));
    }
    return "[" + list + "]";
}

std::string TomlBytes(const std::string& bytes) {
    const bool isText = std::all_of(bytes.begin(), bytes.end(), [](char byte) {
        return byte == '\n' || (byte >= ' ' && byte <= '~');
    });
    if (!isText) {
        return TomlList(bytes);
    }
    std::string text;
    for (const char byte : bytes) {
        text += byte == '\n' ? "\\n" : byte == '"' || byte == '\\' ? "\\" : "";
        text += byte == '\n' ? "" : std::string(1, byte);
    }
    return '"' + text + '"';
}
