// Opens packages for every command. Reads through a mapping, so a large package costs no memory of
// fwlab's own. A file that cannot be read ends the command.
#include "fwlab/package.h"

#include "simphone/files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

// More magics than any package has: that is some other file.
constexpr size_t ENTRIES_MAX = 65536;

#define PLACE(record, member) offsetof(record, member), sizeof(record::member)
const Layout EMMC = {
    "emmc",
    sizeof(EmmcFwHeader),
    {"manufacturer_id", PLACE(EmmcFwHeader, emmcMid), Field::EXACT},
    {"product_name", PLACE(EmmcFwHeader, emmcPnm), Field::EXACT},
    {"ext_csd_rev", PLACE(EmmcFwHeader, emmcRev), Field::EXACT},
    {"revision", PLACE(EmmcFwHeader, emmcFwRev), Field::ZEROS},
    {"body_size", PLACE(EmmcFwHeader, emmcFwSize), Field::EXACT},
    {"market_name", PLACE(EmmcFwHeader, legalMarketName), Field::ZEROS},
    {"base_revisions", PLACE(EmmcFwHeader, legalBaseRev), Field::EXACT},
};
const Layout UFS = {
    "ufs",
    sizeof(UfsFwHeader),
    {"manfid", PLACE(UfsFwHeader, ufsMid), Field::NODE},
    {"product_name", PLACE(UfsFwHeader, ufsPnm), Field::NODE},
    {"", 0, 0, Field::EXACT},
    {"revision", PLACE(UfsFwHeader, ufsProductRevisionLevel), Field::EXACT},
    {"body_size", PLACE(UfsFwHeader, ufsFwSize), Field::EXACT},
    {"market_name", PLACE(UfsFwHeader, legalMarketName), Field::ZEROS},
    {"base_revisions", PLACE(UfsFwHeader, legalBaseRev), Field::EXACT},
};
#undef PLACE

std::string Get(const Identity& identity, const Field& field) {
    return identity.header.substr(field.offset, field.size);
}

void Set(Identity& identity, const Field& field, const std::string& bytes) {
    identity.header.replace(field.offset, field.size, bytes);
}

MappedFile MapFile(const std::string& path) {
    std::error_code error;
    const size_t size = std::filesystem::file_size(path, error); // of a regular file only
    if (!error && size == 0) {
        return {MappedBytes(reinterpret_cast<const uint8_t*>(""), [](const uint8_t*) {}), 0};
    }
    const int fd = error ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    void* bytes = fd < 0 ? MAP_FAILED : mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    const std::string reason = error ? error.message() : strerror(errno);
    close(fd);
    if (bytes == MAP_FAILED) {
        throw Stop{2, path + ": " + reason};
    }
    const auto unmap = [bytes = bytes, size](const uint8_t*) { munmap(bytes, size); };
    return {MappedBytes(static_cast<const uint8_t*>(bytes), unmap), size};
}

Package OpenPackage(const std::string& path, const Layout* layout) {
    const auto [mapped, size] = MapFile(path);
    const uint8_t* bytes = mapped.get();
    if (size == 0 || size > PACKAGE_SIZE_MAX) {
        return {path,
                layout,
                nullptr,
                size,
                {},
                size == 0 ? "is empty: the phone finds nothing to do"
                          : "is 2 GiB or larger: the phone refuses it"};
    }
    if (layout == nullptr) {
        const size_t firstUfs = FindUfsEntry(bytes, size, 0);
        const bool isEmmc = firstUfs == size || FindEmmcEntry(bytes, firstUfs, 0) < firstUfs;
        layout = isEmmc ? &EMMC : &UFS;
    }
    Package package = {path, layout, mapped, size, {}, ""};
    const auto find = layout == &UFS ? FindUfsEntry : FindEmmcEntry;
    for (size_t p = find(bytes, size, 0); p < size; p = find(bytes, size, p + 1)) {
        if (package.entries.size() == ENTRIES_MAX) {
            throw Stop{2, fmt::format("{}: more than {} entries: no package", path, ENTRIES_MAX)};
        }
        const uint32_t bodySize = ReadBigEndian32(bytes + p + layout->bodySize.offset);
        package.entries.push_back({package.entries.size() + 1,
                                   p,
                                   p + layout->headerSize,
                                   bodySize,
                                   BodyFits(size, p, layout->headerSize, bodySize),
                                   {layout, {bytes + p, bytes + p + layout->headerSize}}});
    }
    return package;
}

std::string Title(const Entry& entry) {
    return fmt::format("entry {} at {:#x}", entry.number, entry.offset);
}

std::string Quoted(const std::string& bytes) {
    return '"' + Escaped(bytes) + '"';
}
