#include "fwlab/spans.h"

#include "simphone/files.h"

#include <openssl/evp.h>

namespace {

size_t EndOf(const Entry& entry) {
    return entry.body + (entry.bodyFits ? entry.bodySize : 0);
}

} // namespace

std::vector<Span> Uncovered(const Package& package) {
    std::vector<Span> spans;
    size_t end = 0;
    for (const Entry& entry : package.entries) {
        if (entry.offset > end) {
            spans.push_back({end, entry.offset - end});
        }
        end = std::max(end, EndOf(entry));
    }
    if (!package.entries.empty() && end < package.size) {
        spans.push_back({end, package.size - end});
    }
    return spans;
}

const Entry* OuterEntry(const Package& package, const Entry& entry) {
    const Entry* outer = nullptr;
    for (const Entry& earlier : package.entries) {
        if (earlier.offset < entry.offset && entry.offset < EndOf(earlier)) {
            outer = outer == nullptr || EndOf(earlier) > EndOf(*outer) ? &earlier : outer;
        }
    }
    return outer;
}

std::string Sha256(const Package& package, size_t offset, size_t size) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    const bool isDigested =
        EVP_Digest(package.bytes.get() + offset, size, digest, &length, EVP_sha256(), nullptr) == 1;
    Require(isDigested, 2, "libcrypto has no SHA-256");
    return Hex(digest, length);
}
