// The scan of a package, and the place of a body. A fault here makes every reader see
// other entries than the package holds, or read beyond the package.
#include "fwpkg/firmware_package.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

namespace {

TEST(PackageScan, FindsWhatAPlainSearchFinds) {
    // A page whose end borders on one that cannot be read. Never given back.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* both =
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    uint8_t* const end = static_cast<uint8_t*>(both) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);

    std::mt19937 random; // the same bytes in each run
    for (const std::string magic : {"EMMC", "UFSM"}) {
        const size_t headerSize = magic == "EMMC" ? 48 : 64;
        const auto find = magic == "EMMC" ? FindEmmcEntry : FindUfsEntry;
        size_t found = 0;
        for (size_t round = 0; round < 2010; round++) {
            const size_t size = round / 10;
            uint8_t* const package = end - size;
            std::generate(package, end, [&] { // at times a small letter
                return static_cast<uint8_t>(magic[random() % 4] | (random() % 16 == 0 ? 0x20 : 0));
            });
            for (size_t from = 0; from <= size + 1; from++) {
                const uint8_t* at =
                    std::search(package + std::min(from, size), end, magic.begin(), magic.end());
                const auto left = static_cast<size_t>(end - at);
                const bool fits = left >= headerSize;
                ASSERT_EQ(find(package, size, from), fits ? size - left : size)
                    << magic << " size " << size << " from " << from;
                found += fits;
            }
        }
        EXPECT_GT(found, 10000U) << magic; // else the bytes are no test of the scan
    }
}

TEST(PackageScan, BodyLiesInsideThePackage) {
    EXPECT_TRUE(BodyFits(1000, 100, 64, 836));
    EXPECT_FALSE(BodyFits(1000, 100, 64, 837));
    EXPECT_FALSE(BodyFits(1000, 100, 48, UINT32_MAX - 147)); // together 2^32
}

} // namespace
