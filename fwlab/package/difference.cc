#include "fwlab/package/difference.h"

#include "simphone/text.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

// The field of the entry that has this byte; null for the magic.
const Field* FieldAt(const Entry& entry, size_t offset) {
    const Layout& layout = *entry.identity.layout;
    std::vector<const Field*> fields = FieldsOf(layout);
    fields.push_back(&layout.bodySize);
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const Field* field) {
        const size_t begin = entry.offset + field->offset;
        return begin <= offset && offset < begin + field->size;
    });
    return found == fields.end() ? nullptr : *found;
}

} // namespace

std::optional<Difference> FirstDifference(const Package& first, const Package& second) {
    const std::string_view one = BytesOf(first), other = BytesOf(second);
    const size_t size = std::min(one.size(), other.size());
    const auto offset = static_cast<size_t>(
        std::mismatch(one.begin(), one.begin() + size, other.begin()).first - one.begin());
    if (one == other) {
        return {};
    }
    const auto bytes = [](const Package& package, size_t at, size_t count) {
        return at < package.size ? Quoted(std::string(BytesOf(package).substr(at, count)))
                                 : "no byte";
    };
    Difference found = {offset, "behind the last entry", bytes(first, offset, 1),
                        bytes(second, offset, 1)};
    for (const Entry* entry : OwnEntries(first)) {
        if (offset >= entry->body && offset < entry->body + entry->bodySize) {
            found.place =
                fmt::format("{}: byte {} of its body", Title(*entry), offset - entry->body);
        } else if (offset >= entry->offset && offset < entry->body) {
            const Field* field = FieldAt(*entry, offset);
            const size_t at = entry->offset + (field == nullptr ? 0 : field->offset);
            const size_t length = field == nullptr ? MAGIC_SIZE : field->size;
            found = {at, Title(*entry) + ": " + (field == nullptr ? "magic" : field->key),
                     bytes(first, at, length), bytes(second, at, length)};
        }
    }
    return found;
}
