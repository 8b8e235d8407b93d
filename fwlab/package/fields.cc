// Reads and writes the fields of headers in TOML files. A value that no device can have is refused.
#include "fwlab/package/fields.h"

#include "fwlab/base/stop.h"
#include "fwlab/base/text.h"
#include "fwlab/base/toml.h"
#include "simphone/text.h"
#include "simphone/toml.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

// A text or a list of bytes, or for a field of one byte a number, brought to the size of the field.
// False if the node is neither; Stop if the bytes are none that a device can have there.
bool ReadBytes(const toml::node& node, const Field& field, std::string& bytes) {
    const bool isText = node.is_string();
    const bool isExact = field.filling == Field::EXACT || (field.filling == Field::NODE && !isText);
    if (field.size == 1 ? !AppendBytes(toml::array{node}, bytes) : !AppendBytes(node, bytes)) {
        return false;
    }
    const std::string key = field.key;
    const bool isNode = field.filling == Field::NODE;
    Require(bytes.size() == field.size || (!isExact && bytes.size() < field.size), 1,
            fmt::format("{} has {} bytes, not {}{}", key, bytes.size(), isExact ? "" : "at most ",
                        field.size));
    Require(!isNode || !bytes.empty(), 1, key + " must not be empty");
    if (&field == &UFS.manufacturer && isText) {
        const bool isRight = bytes.size() == field.size && bytes.rfind("0x", 0) == 0 &&
                             bytes.find_first_not_of("0123456789abcdef", 2) == std::string::npos;
        Require(isRight, 1,
                Quoted(bytes) +
                    " is no manfid as kernels print it, such as \"0x0001ce\": 0x and six "
                    "digits, letters in lower case; if a kernel prints another one, "
                    "write it as a list of 8 numbers");
    }
    if (isNode && isText) {
        Require(bytes.find('\n') == std::string::npos, 1,
                key + " has a line feed: leave it out, fwlab adds the one that phones read");
        bytes += '\n';
    }
    bytes.resize(field.size);
    return true;
}

// Free slots repeat the last revision, so that they admit nothing else.
bool ReadBaseRevs(const toml::node& node, const Field& revision, std::string& bytes) {
    const size_t slots = BASE_REVS_SIZE / revision.size;
    if (node.is_array() && node.as_array()->is_homogeneous(toml::node_type::integer)) {
        return AppendBytes(node, bytes) && bytes.size() == BASE_REVS_SIZE; // all slots as they are
    }
    const size_t count = node.is_array() ? node.as_array()->size() : 0;
    bool isRight = node.is_array();
    Require(!isRight || (count >= 1 && count <= slots), 1,
            fmt::format("base_revisions has {} revisions, not 1 to {}", count, slots));
    for (size_t slot = 0; isRight && slot < slots; slot++) {
        std::string slotBytes;
        isRight = ReadBytes((*node.as_array())[std::min(slot, count - 1)], revision, slotBytes);
        Require(!isRight || !IsFreeSlot(slotBytes), 1,
                "base_revisions: no device can have " + Quoted(slotBytes));
        bytes += slotBytes;
    }
    return isRight;
}

// The value of which ReadBytes makes these bytes: a text, or else a list.
std::string ValueOf(const Field& field, const std::string& bytes) {
    if (field.size == 1) {
        return fmt::format("{:#04x}", static_cast<uint8_t>(bytes[0]));
    }
    const std::string text = field.filling == Field::NODE ? bytes.substr(0, bytes.find('\n'))
                             : field.filling == Field::ZEROS
                                 ? bytes.substr(0, bytes.find_last_not_of('\0') + 1)
                                 : bytes;
    std::string value = TomlBytes(text);
    std::string read;
    try {
        if (value[0] == '"' && ReadBytes(toml::value<std::string>(text), field, read) &&
            read == bytes) {
            return value;
        }
    } catch (const Stop&) { // what texts may not be, lists may
    }
    return TomlList(bytes);
}

// Likewise for ReadBaseRevs.
std::string BaseRevsOf(const Identity& identity) {
    const Field& revision = identity.layout->revision;
    const std::string bytes = Get(identity, identity.layout->baseRevs);
    Texts values;
    bool hasFree = false;
    for (size_t slot = 0; slot < bytes.size(); slot += revision.size) {
        const std::string slotBytes = bytes.substr(slot, revision.size);
        hasFree = hasFree || IsFreeSlot(slotBytes);
        values.push_back(ValueOf(revision, slotBytes));
    }
    while (values.size() > 1 && values.back() == values[values.size() - 2]) {
        values.pop_back();
    }
    return hasFree ? TomlList(bytes) : fmt::format("[{}]", fmt::join(values, ", "));
}

} // namespace

void TakeField(Keys keys, const Field& field, Identity& identity) {
    if (field.size == 0) {
        return;
    }
    Take(keys, field.key, field.isOptional ? OPTIONAL : REQUIRED,
         field.size == 1                        ? "a number from 0 to 255"
         : &field == &identity.layout->baseRevs ? "a list of revisions"
                                                : "made of texts, or of numbers from 0 to 255",
         [&](const toml::node& node) {
             std::string bytes;
             const bool isRight = &field == &identity.layout->baseRevs
                                      ? ReadBaseRevs(node, identity.layout->revision, bytes)
                                      : ReadBytes(node, field, bytes);
             Set(identity, field, bytes);
             return isRight;
         });
}

std::string TomlValue(const Identity& identity, const Field& field) {
    return &field == &identity.layout->baseRevs ? BaseRevsOf(identity)
                                                : ValueOf(field, Get(identity, field));
}
