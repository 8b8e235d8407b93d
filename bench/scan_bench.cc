// The speed of the scan for entries over 64 MiB, against memmem and against memchr for a byte that
// is not there, the limit. The three take turns, so the noise of a machine meets all of them.
#include "fwpkg/firmware_package.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t PACKAGE_SIZE = 64U << 20;
constexpr size_t CANDIDATE_DISTANCE = 4096;
constexpr uint8_t ABSENT_BYTE = 0xFF;
constexpr int TURNS = 25;

struct Input {
    const char* name;
    const char* magic;
    size_t (*findEntry)(const uint8_t*, size_t, size_t);
    std::string repeated; // empty: random bytes
    bool candidates;      // the magic every CANDIDATE_DISTANCE
};

std::vector<uint8_t> MakePackage(const Input& input) {
    std::vector<uint8_t> package(PACKAGE_SIZE);
    std::mt19937 random;
    for (size_t p = 0; p < PACKAGE_SIZE; p++) {
        package[p] = input.repeated.empty()
                         ? static_cast<uint8_t>(random() % ABSENT_BYTE)
                         : static_cast<uint8_t>(input.repeated[p % input.repeated.size()]);
    }
    for (size_t p = 0; input.candidates && p < PACKAGE_SIZE; p += CANDIDATE_DISTANCE) {
        memcpy(&package[p], input.magic, MAGIC_SIZE);
    }
    return package;
}

// These two visit the candidates like a reader that accepts none.
size_t CountByScan(const Input& input, const std::vector<uint8_t>& package) {
    size_t count = 0;
    for (size_t p = input.findEntry(package.data(), package.size(), 0); p < package.size();
         p = input.findEntry(package.data(), package.size(), p + 1)) {
        count++;
    }
    return count;
}

size_t CountByMemmem(const Input& input, const std::vector<uint8_t>& package) {
    const uint8_t* const end = package.data() + package.size();
    const auto next = [&](const uint8_t* p) {
        return static_cast<const uint8_t*>(
            memmem(p, static_cast<size_t>(end - p), input.magic, MAGIC_SIZE));
    };
    size_t count = 0;
    for (const uint8_t* p = next(package.data()); p != nullptr; p = next(p + 1)) {
        count++;
    }
    return count;
}

// In processor time, so that other programs' turns are not counted.
template <typename Pass> auto Timed(double& best, Pass pass) {
    const clock_t start = clock();
    const auto result = pass();
    best = std::min(best, static_cast<double>(clock() - start) / CLOCKS_PER_SEC);
    return result;
}

bool Measure(const Input& input) {
    const std::vector<uint8_t> package = MakePackage(input);
    double scan = 1e9, mem = 1e9, chr = 1e9; // seconds of the best turn
    for (int turn = 0; turn < TURNS; turn++) {
        const size_t scanned = Timed(scan, [&] { return CountByScan(input, package); });
        const size_t found = Timed(mem, [&] { return CountByMemmem(input, package); });
        const void* absent =
            Timed(chr, [&] { return memchr(package.data(), ABSENT_BYTE, package.size()); });
        if (scanned != found || absent != nullptr) {
            fprintf(stderr, "%s: the scan found %zu, memmem %zu\n", input.name, scanned, found);
            return false;
        }
    }
    const double gigabytes = 1e-9 * PACKAGE_SIZE;
    printf("%-18s %8.1f %8.1f %8.1f %12.2f %12.2f\n", input.name, gigabytes / scan, gigabytes / mem,
           gigabytes / chr, mem / scan, chr / scan);
    return true;
}

} // namespace

int main() {
    const Input inputs[] = {
        {"EMMC random", EMMC_MAGIC, FindEmmcEntry, "", false},
        {"EMMC EEEE", EMMC_MAGIC, FindEmmcEntry, "E", false},
        {"EMMC MMMM", EMMC_MAGIC, FindEmmcEntry, "M", false},
        {"EMMC CCCC", EMMC_MAGIC, FindEmmcEntry, "C", false},
        {"EMMC EMMEMM", EMMC_MAGIC, FindEmmcEntry, "EMM", false},
        {"EMMC every 4 KiB", EMMC_MAGIC, FindEmmcEntry, "", true},
        {"UFSM random", UFS_MAGIC, FindUfsEntry, "", false},
        {"UFSM UUUU", UFS_MAGIC, FindUfsEntry, "U", false},
        {"UFSM FFFF", UFS_MAGIC, FindUfsEntry, "F", false},
        {"UFSM SSSS", UFS_MAGIC, FindUfsEntry, "S", false},
        {"UFSM MMMM", UFS_MAGIC, FindUfsEntry, "M", false},
        {"UFSM UFSUFS", UFS_MAGIC, FindUfsEntry, "UFS", false},
        {"UFSM every 4 KiB", UFS_MAGIC, FindUfsEntry, "", true},
    };
    printf("%-18s %8s %8s %8s %12s %12s\n", "GB/s", "scan", "memmem", "memchr", "scan:memmem",
           "scan:memchr");
    return std::all_of(std::begin(inputs), std::end(inputs), Measure) ? 0 : 1;
}
