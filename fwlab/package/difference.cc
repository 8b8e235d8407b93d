// Compares headers field by field, and packages entry by entry.
#include "fwlab/package/difference.h"

#include "fwlab/package/spans.h"
#include "simphone/text.h"

#include <algorithm>

namespace {

// Fields of an eMMC header that no manifest has: pack leaves them zero, and no phone looks at them.
constexpr Field PRV_AND_PSN = {"prv_and_psn", offsetof(EmmcFwHeader, emmcPrv),
                               sizeof(EmmcFwHeader::emmcPrv) + sizeof(EmmcFwHeader::emmcPsn),
                               Field::EXACT};

// All of a header, by offset.
std::vector<Field> FieldsOf(const Layout& layout) {
    const Field magic = {"magic", 0, MAGIC_SIZE, Field::EXACT};
    const Field none = {"", 0, 0, Field::EXACT};
    return {magic,
            layout.manufacturer,
            layout.name,
            &layout == &EMMC ? PRV_AND_PSN : none,
            layout.extCsdRev,
            layout.revision,
            layout.bodySize,
            layout.marketName,
            layout.baseRevs};
}

Json ValueOf(const Identity& identity, const Field& field) {
    const std::string bytes = Get(identity, field);
    if (field.offset == identity.layout->bodySize.offset) {
        return ReadBigEndian32(reinterpret_cast<const uint8_t*>(bytes.data()));
    }
    const Json shown = Describe(identity);
    return shown.contains(field.key) ? shown[field.key] : Json(Escaped(bytes));
}

// The first byte of the entry's body that differs in second; size if none does.
size_t FirstOther(const Package& first, const Entry& entry, const Package& second, size_t size) {
    const uint8_t* body = first.bytes.get() + entry.body;
    return static_cast<size_t>(
        std::mismatch(body, body + size, second.bytes.get() + entry.body).first - body);
}

// Adds what differs in one entry; false if nothing behind it can be compared.
bool Compare(const Package& first, const Entry& entry, size_t number, const Package& second,
             std::vector<Difference>& found) {
    const Difference end = {number, "end", second.size, first.size, second.size};
    if (second.size < entry.body) {
        found.push_back(end);
        return false;
    }
    const uint8_t* header = second.bytes.get() + entry.offset;
    const Identity other = {first.layout, {header, second.bytes.get() + entry.body}};
    for (Difference difference : DifferencesOf(entry.identity, other)) {
        difference.entry = number;
        difference.offset += entry.offset;
        found.push_back(difference);
        if (difference.field == first.layout->bodySize.key) {
            return false;
        }
    }
    const size_t size = std::min<size_t>(entry.bodySize, second.size - entry.body);
    const size_t same = FirstOther(first, entry, second, size);
    if (same < size) {
        const size_t at = entry.body + same;
        found.push_back({number, "body", at, first.bytes.get()[at], second.bytes.get()[at]});
    }
    if (size < entry.bodySize) {
        found.push_back(end);
    }
    return size == entry.bodySize;
}

} // namespace

std::vector<Difference> DifferencesOf(const Identity& first, const Identity& second) {
    std::vector<Difference> found;
    for (const Field& field : FieldsOf(*first.layout)) {
        if (Get(first, field) == Get(second, field)) {
            continue;
        }
        Difference difference = {0, field.key, field.offset, ValueOf(first, field),
                                 ValueOf(second, field)};
        if (difference.first == difference.second) { // in slots that are free: show the bytes
            difference.first = Escaped(Get(first, field));
            difference.second = Escaped(Get(second, field));
        }
        found.push_back(difference);
    }
    return found;
}

std::vector<Difference> DifferencesOf(const Package& first, const Package& second) {
    std::vector<Difference> found;
    size_t number = 0;
    for (const Entry* entry : OwnEntries(first)) {
        if (!Compare(first, *entry, ++number, second, found)) {
            return found;
        }
    }
    if (second.size > first.size) {
        found.push_back({0, "end", first.size, first.size, second.size});
    }
    return found;
}
