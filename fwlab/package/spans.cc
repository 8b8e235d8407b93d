#include "fwlab/package/spans.h"

#include "fwlab/base/stop.h"
#include "simphone/text.h"
namespace {

size_t EndOf(const Entry& entry) {
    return entry.body + entry.bodySize;
}

} // namespace

std::vector<const Entry*> OwnEntries(const Package& package) {
    std::vector<const Entry*> own;
    for (const Entry& entry : package.entries) {
        if (entry.bodyFits && (own.empty() || entry.offset >= EndOf(*own.back()))) {
            own.push_back(&entry);
        }
    }
    return own;
}

std::vector<Span> Uncovered(const Package& package) {
    std::vector<Span> spans;
    size_t end = 0;
    for (const Entry* entry : OwnEntries(package)) {
        if (entry->offset > end) {
            spans.push_back({end, entry->offset - end});
        }
        end = EndOf(*entry);
    }
    if (end < package.size) {
        spans.push_back({end, package.size - end});
    }
    return spans;
}

const Entry* OuterEntry(const Package& package, const Entry& entry) {
    const Entry* outer = nullptr;
    for (const Entry* own : OwnEntries(package)) {
        outer = own->offset < entry.offset && entry.offset < EndOf(*own) ? own : outer;
    }
    return outer;
}
