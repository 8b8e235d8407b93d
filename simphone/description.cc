// Reads phone.toml and the texts of faults. Whatever is unknown, missing or of the wrong type is
// refused before a run; nothing is written.
#include "description.h"

#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

static bool Number(const std::string& text, long& number) {
    const char* end = text.data() + text.size();
    const auto [stop, status] = std::from_chars(text.data(), end, number);
    return status == std::errc() && stop == end && number >= 0;
}

// The effects that a call can have, besides the end of power: e an errno, n a null pointer, r a
// result, s fewer bytes. Null for a call that is not known.
static const char* EffectsOf(const std::string& call) {
    static const std::map<std::string, const char*> effects = {{"any", "enrs"},
                                                               {"read", "ers"},
                                                               {"write", "ers"},
                                                               {"open", "er"},
                                                               {"creat", "er"},
                                                               {"access", "er"},
                                                               {"lseek", "er"},
                                                               {"fsync", "er"},
                                                               {"close", "er"},
                                                               {"fstat", "er"},
                                                               {"munmap", "er"},
                                                               {"remove", "er"},
                                                               {"unlink", "er"},
                                                               {"mkdir", "er"},
                                                               {"ioctl", "er"},
                                                               {"posix_memalign", "er"},
                                                               {"time", "er"},
                                                               {"gettimeofday", "er"},
                                                               {"fclose", "er"},
                                                               {"sleep", "r"},
                                                               {"SG_IO", "er"},
                                                               {"SG_SCSI_RESET", "er"},
                                                               {"SEND_EXT_CSD", "er"},
                                                               {"FFU_INSTALL", "er"},
                                                               {"FFU_DOWNLOAD", "er"},
                                                               {"mmap", "e"},
                                                               {"realpath", "en"},
                                                               {"calloc", "en"},
                                                               {"memalign", "en"},
                                                               {"localtime", "en"},
                                                               {"ctime", "en"},
                                                               {"fopen", "en"},
                                                               {"fgets", "en"},
                                                               {"free", ""},
                                                               {"__android_log_print", ""}};
    const auto found = effects.find(call);
    return found == effects.end() ? nullptr : found->second;
}

static bool ParseEffect(const std::string& word, const char* allowed, Fault& fault) {
    static const std::map<std::string, Fault::Effect> counted = {
        {"short", Fault::kShort}, {"torn", Fault::kTorn}, {"returns", Fault::kReturns}};
    if (word == "end" || word == "end-after") {
        fault.effect = word == "end" ? Fault::kEnd : Fault::kEndAfter;
        return true;
    }
    if (word == "null") {
        fault.effect = Fault::kNull;
        return strchr(allowed, 'n') != nullptr;
    }
    const size_t equals = word.find('=');
    const auto found = counted.find(word.substr(0, equals));
    if (equals != std::string::npos && found != counted.end()) {
        fault.effect = found->second;
        return Number(word.substr(equals + 1), fault.value) &&
               strchr(allowed, fault.effect == Fault::kReturns ? 'r' : 's');
    }
    fault.effect = Fault::kErrno;
    for (fault.value = 1; fault.value < 256; fault.value++) {
        const char* name = strerrorname_np(static_cast<int>(fault.value));
        if (name && word == name) {
            return strchr(allowed, 'e') != nullptr;
        }
    }
    return false;
}

static bool ParseRange(const std::string& word, Fault& fault) {
    const size_t dash = word.find('-');
    if (word.back() == '+') {
        return Number(word.substr(1, word.size() - 2), fault.first) && fault.first > 0;
    }
    if (!Number(word.substr(1, dash - 1), fault.first) || fault.first == 0) {
        return false;
    }
    fault.last = fault.first;
    return dash == std::string::npos ||
           (Number(word.substr(dash + 1), fault.last) && fault.last >= fault.first);
}

bool ParseFault(const std::string& text, Fault& fault, std::string& error) {
    std::istringstream stream(text);
    std::string word, rest;
    fault = {};
    fault.first = 1;
    fault.last = LONG_MAX;
    stream >> fault.call;
    const char* allowed = EffectsOf(fault.call);
    if (!allowed) {
        error = "fault \"" + text + "\": no such call: " + fault.call;
        return false;
    }
    stream >> word;
    if (word[0] == '/') {
        fault.path = word;
        word.clear();
        stream >> word;
    }
    if (word[0] == '#') {
        if (!ParseRange(word, fault)) {
            error = "fault \"" + text + "\": " + word + " is not #N, #N-M or #N+";
            return false;
        }
        word.clear();
        stream >> word;
    }
    if (!ParseEffect(word, allowed, fault) || stream >> rest) {
        error = "fault \"" + text + "\": not an effect that the call can have: " + word + rest;
        return false;
    }
    return true;
}

static bool ParseAnswer(const std::string& text, Answer& answer) {
    answer = {};
    if (text == "good") {
        return true;
    }
    unsigned key = 0, asc = 0, ascq = 0;
    int read = 0;
    const bool descriptor = text.rfind("descriptor-", 0) == 0;
    const char* sense = text.c_str() + (descriptor ? strlen("descriptor-") : 0);
    if (sscanf(sense, "sense %x/%x/%x%n", &key, &asc, &ascq, &read) == 3 && !sense[read]) {
        answer.kind = descriptor ? Answer::kDescriptorSense : Answer::kSense;
        answer.key = static_cast<uint8_t>(key);
        answer.asc = static_cast<uint8_t>(asc);
        answer.ascq = static_cast<uint8_t>(ascq);
        return key < 16 && asc < 256 && ascq < 256;
    }
    char layer[8] = {};
    int value = 0;
    if (sscanf(text.c_str(), "%7s %i%n", layer, &value, &read) != 2 ||
        text[static_cast<size_t>(read)]) {
        return false;
    }
    static const std::map<std::string, Answer::Kind> layers = {
        {"status", Answer::kStatus}, {"host", Answer::kHost}, {"driver", Answer::kDriver}};
    const auto found = layers.find(layer);
    if (found == layers.end() || value < 1 || value > 255) {
        return false;
    }
    answer.kind = found->second;
    answer.value = static_cast<unsigned>(value);
    return true;
}

// The keys are taken out of their table as they are read, so that what is left in the end is
// unknown. After the first error nothing more is read.
struct Keys {
    toml::table& table;
    std::string& error;
};

static toml::node* Find(Keys keys, const char* key, bool optional) {
    toml::node* node = keys.error.empty() ? keys.table.get(key) : nullptr;
    if (!node && !optional && keys.error.empty()) {
        keys.error = std::string(key) + " is missing";
    }
    return node;
}

static void Done(Keys keys, const char* key, bool right, const char* wanted) {
    if (!right && keys.error.empty()) {
        keys.error = std::string(key) + " is not " + wanted;
    }
    keys.table.erase(key);
}

static std::string TakeText(Keys keys, const char* key) {
    const toml::node* node = Find(keys, key, false);
    if (!node) {
        return "";
    }
    const auto text = node->value_exact<std::string>();
    Done(keys, key, text.has_value(), "a text");
    return text.value_or("");
}

static uint32_t TakeNumber(Keys keys, const char* key, uint32_t most) {
    const toml::node* node = Find(keys, key, false);
    if (!node) {
        return 0;
    }
    const int64_t number = node->value_exact<int64_t>().value_or(-1);
    Done(keys, key, number >= 0 && number <= most, "a number of its field's size");
    return static_cast<uint32_t>(number);
}

static std::string TakeBytes(Keys keys, const char* key, size_t most) {
    toml::node* node = Find(keys, key, false);
    if (!node) {
        return "";
    }
    std::string bytes = node->value_exact<std::string>().value_or("");
    bool right = node->is_string() || node->is_array();
    if (const toml::array* numbers = node->as_array()) {
        for (const toml::node& element : *numbers) {
            const int64_t number = element.value_exact<int64_t>().value_or(-1);
            right = right && number >= 0 && number < 256;
            bytes += static_cast<char>(number);
        }
    }
    Done(keys, key, right && bytes.size() <= most, "a text or a list of bytes that fits its field");
    return bytes;
}

static std::vector<std::string> TakeTexts(Keys keys, const char* key) {
    std::vector<std::string> texts;
    toml::node* node = Find(keys, key, true);
    if (!node) {
        return texts;
    }
    bool right = node->is_string() || node->is_array();
    if (node->is_string()) {
        texts.push_back(*node->value<std::string>());
    } else if (const toml::array* list = node->as_array()) {
        for (const toml::node& element : *list) {
            right = right && element.is_string();
            texts.push_back(element.value_exact<std::string>().value_or(""));
        }
    }
    Done(keys, key, right, "a text or a list of texts");
    return texts;
}

static void TakeClock(Keys keys, Description& phone) {
    const toml::node* node = Find(keys, "clock", true);
    if (!node) {
        return;
    }
    const auto clock = node->value_exact<toml::date_time>().value_or(toml::date_time{});
    phone.clockFixed = true;
    phone.clock.tm_year = clock.date.year - 1900;
    phone.clock.tm_mon = clock.date.month - 1;
    phone.clock.tm_mday = clock.date.day;
    phone.clock.tm_hour = clock.time.hour;
    phone.clock.tm_min = clock.time.minute;
    phone.clock.tm_sec = clock.time.second;
    phone.clock.tm_isdst = -1;
    phone.clockMilliseconds = static_cast<int>(clock.time.nanosecond / 1000000);
    Done(keys, "clock", node->is_date_time() && !clock.offset,
         "a local time such as 2026-03-07T09:05:02.041");
}

static void TakeTable(Keys keys, const char* name, void (*take)(Keys, Description&),
                      Description& phone) {
    toml::node* node = Find(keys, name, false);
    if (!node) {
        return;
    }
    if (toml::table* table = node->as_table()) {
        take({*table, keys.error}, phone);
        if (!table->empty() && keys.error.empty()) {
            keys.error = std::string("[") + name +
                         "] has an unknown key: " + std::string(table->begin()->first.str());
        }
    }
    Done(keys, name, node->is_table(), "a table");
}

static void TakeCid(Keys keys, Description& phone) {
    const uint32_t manufacturer = TakeNumber(keys, "manufacturer_id", 0xFF);
    const uint32_t revision = TakeNumber(keys, "product_revision", 0xFF);
    const uint32_t serial = TakeNumber(keys, "serial_number", UINT32_MAX);
    phone.productName = TakeText(keys, "product_name");
    if (phone.productName.size() != 6) {
        Done(keys, "product_name", false, "6 characters");
        return;
    }
    phone.cid[0] = static_cast<uint8_t>(manufacturer);
    phone.cid[1] = 0x01; // CBX: a device soldered to the board
    memcpy(phone.cid + 3, phone.productName.data(), 6);
    phone.cid[9] = static_cast<uint8_t>(revision);
    for (int i = 0; i < 4; i++) {
        phone.cid[10 + i] = static_cast<uint8_t>(serial >> (24 - 8 * i));
    }
}

static void TakeFirmware(Keys keys, Description& phone) {
    phone.firmwareRevision = TakeBytes(keys, "revision", phone.ufs ? 4 : 8);
}

static void TakeEmmc(Keys keys, Description& phone) {
    const std::string mode = TakeText(keys, "mode");
    phone.gki = mode == "gki";
    Done(keys, "mode", phone.gki || mode == "normal", "\"gki\" or \"normal\"");
    phone.revision = TakeBytes(keys, "revision", 8);
    phone.extCsdRev = static_cast<uint8_t>(TakeNumber(keys, "ext_csd_rev", 0xFF));
    TakeTable(keys, "cid", TakeCid, phone);
}

static void TakeUfs(Keys keys, Description& phone) {
    phone.manfid = TakeText(keys, "manfid");
    phone.productName = TakeText(keys, "product_name");
    phone.revision = TakeBytes(keys, "revision", 4);
    for (const std::string& text : TakeTexts(keys, "write_buffer")) {
        phone.answers.emplace_back();
        if (!ParseAnswer(text, phone.answers.back()) && keys.error.empty()) {
            keys.error = "write_buffer: not an answer: " + text;
        }
    }
    if (phone.answers.empty()) {
        phone.answers.emplace_back();
    }
}

bool ReadDescription(const std::string& file, Description& description, std::string& error) {
    toml::parse_result parsed = toml::parse_file(file);
    if (!parsed) {
        error = file + ":" + std::to_string(parsed.error().source().begin.line) + ": " +
                std::string(parsed.error().description());
        return false;
    }
    std::string wrong;
    const Keys keys = {parsed.table(), wrong};
    Description phone = {};
    const std::string technology = TakeText(keys, "technology");
    phone.ufs = technology == "ufs";
    Done(keys, "technology", phone.ufs || technology == "emmc", "\"emmc\" or \"ufs\"");
    phone.ufs ? TakeUfs(keys, phone) : TakeEmmc(keys, phone);
    TakeTable(keys, "firmware", TakeFirmware, phone);
    TakeClock(keys, phone);
    for (const std::string& text : TakeTexts(keys, "faults")) {
        phone.faults.emplace_back();
        if (wrong.empty()) {
            (void)ParseFault(text, phone.faults.back(), wrong);
        }
    }
    if (wrong.empty() && !keys.table.empty()) {
        wrong = "unknown key: " + std::string(keys.table.begin()->first.str());
    }
    if (!wrong.empty()) {
        error = file + ": " + wrong;
        return false;
    }
    description = phone;
    return true;
}
