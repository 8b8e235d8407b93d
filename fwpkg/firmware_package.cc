// Finds entries in a firmware package that lies whole in memory. Every reader of a package calls
// it. Nothing here fails: a package without entries is simply one in which none is found.
#include "fwpkg/firmware_package.h"

#include <cstring>

namespace {

size_t FindHeader(const uint8_t* package, size_t size, const char* magic, size_t headerSize,
                  size_t from) {
    for (size_t p = from; size >= headerSize && p <= size - headerSize; p++) {
        if (memcmp(package + p, magic, MAGIC_SIZE) == 0) {
            return p;
        }
    }
    return size;
}

} // namespace

uint32_t ReadBigEndian32(const uint8_t* field) {
    return uint32_t{field[0]} << 24 | uint32_t{field[1]} << 16 | uint32_t{field[2]} << 8 |
           uint32_t{field[3]};
}

size_t FindEmmcEntry(const uint8_t* package, size_t size, size_t from) {
    return FindHeader(package, size, EMMC_MAGIC, sizeof(EmmcFwHeader), from);
}

size_t FindUfsEntry(const uint8_t* package, size_t size, size_t from) {
    return FindHeader(package, size, UFS_MAGIC, sizeof(UfsFwHeader), from);
}

bool BodyFits(size_t size, size_t entry, size_t headerSize, uint32_t bodySize) {
    return bodySize <= size - entry - headerSize;
}
