#include "fwlab/package/digest.h"

#include "fwlab/base/stop.h"
#include "simphone/text.h"

#include <openssl/evp.h>

std::string Sha256(std::string_view bytes) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    Require(EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) == 1, 2,
            "libcrypto has no SHA-256");
    return Hex(digest, length);
}
