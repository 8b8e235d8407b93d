// Reads the texts of faults. What no call can have is refused before a run.
#include "simphone/fault.h"

#include "simphone/text.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <sstream>
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

constexpr const char* COUNTS[] = {"returns=", "short=", "torn="}; // Effect, from RETURNS on

bool ParseEffect(const std::string& word, Fault& fault) {
    const size_t begin = word.find('=') + 1; // 0 without one
    const auto* found = std::find(std::begin(COUNTS), std::end(COUNTS), word.substr(0, begin));
    if (found != std::end(COUNTS)) {
        fault.effect = static_cast<Effect>(found - COUNTS + static_cast<int>(Effect::RETURNS));
        return ParseNumber(word.substr(begin), fault.value);
    }
    if (word == "end") {
        fault.effect = Effect::ENDS;
        return true;
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

constexpr const char* LOSS_WORDS[] = {
    "lost=", "empty=", "gone=", "back=", "zeros="}; // in the order of Loss

// One word, such as "lost=fw_result,ffu.bgn"; a file has one fate.
bool ParseLosses(const std::string& word, Losses& losses) {
    const size_t begin = word.find('=') + 1; // 0 without one
    const auto* found =
        std::find(std::begin(LOSS_WORDS), std::end(LOSS_WORDS), word.substr(0, begin));
    if (found == std::end(LOSS_WORDS)) {
        return false;
    }
    std::istringstream names(word.substr(begin));
    bool right = names.peek() != EOF && word.back() != ',';
    for (std::string name; right && std::getline(names, name, ',');) {
        right = !name.empty() && name.find('/') == std::string::npos &&
                losses.emplace(name, static_cast<Loss>(found - LOSS_WORDS)).second;
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
    for (const Loss loss : {Loss::LOST, Loss::EMPTY, Loss::GONE, Loss::BACK, Loss::ZEROS}) {
        std::string begin =
            std::string(text.empty() ? "" : " ") + LOSS_WORDS[static_cast<int>(loss)];
        for (const auto& [name, fate] : losses) {
            text += fate == loss ? std::exchange(begin, ",") + name : "";
        }
    }
    return text;
}

std::string EffectText(const Fault& fault) {
    switch (fault.effect) {
    case Effect::FAILS:
        return strerrorname_np(static_cast<int>(fault.value));
    case Effect::ENDS:
        return "end";
    default:
        return COUNTS[static_cast<int>(fault.effect) - static_cast<int>(Effect::RETURNS)] +
               std::to_string(fault.value);
    }
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

bool ParseFault(const std::string& text, Fault& fault, std::string& error) {
    const auto refuse = [&](const std::string& why) {
        return Failed(error, "fault " + Quoted(text) + ": " + why);
    };
    std::istringstream words(text);
    std::string word;
    fault = {};
    if (text.find('\n') != std::string::npos) { // one a line, on their way to the library
        return refuse("has a line feed");
    }
    words >> fault.call >> word;
    if (EffectsOf(fault.call) == nullptr) {
        return refuse("no such call: " + fault.call);
    }
    if (word[0] == '/') {
        fault.path = std::exchange(word, "");
        words >> word;
    }
    if (word[0] == '#') {
        if (!ParseRange(word, fault)) {
            return refuse(word + " is not #N, #N-M or #N+");
        }
        word.clear();
        words >> word;
    }
    if (word[0] == '/') {
        return refuse(word + " stands behind the number: CALL PATH #N EFFECT is the order");
    }
    if (!ParseEffect(word, fault) || !CanHave(fault.call, fault.effect)) {
        return refuse("not an effect that the call can have: " + word);
    }
    while (words >> word) {
        if (word[0] == '#' || word[0] == '/') {
            return refuse(word + " stands behind the effect: CALL PATH #N EFFECT is the order");
        }
        if (!IsPowerCut(fault) || !ParseLosses(word, fault.losses)) {
            return refuse("not what a power cut can do: " + word);
        }
    }
    return true;
}
