// Finds the entries of packages, for every command. A file that cannot be read ends the command.
#include "fwlab/package/package.h"

#include "fwlab/base/json.h"
#include "fwlab/base/stop.h"
#include "simphone/text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// No package has more entries: a file with more is something else.
constexpr size_t ENTRIES_MAX = 1024;

// How many bytes its own entries have.
size_t Covered(const Package& package) {
    size_t covered = 0;
    for (const Entry* entry : OwnEntries(package)) {
        covered += package.layout->headerSize + entry->bodySize;
    }
    return covered;
}

PackageBytes Map(const std::string& path, size_t size) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const size_t mapped = size == 0 ? 1 : size; // nothing cannot be mapped
    void* bytes = fd < 0 ? MAP_FAILED : mmap(nullptr, mapped, PROT_READ, MAP_PRIVATE, fd, 0);
    const int reason = errno;
    close(fd);
    if (bytes == MAP_FAILED) {
        throw FailureAt(path, reason);
    }
    const auto unmap = [bytes, mapped](const uint8_t*) { munmap(bytes, mapped); };
    return {static_cast<const uint8_t*>(bytes), unmap};
}

} // namespace

Package OpenPackage(const std::string& path, const Layout* layout) {
    std::error_code error;
    const size_t size = std::filesystem::file_size(path, error); // of a regular file only
    Require(!error, 2, path + ": " + error.message());
    Require(size <= PACKAGE_SIZE_MAX, 2, path + ": is 2 GiB or larger: phones refuse it");
    const PackageBytes bytes = Map(path, size);
    const Package ufs = LookInto(path, bytes, size, UFS), emmc = LookInto(path, bytes, size, EMMC);
    const std::string isNone = path + ": is no firmware package: ";
    Require(size == 0 || !ufs.entries.empty() || !emmc.entries.empty(), 2,
            isNone + "it has no entry");
    Require(size == 0 || Covered(ufs) + Covered(emmc) > 0, 2,
            isNone + "no entry in it is whole (perhaps it is cut short)");
    const bool isUfs = layout != nullptr ? layout == &UFS : Covered(ufs) > Covered(emmc);
    return isUfs ? ufs : emmc;
}

Package LookInto(const std::string& path, const PackageBytes& bytes, size_t size,
                 const Layout& layout) {
    Package package = {path, &layout, bytes, size, {}};
    const uint8_t* first = bytes.get();
    const auto find = &layout == &UFS ? FindUfsEntry : FindEmmcEntry;
    size_t own = 0, ownEnd = 0; // the last own entry
    for (size_t p = find(first, size, 0); p < size; p = find(first, size, p + 1)) {
        const size_t number = package.entries.size() + 1, body = p + layout.headerSize;
        Require(number <= ENTRIES_MAX, 2,
                fmt::format("{}: more than {} entries", path, ENTRIES_MAX));
        const uint32_t bodySize = ReadBigEndian32(first + p + layout.bodySize.offset);
        const bool fits = BodyFits(size, p, layout.headerSize, bodySize);
        const size_t outer = p < ownEnd ? own : 0;
        if (fits && outer == 0) {
            own = number;
            ownEnd = body + bodySize;
        }
        const Identity identity = {&layout, {first + p, first + body}};
        const std::string_view image = BytesOf(package).substr(body, fits ? bodySize : 0);
        package.entries.push_back({number, p, body, bodySize, fits, image, outer, identity});
    }
    return package;
}

std::vector<const Entry*> OwnEntries(const Package& package) {
    std::vector<const Entry*> own;
    for (const Entry& entry : package.entries) {
        own.insert(own.end(), entry.bodyFits && entry.outer == 0 ? 1 : 0, &entry);
    }
    return own;
}

const Entry* OuterEntry(const Package& package, const Entry& entry) {
    return entry.outer == 0 ? nullptr : &package.entries[entry.outer - 1];
}

std::map<size_t, std::string_view> Uncovered(const Package& package) {
    std::map<size_t, std::string_view> spans;
    size_t end = 0;
    const auto add = [&](size_t next) {
        if (next > end) {
            spans[end] = BytesOf(package).substr(end, next - end);
        }
    };
    for (const Entry* entry : OwnEntries(package)) {
        add(entry->offset);
        end = entry->body + entry->bodySize;
    }
    add(package.size);
    return spans;
}

std::string_view BytesOf(const Package& package) {
    return {reinterpret_cast<const char*>(package.bytes.get()), package.size};
}

std::string Sha256(std::string_view bytes) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    Require(EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) == 1, 2,
            "libcrypto has no SHA-256");
    return Hex(digest, length);
}

std::string Title(const Entry& entry) {
    return fmt::format("entry {} at {:#x}", entry.number, entry.offset);
}

Json ValueOf(const Identity& identity, const Field& field) {
    const std::string bytes = Get(identity, field);
    return field.size == 1 ? Json(static_cast<uint8_t>(bytes[0])) : Json(Escaped(bytes));
}

Json ReportOf(const Entry& entry) {
    const Layout& layout = *entry.identity.layout;
    Json shown = {{"number", entry.number}, {"offset", entry.offset}};
    for (const Field* field : FieldsOf(layout)) {
        const std::string bytes = Get(entry.identity, *field);
        const bool isZero = bytes == std::string(bytes.size(), '\0');
        if (!isZero || !field->isOptional) {
            shown[field->key] = ValueOf(entry.identity, *field);
        }
    }
    const auto base = BaseRevisionsOf(entry.identity);
    Json& revisions = shown[layout.baseRevs.key] = base ? Json::array() : Json("any");
    for (const std::string& revision : base.value_or(std::vector<std::string>())) {
        revisions.push_back(Escaped(revision));
    }
    shown["body_offset"] = entry.body;
    shown["body_size"] = entry.bodySize;
    if (entry.bodyFits && entry.outer == 0) {
        shown["sha256"] = Sha256(entry.image);
    }
    return shown;
}
