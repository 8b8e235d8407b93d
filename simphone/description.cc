// Reads phone.toml and the texts of faults. Whatever is unknown, missing or of the wrong type is
// refused before a run; nothing is written.
#include "description.h"

#include "files.h"
#include "keys.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <iomanip>
#include <map>
#include <sstream>

static bool Number(const std::string& text, long& number) {
    const char* end = text.data() + text.size();
    const auto [stop, status] = std::from_chars(text.data(), end, number);
    return status == std::errc() && stop == end && number >= 0;
}

// Which calls can have which effects, besides the end of power: e an errno, n a null pointer,
// r a result, s fewer bytes.
static const struct {
    const char* effects;
    const char* calls; // a blank around each name
} kCalls[] = {
    {"enrs", " any "},
    {"ers", " read write "},
    {"er", " open creat access lseek fsync close fstat munmap remove unlink mkdir fclose time "
           "gettimeofday posix_memalign ioctl SG_IO SG_SCSI_RESET SEND_EXT_CSD FFU_DOWNLOAD "
           "FFU_INSTALL "},
    {"en", " realpath calloc memalign localtime ctime fopen fgets "},
    {"e", " mmap "},
    {"r", " sleep "},
    {"", " free __android_log_print "},
};

static const char* EffectsOf(const std::string& call) {
    for (const auto& row : kCalls) {
        if (strstr(row.calls, (" " + call + " ").c_str())) {
            return row.effects;
        }
    }
    return nullptr;
}

bool CanHave(const std::string& call, Fault::Effect effect) {
    static const char letters[] = {'e', 'n', 'r', 's', 's'}; // in the order of Fault::Effect
    const char* effects = EffectsOf(call);
    return effect == Fault::kEnd || effect == Fault::kEndAfter ||
           (effects && strchr(effects, letters[effect]));
}

static bool ParseEffect(const std::string& word, Fault& fault) {
    const size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    if (equals != std::string::npos) {
        fault.effect = name == "short"  ? Fault::kShort
                       : name == "torn" ? Fault::kTorn
                                        : Fault::kReturns;
        return (fault.effect != Fault::kReturns || name == "returns") &&
               Number(word.substr(equals + 1), fault.value);
    }
    if (word == "end" || word == "end-after" || word == "null") {
        fault.effect = word == "end"    ? Fault::kEnd
                       : word == "null" ? Fault::kNull
                                        : Fault::kEndAfter;
        return true;
    }
    fault.effect = Fault::kErrno;
    for (fault.value = 1; fault.value < 256; fault.value++) {
        const char* known = strerrorname_np(static_cast<int>(fault.value));
        if (known && word == known) {
            return true;
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

static const char* const kLossWords[] = {"lost", "empty", "gone"}; // in the order of Loss

// One word, such as "lost=fw_result,ffu.bgn"; a file has one fate.
static bool ParseLosses(const std::string& word, Losses& losses) {
    const size_t equals = word.find('=');
    const auto found =
        std::find(std::begin(kLossWords), std::end(kLossWords), word.substr(0, equals));
    if (equals == std::string::npos || found == std::end(kLossWords)) {
        return false;
    }
    std::istringstream names(word.substr(equals + 1));
    bool right = names.peek() != EOF && word.back() != ',';
    for (std::string name; right && std::getline(names, name, ',');) {
        right = !name.empty() && name.find('/') == std::string::npos &&
                losses.emplace(name, static_cast<Loss>(found - kLossWords)).second;
    }
    return right;
}

std::string LossText(const Losses& losses) {
    std::string text;
    for (const Loss loss : {Loss::kLost, Loss::kEmpty, Loss::kGone}) {
        std::string names;
        for (const auto& [name, fate] : losses) {
            names += fate != loss ? "" : (names.empty() ? "" : ",") + name;
        }
        if (!names.empty()) {
            text +=
                (text.empty() ? "" : " ") + (kLossWords[static_cast<size_t>(loss)] + ("=" + names));
        }
    }
    return text;
}

bool ParseFault(const std::string& text, Fault& fault, std::string& error) {
    std::istringstream stream(text);
    std::string word;
    fault = {};
    fault.text = text;
    if (text.find('\n') != std::string::npos) { // one a line, on their way to the library
        error = "fault \"" + Escaped(text) + "\": has a line feed";
        return false;
    }
    fault.first = 1;
    fault.last = LONG_MAX;
    stream >> fault.call;
    if (!EffectsOf(fault.call)) {
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
    if (!ParseEffect(word, fault) || !CanHave(fault.call, fault.effect)) {
        error = "fault \"" + text + "\": not an effect that the call can have: " + word;
        return false;
    }
    while (stream >> word) {
        if (fault.effect < Fault::kTorn || !ParseLosses(word, fault.losses)) {
            error = "fault \"" + text + "\": not what a power cut can do: ";
            error += word;
            return false;
        }
    }
    return true;
}

static bool ParseAnswer(const std::string& text, Answer& answer) {
    static const std::map<std::string, Answer::Kind> kinds = {
        {"sense", Answer::kSense},   {"descriptor-sense", Answer::kDescriptorSense},
        {"status", Answer::kStatus}, {"host", Answer::kHost},
        {"driver", Answer::kDriver}, {"good", Answer::kGood}};
    std::istringstream words(text);
    std::string kind, rest;
    words >> kind;
    const auto found = kinds.find(kind);
    if (found == kinds.end()) {
        return false;
    }
    answer = {};
    answer.kind = found->second;
    bool right = true;
    if (answer.kind == Answer::kSense || answer.kind == Answer::kDescriptorSense) {
        unsigned key = 0, asc = 0, ascq = 0;
        char slashes[2] = {};
        words >> std::hex >> key >> slashes[0] >> asc >> slashes[1] >> ascq;
        answer.key = static_cast<uint8_t>(key);
        answer.asc = static_cast<uint8_t>(asc);
        answer.ascq = static_cast<uint8_t>(ascq);
        right =
            words && slashes[0] == '/' && slashes[1] == '/' && key < 16 && asc < 256 && ascq < 256;
    } else if (answer.kind != Answer::kGood) {
        words >> std::setbase(0) >> answer.value;
        right = words && answer.value > 0 && answer.value < 256;
    }
    return right && !(words >> rest);
}

static void TakeClock(Keys keys, Description& phone) {
    const char wanted[] = "a local time such as 2026-03-07T09:05:02.041";
    Take(keys, "clock", kOptional, wanted, [&](const toml::node& node) {
        const auto clock = node.value_exact<toml::date_time>().value_or(toml::date_time{});
        phone.clockFixed = true;
        phone.clock.tm_year = clock.date.year - 1900;
        phone.clock.tm_mon = clock.date.month - 1;
        phone.clock.tm_mday = clock.date.day;
        phone.clock.tm_hour = clock.time.hour;
        phone.clock.tm_min = clock.time.minute;
        phone.clock.tm_sec = clock.time.second;
        phone.clock.tm_isdst = -1;
        phone.clockMicroseconds = static_cast<int>(clock.time.nanosecond / 1000);
        return node.is_date_time() && !clock.offset;
    });
}

static const uint8_t CBX_BGA = 0x01; // JEDEC CID: a device soldered to the board

static void TakeCid(Keys keys, Description& phone) {
    const uint32_t serial = TakeNumber(keys, "serial_number", UINT32_MAX);
    phone.cid[0] = static_cast<uint8_t>(TakeNumber(keys, "manufacturer_id", 0xFF));
    const bool hasCbx = keys.table.contains("cbx");
    phone.cid[1] = static_cast<uint8_t>(hasCbx ? TakeNumber(keys, "cbx", 0xFF) : CBX_BGA);
    phone.cid[2] = static_cast<uint8_t>(TakeNumber(keys, "oem_id", 0xFF, kOptional));
    phone.productName = TakeBytes(keys, "product_name", 6);
    phone.productName.copy(reinterpret_cast<char*>(phone.cid) + 3, 6);
    phone.cid[9] = static_cast<uint8_t>(TakeNumber(keys, "product_revision", 0xFF));
    phone.cid[14] = static_cast<uint8_t>(TakeNumber(keys, "manufacturing_date", 0xFF, kOptional));
    phone.cid[15] = static_cast<uint8_t>(TakeNumber(keys, "crc", 0xFF, kOptional));
    for (int i = 0; i < 4; i++) {
        phone.cid[10 + i] = static_cast<uint8_t>(serial >> (24 - 8 * i));
    }
    if (keys.error.empty() && phone.productName.size() != 6) {
        keys.error = "product_name is not 6 characters";
    }
}

static void TakeEmmc(Keys keys, Description& phone) {
    const std::string mode = TakeText(keys, "mode");
    phone.gki = mode == "gki";
    if (keys.error.empty() && !phone.gki && mode != "normal") {
        keys.error = "mode is not \"gki\" or \"normal\"";
    }
    phone.revision = TakeBytes(keys, "revision", 8);
    phone.extCsdRev = static_cast<uint8_t>(TakeNumber(keys, "ext_csd_rev", 0xFF));
    Take(keys, "cid", kRequired, "a table", [&](toml::node& node) {
        if (toml::table* table = node.as_table()) {
            TakeCid({*table, keys.error}, phone);
            RefuseTheRest({*table, keys.error});
        }
        return node.is_table();
    });
}

static const size_t NODE_SIZE = 4096; // a page: kernels give no more

static void TakeUfs(Keys keys, Description& phone) {
    phone.manfid = TakeBytes(keys, "manfid", NODE_SIZE);
    phone.productName = TakeBytes(keys, "product_name", NODE_SIZE);
    phone.revision = TakeBytes(keys, "revision", 4);
    phone.maxHwSectorsKb = TakeNumber(keys, "max_hw_sectors_kb", INT_MAX / 1024, kOptional);
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

static void TakePhone(Keys keys, Description& phone) {
    const std::string technology = TakeText(keys, "technology");
    phone.ufs = technology == "ufs";
    if (keys.error.empty() && !phone.ufs && technology != "emmc") {
        keys.error = "technology is not \"emmc\" or \"ufs\"";
    }
    phone.ufs ? TakeUfs(keys, phone) : TakeEmmc(keys, phone);
    Take(keys, "firmware", kRequired, "a table", [&](toml::node& node) {
        if (toml::table* table = node.as_table()) {
            phone.firmwareRevision = TakeBytes({*table, keys.error}, "revision", phone.ufs ? 4 : 8);
            RefuseTheRest({*table, keys.error});
        }
        return node.is_table();
    });
    TakeClock(keys, phone);
    for (const std::string& text : TakeTexts(keys, "faults")) {
        phone.faults.emplace_back();
        if (keys.error.empty()) {
            (void)ParseFault(text, phone.faults.back(), keys.error);
        }
    }
    RefuseTheRest(keys);
}

bool ReadDescription(const std::string& file, Description& description, std::string& error) {
    toml::table table;
    if (!ReadTable(file, table, error)) {
        return false;
    }
    std::string wrong;
    description = {};
    TakePhone({table, wrong}, description);
    error = wrong.empty() ? "" : file + ": " + wrong;
    return wrong.empty();
}
