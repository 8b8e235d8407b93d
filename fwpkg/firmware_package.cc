// Finds entries in a firmware package that is whole in memory. Every reader of a package calls it.
// Nothing here can fail; a package may have no entry.
#include "fwpkg/firmware_package.h"

#include <algorithm>
#include <cstring>

namespace {

// Four words: every phone and workstation can compare 16 bytes at once.
using Words __attribute__((vector_size(16))) = int32_t;
constexpr size_t BLOCK_SIZE = 2 * sizeof(Words);

// Compares the four words at bytes with magic: all bits are set in a word that is equal, none in
// the others.
Words WordsEqual(const uint8_t* bytes, int32_t magic) {
    Words words;
    memcpy(&words, bytes, sizeof(words));
    return words == magic;
}

// Whether magic begins at one of the BLOCK_SIZE offsets of block. The words at byte shifts 0 to 3
// cover all of these offsets. Reads MAGIC_SIZE - 1 bytes beyond the block.
bool BlockHasMagic(const uint8_t* block, int32_t magic) {
    const uint8_t* half = block + sizeof(Words);
    const Words found = WordsEqual(block, magic) | WordsEqual(block + 1, magic) |
                        WordsEqual(block + 2, magic) | WordsEqual(block + 3, magic) |
                        WordsEqual(half, magic) | WordsEqual(half + 1, magic) |
                        WordsEqual(half + 2, magic) | WordsEqual(half + 3, magic);
    uint64_t bits[2];
    memcpy(bits, &found, sizeof(bits));
    return (bits[0] | bits[1]) != 0;
}

// Compares the whole magic at every offset. Bytes that agree with only a part of it cost no extra
// time.
size_t FindHeader(const uint8_t* package, size_t size, const char* magic, size_t headerSize,
                  size_t from) {
    // One past the last offset at which a header fits.
    const size_t end = size < headerSize ? 0 : size - headerSize + 1;
    size_t p = std::min(from, end);
    int32_t magicWord;
    memcpy(&magicWord, magic, sizeof(magicWord));
    while (end - p >= BLOCK_SIZE && !BlockHasMagic(package + p, magicWord)) {
        p += BLOCK_SIZE;
    }
    while (p < end && memcmp(package + p, magic, MAGIC_SIZE) != 0) {
        p++;
    }
    return p < end ? p : size;
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
