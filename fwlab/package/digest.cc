#include "fwlab/package/digest.h"

#include "fwlab/base/stop.h"
#include "simphone/text.h"

#include <openssl/evp.h>

namespace {

std::string Digest(const uint8_t* bytes, size_t size) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_Digest(bytes, size, digest, &length, EVP_sha256(), nullptr) != 1) {
        throw Stop{2, "libcrypto has no SHA-256"};
    }
    return Hex(digest, length);
}

} // namespace

std::string Sha256(const std::string& bytes) {
    return Digest(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string Sha256(const Package& package, size_t offset, size_t size) {
    return Digest(package.bytes.get() + offset, size);
}
