#include "fwlab/package/difference.h"

#include "simphone/text.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

// The field of a header that has this byte of it.
Field FieldAt(const Layout& layout, size_t offset) {
    std::vector<const Field*> fields = FieldsOf(layout);
    fields.push_back(&layout.bodySize);
    for (const Field* field : fields) {
        if (field->offset <= offset && offset < field->offset + field->size) {
            return *field;
        }
    }
    return {"magic", 0, MAGIC_SIZE, Field::EXACT, false};
}

} // namespace

std::optional<Difference> FirstDifference(const Package& first, const Package& second) {
    const std::string_view one = BytesOf(first), other = BytesOf(second);
    const auto places = std::mismatch(one.begin(), one.end(), other.begin(), other.end());
    if (one == other) {
        return {};
    }
    const auto found = [&](size_t offset, size_t size, const std::string& place) {
        const auto bytes = [&](std::string_view all) {
            return offset < all.size() ? Quoted(std::string(all.substr(offset, size))) : "no byte";
        };
        return Difference{offset, place, bytes(one), bytes(other)};
    };
    const auto offset = static_cast<size_t>(places.first - one.begin());
    for (const Entry* entry : OwnEntries(first)) {
        if (offset >= entry->offset && offset < entry->body) {
            const Field field = FieldAt(*first.layout, offset - entry->offset);
            return found(entry->offset + field.offset, field.size,
                         Title(*entry) + ": " + field.key);
        }
        if (offset >= entry->body && offset < entry->body + entry->bodySize) {
            return found(
                offset, 1,
                fmt::format("{}: byte {} of its body", Title(*entry), offset - entry->body));
        }
    }
    return found(offset, 1, "behind the last entry");
}
