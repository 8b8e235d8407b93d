// Takes a package apart: its manifest and its images, of which pack makes the same bytes again.
#include "fwlab/base/json.h"
#include "fwlab/base/output.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/difference.h"
#include "fwlab/package/manifest.h"
#include "fwlab/package/spans.h"
#include "fwlab/phone/decision.h"
#include "simphone/files.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>

namespace {

constexpr char MANIFEST[] = "package.toml";

// Why pack makes no such package; empty if nothing is seen.
std::string FlawOf(const Package& package, const std::vector<const Entry*>& entries) {
    if (package.size == 0) {
        return "it is empty";
    }
    for (const Entry* entry : entries) {
        const Texts findings = FindingsOf(package, *entry);
        if (!findings.empty()) {
            return Title(*entry) + ": " + findings[0];
        }
    }
    const std::vector<Span> spans = Uncovered(package);
    return spans.empty() ? ""
                         : fmt::format("{} bytes from {:#x} belong to no entry", spans[0].size,
                                       spans[0].offset);
}

// Stop unless pack makes these bytes of the manifest.
void RequireSame(const std::string& manifest, const Package& package) {
    if (const auto found = FirstDifference(BuildPackage(manifest).package, package)) {
        throw Stop{1, fmt::format("{}: pack would not make this package: {} would be {}, not {}",
                                  package.path, found->place, found->first, found->second)};
    }
}

} // namespace

int Unpack(const std::string& packageFile, const std::string& folder, bool asJson) {
    const Package package = OpenPackage(packageFile);
    const std::vector<const Entry*> entries = OwnEntries(package);
    const std::string flaw = FlawOf(package, entries);
    if (!flaw.empty()) {
        throw Stop{1, packageFile + ": pack would not make this package: " + flaw};
    }
    std::vector<ManifestEntry> parts;
    for (const Entry* entry : entries) {
        const uint8_t* body = package.bytes.get() + entry->body;
        parts.push_back({entry->identity,
                         {body, body + entry->bodySize},
                         fmt::format("image-{}.bin", parts.size() + 1)});
    }
    MakeFolder(folder, [&](const std::string& made) {
        for (const ManifestEntry& part : parts) {
            WriteOutput(made + "/" + part.imageFile, part.image);
        }
        WriteOutput(made + "/" + MANIFEST, ManifestText(*package.layout, parts));
        RequireSame(made + "/" + MANIFEST, package);
    });
    const bool needsGki = std::any_of(entries.begin(), entries.end(),
                                      [](const Entry* entry) { return NeedsGkiMode(*entry); });
    const std::string manifest = std::filesystem::path(folder) / MANIFEST;
    const Json report = {{"package", Escaped(packageFile)},
                         {"manifest", Escaped(manifest)},
                         {"entries", entries.size()},
                         {"gki_only", needsGki}};
    Show(asJson, report, [&] {
        fmt::print("{}: entries: {}\n{}", Escaped(manifest), entries.size(),
                   needsGki ? "An eMMC image is larger than 1 MiB: pack it with --gki-only.\n"
                            : "");
    });
    return 0;
}
