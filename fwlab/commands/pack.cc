// Builds packages. A package is put together in memory, looked at there as a phone would, and only
// then written.
#include "fwlab/base/json.h"
#include "fwlab/base/output.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/manifest.h"
#include "fwlab/package/spans.h"
#include "fwlab/phone/decision.h"
#include "simphone/files.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

// Stop unless every entry that begins at one of offsets is without findings.
void CheckEntries(const Package& package, const std::vector<size_t>& offsets, bool withLargeEmmc) {
    for (const Entry& entry : package.entries) {
        const auto own = std::find(offsets.begin(), offsets.end(), entry.offset);
        if (own == offsets.end()) {
            continue; // a magic inside an image
        }
        Texts findings = FindingsOf(package, entry);
        if (NeedsGkiMode(entry) && !withLargeEmmc) {
            findings = NotesOf(entry);
        }
        if (!findings.empty()) {
            throw Stop{1, fmt::format("{}: entry {} (in the package {}): {}", package.path,
                                      own - offsets.begin() + 1, Title(entry), findings[0])};
        }
    }
}

} // namespace

Built BuildPackage(const std::string& manifestFile, bool withLargeEmmc) {
    const auto bytes = std::make_shared<std::string>();
    std::vector<size_t> offsets;
    const Layout* layout = nullptr;
    Texts inputs = {manifestFile};
    for (ManifestEntry& entry : ReadManifest(manifestFile)) {
        inputs.push_back(entry.imageFile);
        layout = entry.identity.layout;
        std::string size;
        for (const int shift : {24, 16, 8, 0}) {
            size += static_cast<char>(entry.image.size() >> shift);
        }
        Set(entry.identity, layout->bodySize, size);
        offsets.push_back(bytes->size());
        *bytes += entry.identity.header + entry.image;
        if (bytes->size() > PACKAGE_SIZE_MAX) {
            throw Stop{1, manifestFile + ": the package is 2 GiB or larger: phones refuse it"};
        }
    }
    const PackageBytes owned(bytes, reinterpret_cast<const uint8_t*>(bytes->data()));
    const Package package = LookInto(manifestFile, owned, bytes->size(), *layout);
    CheckEntries(package, offsets, withLargeEmmc);
    return {bytes, package, offsets.size(), inputs};
}

int Pack(const std::string& manifestFile, const std::string& output, bool withLargeEmmc,
         bool asJson) {
    const Built built = BuildPackage(manifestFile, withLargeEmmc);
    for (const std::string& input : built.inputs) {
        RequireOther(output, input);
    }
    WriteOutput(output, *built.bytes);
    const Json report = {{"package", Escaped(output)},
                         {"size", built.bytes->size()},
                         {"entries", built.entries},
                         {"sha256", Sha256(*built.bytes)}};
    Show(asJson, report, [&] {
        fmt::print("{}: {} bytes, entries: {}\n", Escaped(output), built.bytes->size(),
                   built.entries);
    });
    return 0;
}
