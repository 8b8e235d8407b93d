// Finds the entries of packages, for every command. A file that cannot be read ends the command.
#include "fwlab/package/package.h"

#include "fwlab/base/stop.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

// No package has more entries: a file with more is something else.
constexpr size_t ENTRIES_MAX = 1024;

Package OpenPackage(const std::string& path, const Layout* layout) {
    std::error_code error;
    const size_t size = std::filesystem::file_size(path, error); // of a regular file only
    if (error) {
        throw Stop{2, path + ": " + error.message()};
    }
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const size_t mapped = size == 0 ? 1 : size; // nothing cannot be mapped
    void* bytes = fd < 0 ? MAP_FAILED : mmap(nullptr, mapped, PROT_READ, MAP_PRIVATE, fd, 0);
    const int reason = errno;
    close(fd);
    if (bytes == MAP_FAILED) {
        throw FailureAt(path, reason);
    }
    const auto unmap = [bytes, mapped](const uint8_t*) { munmap(bytes, mapped); };
    return LookInto(path, {static_cast<const uint8_t*>(bytes), unmap}, size, layout);
}

Package LookInto(const std::string& path, const PackageBytes& bytes, size_t size,
                 const Layout* layout) {
    Package package = {path, layout, bytes, size, "", {}};
    if (size == 0 || size > PACKAGE_SIZE_MAX) {
        package.flaw = size == 0 ? "is empty: the phone finds nothing to do"
                                 : "is 2 GiB or larger: the phone refuses it";
        return package;
    }
    const uint8_t* first = bytes.get();
    if (layout == nullptr) {
        package.layout =
            FindEmmcEntry(first, size, 0) <= FindUfsEntry(first, size, 0) ? &EMMC : &UFS;
    }
    const size_t headerSize = package.layout->headerSize;
    const auto find = package.layout == &UFS ? FindUfsEntry : FindEmmcEntry;
    for (size_t p = find(first, size, 0); p < size; p = find(first, size, p + 1)) {
        const size_t number = package.entries.size() + 1;
        if (number > ENTRIES_MAX) {
            throw Stop{2, fmt::format("{}: more than {} entries, which fwlab does not look into",
                                      path, ENTRIES_MAX)};
        }
        const uint32_t bodySize = ReadBigEndian32(first + p + package.layout->bodySize.offset);
        const Identity identity = {package.layout, {first + p, first + p + headerSize}};
        package.entries.push_back({number, p, p + headerSize, bodySize,
                                   BodyFits(size, p, headerSize, bodySize), identity});
    }
    return package;
}

bool IsSame(const Package& one, const Package& other) {
    return one.size == other.size && memcmp(one.bytes.get(), other.bytes.get(), one.size) == 0;
}

std::string Title(const Entry& entry) {
    return fmt::format("entry {} at {:#x}", entry.number, entry.offset);
}
