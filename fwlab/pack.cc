// Builds packages. A package is put together in memory, looked at there as a phone would, written
// to a file beside its place and only then renamed; a refusal or a failure leaves no file behind.
#include "fwlab/commands.h"
#include "fwlab/manifest.h"
#include "fwlab/selection.h"
#include "simphone/files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <unistd.h>

// Throws unless every entry that begins at one of offsets is without findings.
static void CheckEntries(const Package& package, const std::vector<size_t>& offsets,
                         bool withLargeEmmc) {
    for (const Entry& entry : package.entries) {
        const auto own = std::find(offsets.begin(), offsets.end(), entry.offset);
        if (own == offsets.end()) {
            continue; // a magic inside an image
        }
        for (const std::string& finding : FindingsOf(package, entry)) {
            Require(withLargeEmmc && finding == LARGE_EMMC_BODY, 1,
                    fmt::format("{}: entry {} (in the package {}): {}", package.path,
                                own - offsets.begin() + 1, Title(entry), finding));
        }
    }
}

int Pack(const std::string& manifestFile, const std::string& output, bool withLargeEmmc) {
    std::string bytes;
    std::vector<size_t> offsets;
    const Layout* layout = nullptr;
    for (ManifestEntry& entry : ReadManifest(manifestFile)) {
        layout = entry.identity.layout;
        std::string size;
        for (const int shift : {24, 16, 8, 0}) {
            size += static_cast<char>(entry.image.size() >> shift);
        }
        Set(entry.identity, layout->bodySize, size);
        offsets.push_back(bytes.size());
        bytes += entry.identity.header + entry.image;
        Require(bytes.size() <= PACKAGE_SIZE_MAX, 1, manifestFile + ": more than a phone reads");
    }
    const PackageBytes borrowed(PackageBytes(), reinterpret_cast<const uint8_t*>(bytes.data()));
    CheckEntries(LookInto(manifestFile, borrowed, bytes.size(), layout), offsets, withLargeEmmc);
    const std::string temporary = fmt::format("{}.{}", output, getpid());
    if (!WriteWholeFile(temporary, bytes.data(), bytes.size()) ||
        rename(temporary.c_str(), output.c_str()) != 0) {
        const std::string reason = strerror(errno);
        unlink(temporary.c_str());
        throw Stop{2, output + ": " + reason};
    }
    fmt::print("{}: {} bytes, entries: {}\n", output, bytes.size(), offsets.size());
    return 0;
}
