#include "fwlab/package/spans.h"

#include "fwlab/base/stop.h"
#include "simphone/files.h"

#include <openssl/evp.h>

namespace {

size_t EndOf(const Entry& entry) {
    return entry.body + entry.bodySize;
}

std::string Digest(const uint8_t* bytes, size_t size) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_Digest(bytes, size, digest, &length, EVP_sha256(), nullptr) != 1) {
        throw Stop{2, "libcrypto has no SHA-256"};
    }
    return Hex(digest, length);
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

std::string Sha256(const std::string& bytes) {
    return Digest(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string Sha256(const Package& package, size_t offset, size_t size) {
    return Digest(package.bytes.get() + offset, size);
}
