#include "fwlab/package/difference.h"

#include "fwlab/base/json.h"
#include "fwlab/base/text.h"
#include "fwlab/package/spans.h"
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
    const uint8_t *one = first.bytes.get(), *other = second.bytes.get();
    const size_t size = std::min(first.size, second.size);
    const auto offset = static_cast<size_t>(std::mismatch(one, one + size, other).first - one);
    if (offset == size && first.size == second.size) {
        return {};
    }
    const auto bytes = [](const Package& package, size_t at, size_t count) {
        const size_t begin = std::min(at, package.size), end = std::min(at + count, package.size);
        return begin == end ? "no byte"
                            : Quoted({package.bytes.get() + begin, package.bytes.get() + end});
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
