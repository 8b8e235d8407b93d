// Reads phone.toml. Whatever is unknown, missing or of the wrong type is refused before a run;
// nothing is written.
#include "simphone/description.h"

#include "simphone/keys.h"
#include "simphone/text.h"
#include "simphone/toml.h"

#include <climits>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace {

// In the order of their enumerators.
constexpr const char* ANSWERS[] = {"good", "sense", "descriptor-sense", "status", "host", "driver"};

bool ParseAnswer(const std::string& text, DeviceAnswer& answer) {
    std::istringstream words(text);
    std::string kind, rest;
    words >> kind;
    answer.kind = static_cast<DeviceAnswer::Kind>(PlaceOf(kind, ANSWERS));
    bool isRight = PlaceOf(kind, ANSWERS) < std::size(ANSWERS);
    if (answer.IsSense()) {
        unsigned key = 0, asc = 0, ascq = 0;
        char slash = 0, secondSlash = 0;
        words >> std::hex >> key >> slash >> asc >> secondSlash >> ascq;
        answer.key = static_cast<uint8_t>(key);
        answer.asc = static_cast<uint8_t>(asc);
        answer.ascq = static_cast<uint8_t>(ascq);
        isRight = words && slash == '/' && secondSlash == '/' && key < 16 && (asc | ascq) < 256;
    } else if (isRight && answer.kind != DeviceAnswer::Kind::ACCEPTED) {
        words >> std::setbase(0) >> answer.value;
        isRight = words && answer.value > 0 && answer.value < 256;
    }
    return isRight && !(words >> rest);
}

void TakeClock(Keys keys, Description& phone) {
    const char wanted[] = "a local time such as 2026-03-07T09:05:02.041";
    Take(keys, "clock", OPTIONAL, wanted, [&](const toml::node& node) {
        const auto clock = node.value_exact<toml::date_time>().value_or(toml::date_time{});
        tm local = {};
        local.tm_year = clock.date.year - 1900;
        local.tm_mon = clock.date.month - 1;
        local.tm_mday = clock.date.day;
        local.tm_hour = clock.time.hour;
        local.tm_min = clock.time.minute;
        local.tm_sec = clock.time.second;
        local.tm_isdst = -1;
        phone.clock = timeval{mktime(&local), clock.time.nanosecond / 1000};
        return node.is_date_time() && !clock.offset;
    });
}

constexpr uint8_t CBX_BGA = 0x01; // JEDEC CID: a device soldered to the board

void TakeCid(Keys keys, Description& phone) {
    const uint32_t serial = TakeNumber(keys, "serial_number", UINT32_MAX);
    phone.cid[0] = static_cast<uint8_t>(TakeNumber(keys, "manufacturer_id", 0xFF));
    phone.cid[1] = static_cast<uint8_t>(Has(keys, "cbx") ? TakeNumber(keys, "cbx", 0xFF) : CBX_BGA);
    phone.cid[2] = static_cast<uint8_t>(TakeNumber(keys, "oem_id", 0xFF, OPTIONAL));
    phone.productName = TakeBytes(keys, "product_name", 6);
    phone.productName.copy(reinterpret_cast<char*>(phone.cid) + 3, 6);
    phone.cid[9] = static_cast<uint8_t>(TakeNumber(keys, "product_revision", 0xFF));
    phone.cid[14] = static_cast<uint8_t>(TakeNumber(keys, "manufacturing_date", 0xFF, OPTIONAL));
    phone.cid[15] = static_cast<uint8_t>(TakeNumber(keys, "crc", 0xFF, OPTIONAL));
    for (int i = 0; i < 4; i++) {
        phone.cid[10 + i] = static_cast<uint8_t>(serial >> (24 - 8 * i));
    }
    Demand(phone.productName.size() == 6, "product_name is not 6 characters");
}

void TakeEmmc(Keys keys, Description& phone) {
    const std::string mode = TakeText(keys, "mode");
    phone.gki = mode == "gki";
    Demand(phone.gki || mode == "normal", "mode is not \"gki\" or \"normal\"");
    phone.revision = TakeBytes(keys, "revision", 8);
    phone.extCsdRev = static_cast<uint8_t>(TakeNumber(keys, "ext_csd_rev", 0xFF));
    TakeTable(keys, "cid", [&](Keys cid) { TakeCid(cid, phone); });
}

constexpr size_t NODE_SIZE = 4096; // a page: kernels give no more

void TakeUfs(Keys keys, Description& phone) {
    phone.manfid = TakeBytes(keys, "manfid", NODE_SIZE);
    phone.productName = TakeBytes(keys, "product_name", NODE_SIZE);
    phone.revision = TakeBytes(keys, "revision", 4);
    phone.maxHwSectorsKb = TakeNumber(keys, "max_hw_sectors_kb", INT_MAX / 1024, OPTIONAL);
    for (const std::string& text : TakeTexts(keys, "write_buffer")) {
        Demand(ParseAnswer(text, phone.answers.emplace_back()),
               "write_buffer: not an answer: " + Escaped(text));
    }
    if (phone.answers.empty()) {
        phone.answers.emplace_back();
    }
}

void TakePhone(Keys keys, Description& phone) {
    const std::string technology = TakeText(keys, "technology");
    phone.ufs = technology == "ufs";
    Demand(phone.ufs || technology == "emmc", "technology is not \"emmc\" or \"ufs\"");
    phone.ufs ? TakeUfs(keys, phone) : TakeEmmc(keys, phone);
    TakeTable(keys, "firmware", [&](Keys firmware) {
        phone.firmwareRevision = TakeBytes(firmware, "revision", phone.ufs ? 4 : 8);
    });
    TakeClock(keys, phone);
    for (const std::string& text : TakeTexts(keys, "faults")) {
        phone.faults.push_back(ParseFault(text));
    }
    RefuseTheRest(keys);
}

// The TOML library writes texts with line feeds in other forms than one line so that it cannot read
// them back.
constexpr auto TEXT_FLAGS =
    toml::toml_formatter::default_flags &
    ~(toml::format_flags::allow_multi_line_strings | toml::format_flags::allow_literal_strings);

} // namespace

Description ReadDescription(const std::string& file, const std::vector<std::string>& settings) {
    Description phone = {};
    toml::table table = ReadTable(file, &phone.text);
    for (const std::string& setting : settings) {
        SetKey(table, setting);
    }
    if (!settings.empty()) {
        std::ostringstream stream;
        stream << toml::toml_formatter(table, TEXT_FLAGS) << "\n";
        phone.text = stream.str();
    }
    try {
        TakePhone(table, phone);
    } catch (const std::runtime_error& wrong) {
        throw std::runtime_error(file + ": " + wrong.what());
    }
    return phone;
}
