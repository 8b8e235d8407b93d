// Builds packages. The package is written to a file beside its place, looked at there as a phone
// would, and only then renamed; a refusal or a failure leaves no file behind.
#include "fwlab/commands.h"
#include "fwlab/manifest.h"
#include "fwlab/selection.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace {

void Write(FILE* file, const std::string& path, const void* bytes, size_t size) {
    if (fwrite(bytes, 1, size, file) != size || fflush(file) != 0) {
        throw Stop{2, path + ": " + strerror(errno)};
    }
}

// Returns where the entry begins.
size_t WriteEntry(FILE* file, const std::string& path, Identity identity, const MappedFile& image) {
    const auto offset = static_cast<size_t>(ftell(file));
    std::string size;
    for (const int shift : {24, 16, 8, 0}) {
        size += static_cast<char>(image.size >> shift);
    }
    Set(identity, identity.layout->bodySize, size);
    Write(file, path, identity.header.data(), identity.header.size());
    Write(file, path, image.bytes.get(), image.size);
    return offset;
}

// Throws unless every entry that begins at one of offsets is without findings.
void CheckEntries(const Package& package, const std::vector<size_t>& offsets, bool withLargeEmmc,
                  const std::string& manifestFile) {
    if (!package.flaw.empty()) {
        throw Stop{1, manifestFile + ": the package " + package.flaw};
    }
    size_t number = 0;
    for (const Entry& entry : package.entries) {
        if (std::count(offsets.begin(), offsets.end(), entry.offset) == 0) {
            continue; // a magic inside an image
        }
        number++;
        for (const std::string& finding : FindingsOf(package, entry)) {
            if (!withLargeEmmc || finding != LARGE_EMMC_BODY) {
                throw Stop{1, fmt::format("{}: entry {} (in the package {}): {}", manifestFile,
                                          number, Title(entry), finding)};
            }
        }
    }
}

} // namespace

int Pack(const std::string& manifestFile, const std::string& output, bool withLargeEmmc) {
    const std::vector<ManifestEntry> entries = ReadManifest(manifestFile);
    const std::string path = fmt::format("{}.{}", output, getpid());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        throw Stop{2, path + ": " + strerror(errno)};
    }
    const std::unique_ptr<const char, int (*)(const char*)> temporary(path.c_str(), unlink);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fdopen(fd, "w"), fclose);
    std::vector<size_t> offsets;
    offsets.reserve(entries.size());
    for (const ManifestEntry& entry : entries) {
        offsets.push_back(WriteEntry(file.get(), path, entry.identity, entry.image));
    }
    const Package package = OpenPackage(path, entries[0].identity.layout);
    CheckEntries(package, offsets, withLargeEmmc, manifestFile);
    if (fsync(fd) != 0 || rename(path.c_str(), output.c_str()) != 0) {
        throw Stop{2, output + ": " + strerror(errno)};
    }
    fmt::print("{}: {} bytes, entries: {}\n", output, package.size, entries.size());
    return 0;
}
