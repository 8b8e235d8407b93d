// The scan of a package, the place of a body and its length. A fault here makes every reader see
// other entries than the package holds, or read beyond the package.
#include "fwpkg/firmware_package.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// A page whose end borders on one that cannot be read. Never given back.
uint8_t* GuardedPageEnd() {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* both =
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (both == MAP_FAILED || mprotect(static_cast<uint8_t*>(both) + page, page, PROT_NONE) != 0) {
        return nullptr;
    }
    return static_cast<uint8_t*>(both) + page;
}

size_t FindPlainly(const uint8_t* package, size_t size, const char* magic, size_t headerSize,
                   size_t from) {
    for (size_t p = from; p + headerSize <= size; p++) {
        if (memcmp(package + p, magic, MAGIC_SIZE) == 0) {
            return p;
        }
    }
    return size;
}

TEST(PackageScan, FindsWhatAPlainLoopFinds) {
    struct {
        const char* magic;
        size_t headerSize;
        size_t (*find)(const uint8_t*, size_t, size_t);
    } const kinds[] = {{"EMMC", 48, FindEmmcEntry}, {"UFSM", 64, FindUfsEntry}};
    uint8_t* const end = GuardedPageEnd();
    ASSERT_NE(end, nullptr);
    std::mt19937 random; // the same bytes in each run
    for (const auto& kind : kinds) {
        size_t found = 0;
        for (size_t size = 0; size <= 200; size++) {
            for (int round = 0; round < 10; round++) {
                uint8_t* const package = end - size;
                for (uint8_t* byte = package; byte < end; byte++) {
                    *byte = static_cast<uint8_t>(kind.magic[random() % MAGIC_SIZE]);
                }
                for (size_t from = 0; from <= size + 1; from++) {
                    const size_t p = FindPlainly(package, size, kind.magic, kind.headerSize, from);
                    ASSERT_EQ(kind.find(package, size, from), p)
                        << kind.magic << " size " << size << " from " << from;
                    found += p < size;
                }
            }
        }
        EXPECT_GT(found, 10000U) << kind.magic; // else the bytes are no test of the scan
    }
}

TEST(PackageScan, BodyLiesInsideThePackage) {
    struct {
        size_t size, entry, headerSize;
        uint32_t bodySize;
        bool fits;
    } const cases[] = {
        {48, 0, 48, 0, true},
        {48, 0, 48, 1, false},
        {1000, 100, 64, 836, true},
        {1000, 100, 64, 837, false},
        {1000, 936, 64, 0, true},
        {1000, 936, 64, 1, false},
        {1000, 0, 48, INT32_MAX, false},
        {1000, 0, 48, UINT32_MAX, false},
        {1000, 100, 48, UINT32_MAX - 147, false}, // together 2^32
        {INT32_MAX, 0, 64, INT32_MAX - 64, true},
        {INT32_MAX, 0, 64, INT32_MAX - 63, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(BodyFits(c.size, c.entry, c.headerSize, c.bodySize), c.fits)
            << c.size << " " << c.entry << " " << c.headerSize << " " << c.bodySize;
    }
}

TEST(PackageScan, LengthIsMostSignificantByteFirst) {
    const uint8_t small[] = {0x00, 0x01, 0x00, 0x00};
    const uint8_t large[] = {0xFF, 0xFE, 0x80, 0x01};
    EXPECT_EQ(ReadBigEndian32(small), 65536U);
    EXPECT_EQ(ReadBigEndian32(large), 0xFFFE8001U);
}

} // namespace
