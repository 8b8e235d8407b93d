// Reads the texts of faults. What no call can have is refused before a run.
#include "simphone/fault.h"

#include "simphone/text.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

// Which calls can have which effects, besides the end of power: e an error, r a result, s fewer
// bytes.
constexpr struct {
    const char* effects;
    const char* calls; // a blank around each name
} CALLS[] = {
    {"ers", " any read write "},
    {"er", " open creat access lseek fsync close fstat munmap remove unlink mkdir fclose time "
           "gettimeofday posix_memalign ioctl SG_IO SG_SCSI_RESET SEND_EXT_CSD FFU_DOWNLOAD "
           "FFU_INSTALL "},
    {"e", " realpath calloc memalign localtime ctime fopen fgets mmap "},
    {"r", " sleep "},
    {"", " __android_log_print "},
};

const char* EffectsOf(const std::string& call) {
    for (const auto& row : CALLS) {
        if (strstr(row.calls, (" " + call + " ").c_str()) != nullptr) {
            return row.effects;
        }
    }
    return nullptr;
}

bool ParseNumber(const std::string& text, long& number) {
    const char* end = text.data() + text.size();
    const auto [stop, status] = std::from_chars(text.data(), end, number);
    return status == std::errc() && stop == end && number >= 0;
}

constexpr const char* EFFECTS[] = {"returns=", "short=", "torn=", "end"}; // from RETURNS on
constexpr const char* LOSSES[] = {"lost=", "empty=", "gone=", "back=", "zeros="};

// The place of the word's beginning, up to its "=", in the table; `rest` is what stands behind it.
template <size_t SIZE>
size_t Find(const char* const (&table)[SIZE], const std::string& word, std::string& rest) {
    const size_t begin = std::min(word.find('='), word.size() - 1) + 1;
    rest = word.substr(begin);
    return PlaceOf(word.substr(0, begin), table);
}

bool ParseEffect(const std::string& word, Fault& fault) {
    std::string number;
    const size_t place = Find(EFFECTS, word, number);
    if (place < std::size(EFFECTS)) {
        fault.effect = static_cast<Effect>(place + static_cast<size_t>(Effect::RETURNS));
        return fault.effect == Effect::ENDS || ParseNumber(number, fault.value);
    }
    fault.effect = Effect::FAILS;
    for (fault.value = 1; fault.value < 256; fault.value++) {
        const char* known = strerrorname_np(static_cast<int>(fault.value));
        if (known != nullptr && word == known) {
            return true;
        }
    }
    return false;
}

// "#N", "#N-M" or "#N+".
bool ParseRange(const std::string& word, Fault& fault) {
    const size_t end = word.find_first_of("-+");
    if (!ParseNumber(word.substr(1, end - 1), fault.first) || fault.first == 0) {
        return false;
    }
    fault.last = end == std::string::npos ? fault.first : LONG_MAX;
    return end == std::string::npos || word.substr(end) == "+" ||
           (word[end] == '-' && ParseNumber(word.substr(end + 1), fault.last) &&
            fault.last >= fault.first);
}

// One word, such as "lost=fw_result,ffu.bgn"; a file has one fate.
bool ParseLosses(const std::string& word, Losses& losses) {
    std::string rest;
    const size_t place = Find(LOSSES, word, rest);
    std::istringstream names(rest);
    bool right = place < std::size(LOSSES) && !rest.empty() && rest.back() != ',';
    for (std::string name; right && std::getline(names, name, ',');) {
        right = !name.empty() && name.find('/') == std::string::npos &&
                losses.emplace(name, static_cast<Loss>(place)).second;
    }
    return right;
}

} // namespace

bool CanHave(const std::string& call, Effect effect) {
    const char letters[] = {'e', 'r', 's', 's'}; // in the order of Effect
    const char* effects = EffectsOf(call);
    return effect == Effect::ENDS ||
           (effects != nullptr && strchr(effects, letters[static_cast<size_t>(effect)]) != nullptr);
}

std::string LossText(const Losses& losses) {
    std::string text;
    for (size_t loss = 0; loss < std::size(LOSSES); loss++) {
        std::string begin = std::string(text.empty() ? "" : " ") + LOSSES[loss];
        for (const auto& [name, fate] : losses) {
            text += static_cast<size_t>(fate) == loss ? std::exchange(begin, ",") + name : "";
        }
    }
    return text;
}

std::string EffectText(const Fault& fault) {
    if (fault.effect == Effect::FAILS) {
        return strerrorname_np(static_cast<int>(fault.value));
    }
    const char* word = EFFECTS[static_cast<int>(fault.effect) - static_cast<int>(Effect::RETURNS)];
    return word + (fault.effect == Effect::ENDS ? "" : std::to_string(fault.value));
}

std::string FaultText(const Fault& fault) {
    const bool isEach = fault.first == 1 && fault.last == LONG_MAX;
    std::string range = " #" + std::to_string(fault.first);
    range += fault.last == LONG_MAX      ? "+"
             : fault.last != fault.first ? "-" + std::to_string(fault.last)
                                         : "";
    return fault.call + (fault.path.empty() ? "" : " " + fault.path) + (isEach ? "" : range) + " " +
           EffectText(fault) + (fault.losses.empty() ? "" : " ") + LossText(fault.losses);
}

Fault ParseFault(const std::string& text) {
    const std::string order = ": CALL PATH #N EFFECT is the order";
    const auto demand = [&](bool isRight, const std::string& otherwise) {
        if (!isRight) {
            throw std::runtime_error("fault " + Quoted(text) + ": " + otherwise);
        }
    };
    std::istringstream words(text);
    const auto next = [&words] { // empty behind the last one
        std::string word;
        words >> word;
        return word;
    };
    Fault fault = {};
    demand(text.find('\n') == std::string::npos, "has a line feed"); // one a line, to the library
    fault.call = next();
    demand(EffectsOf(fault.call) != nullptr, "no such call: " + fault.call);
    std::string word = next();
    if (word[0] == '/') {
        fault.path = std::exchange(word, next());
    }
    if (word[0] == '#') {
        demand(ParseRange(word, fault), word + " is not #N, #N-M or #N+");
        word = next();
    }
    demand(word[0] != '/', word + " stands behind the number" + order);
    demand(ParseEffect(word, fault) && CanHave(fault.call, fault.effect),
           "not an effect that the call can have: " + word);
    for (word = next(); !word.empty(); word = next()) {
        demand(word[0] != '#' && word[0] != '/', word + " stands behind the effect" + order);
        demand(IsPowerCut(fault) && ParseLosses(word, fault.losses),
               "not what a power cut can do: " + word);
    }
    return fault;
}
