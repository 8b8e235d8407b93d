// Reads TOML tables.
#include "simphone/keys.h"

#include "simphone/files.h"
#include "simphone/text.h"
#include "simphone/toml.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace {

constexpr size_t DOTS_MAX = 64;
constexpr size_t FILE_SIZE_MAX = 16 << 20;

// The first line with too many dots; 0 if there is none. The TOML library would make a table in a
// table for each part of a key, and overflow the stack. Dots in a row count once: no key has them.
size_t DeepLine(const std::string& text) {
    size_t line = 1, dots = 0;
    for (size_t i = 0; i < text.size() && dots <= DOTS_MAX; i++) {
        if (text[i] == '\n') {
            line++;
            dots = 0;
        } else if (text[i] == '.' && i > 0 && text[i - 1] != '.') {
            dots++;
        }
    }
    return dots > DOTS_MAX ? line : 0;
}

bool EndsLine(const std::string& text) {
    return !text.empty() && text.back() == '\n';
}

} // namespace

toml::table ReadTable(const std::string& file, std::string* text) {
    std::error_code status;
    const bool isRegular = std::filesystem::is_regular_file(file, status);
    if (!isRegular || std::filesystem::file_size(file, status) > FILE_SIZE_MAX) {
        throw std::runtime_error(
            file + ": " + (status ? status.message() : "is no regular file of at most 16 MiB"));
    }
    const std::string content = WholeFile(file);
    const size_t deep = DeepLine(content);
    Demand(deep == 0, file + ":" + std::to_string(deep) + ": more than " +
                          std::to_string(DOTS_MAX) + " dots in a line");
    if (text != nullptr) {
        *text = content;
    }
    try {
        return toml::parse(content);
    } catch (const toml::parse_error& error) {
        throw std::runtime_error(file + ":" + std::to_string(error.source().begin.line) + ": " +
                                 std::string(error.description()));
    }
}

void SetKey(Keys keys, const std::string& setting) {
    const size_t equals = setting.find('=');
    const std::string path = setting.substr(0, equals), key = path.substr(path.rfind('.') + 1);
    const std::string value = equals == std::string::npos ? "" : setting.substr(equals + 1);
    toml::table* parent = &keys;
    if (key.size() < path.size()) {
        parent = keys.at_path(path.substr(0, path.size() - key.size() - 1)).as_table();
    }
    Demand(equals != std::string::npos && !key.empty() && parent != nullptr,
           Escaped(setting) + ": is not KEY=VALUE, with a key that the description can have");
    const toml::node* old = parent->get(key);
    const bool isBare = old != nullptr && (old->is_string() || old->is_array()) &&
                        (value.empty() || strchr("\"'[", value[0]) == nullptr);
    std::string text = DeepLine(value) > 0 ? "" : "value = " + value;
    if (isBare) {
        std::string bytes;
        Demand(Unescape(value, bytes), Escaped(setting) + R"(: a backslash begins \n, \\ or \xHH)");
        const bool isLine = EndsLine(old->value_exact<std::string>().value_or(""));
        text = "value = " + TomlBytes(bytes + (isLine && !EndsLine(bytes) ? "\n" : ""));
    }
    toml::table parsed;
    try {
        parsed = toml::parse(text);
    } catch (const toml::parse_error&) { // then it has no value
    }
    if (parsed.size() == 1) {
        parent->insert_or_assign(key, *parsed.get("value"));
    } else {
        Demand(old == nullptr, Escaped(setting) + ": the value is not TOML");
        parent->insert(key, value); // a new key: its reader tells what is wrong
    }
}

std::string TomlList(const std::string& bytes) {
    std::string list;
    for (const char byte : bytes) {
        list += (list.empty() ? "0x" : ", 0x") + Hex(&byte, 1);
    }
    return "[" + list + "]";
}

std::string TomlBytes(const std::string& bytes) {
    const bool isText = std::all_of(bytes.begin(), bytes.end(), [](char byte) {
        return byte == '\n' || (byte >= ' ' && byte <= '~' && byte != '"');
    });
    return isText ? Quoted(bytes) : TomlList(bytes);
}

bool Has(Keys keys, const char* key) {
    return keys.contains(key);
}

void Take(Keys keys, const char* key, Need need, const char* wanted,
          const std::function<bool(toml::node&)>& use) {
    toml::node* node = keys.get(key);
    Demand(node != nullptr || need == OPTIONAL, std::string(key) + " is missing");
    if (node != nullptr) {
        Demand(use(*node), std::string(key) + " is not " + wanted);
        keys.erase(key);
    }
}

void Demand(bool isRight, const std::string& otherwise) {
    if (!isRight) {
        throw std::runtime_error(otherwise);
    }
}

std::string TakeText(Keys keys, const char* key) {
    std::string text;
    Take(keys, key, REQUIRED, "a text", [&](const toml::node& node) {
        text = node.value_exact<std::string>().value_or("");
        return node.is_string();
    });
    return text;
}

uint32_t TakeNumber(Keys keys, const char* key, uint32_t most, Need need) {
    int64_t number = 0;
    Take(keys, key, need, "a number of its field's size", [&](const toml::node& node) {
        number = node.value_exact<int64_t>().value_or(-1);
        return number >= 0 && number <= most;
    });
    return static_cast<uint32_t>(number);
}

std::string TakeBytes(Keys keys, const char* key, size_t most) {
    std::string bytes;
    Take(keys, key, REQUIRED, "a text or a list of bytes that fits",
         [&](const toml::node& node) { return AppendBytes(node, bytes) && bytes.size() <= most; });
    return bytes;
}

std::vector<std::string> TakeTexts(Keys keys, const char* key) {
    std::vector<std::string> texts;
    Take(keys, key, OPTIONAL, "a text or a list of texts", [&](toml::node& node) {
        const toml::array list = node.is_array() ? *node.as_array() : toml::array{node};
        for (const toml::node& element : list) {
            texts.push_back(element.value_exact<std::string>().value_or(""));
        }
        return list.is_homogeneous(toml::node_type::string) || list.empty();
    });
    return texts;
}

bool AppendBytes(const toml::node& node, std::string& bytes) {
    bytes += node.value_exact<std::string>().value_or("");
    bool right = node.is_string() || node.is_array();
    for (size_t i = 0; node.is_array() && i < node.as_array()->size(); i++) {
        const int64_t number = (*node.as_array())[i].value_exact<int64_t>().value_or(-1);
        right = right && number >= 0 && number < 256;
        bytes += static_cast<char>(number);
    }
    return right;
}

void RefuseTheRest(Keys keys) {
    if (!keys.empty()) {
        throw std::runtime_error("unknown key: " + Escaped(std::string(keys.begin()->first.str())));
    }
}

void TakeTable(Keys keys, const char* key, const std::function<void(Keys)>& use) {
    Take(keys, key, REQUIRED, "a table", [&](toml::node& node) {
        if (toml::table* table = node.as_table()) {
            use(*table);
            RefuseTheRest(*table);
        }
        return node.is_table();
    });
}
