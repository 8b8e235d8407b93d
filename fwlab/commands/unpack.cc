// Takes a package apart: its manifest and its images, of which pack makes the same bytes again.
#include "fwlab/base/json.h"
#include "fwlab/base/output.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/difference.h"
#include "fwlab/package/manifest.h"
#include "fwlab/phone/decision.h"
#include "simphone/text.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>

namespace {

// Stop unless pack makes these bytes of the manifest.
void RequireSame(const std::string& manifest, const Package& package) {
    Package made = BuildPackage(manifest).package;
    made.path = package.path + ": pack would not make this package";
    RequireFlawless(made, true);
    if (const auto found = FirstDifference(made, package)) {
        throw Stop{1, fmt::format("{}: {} would be {}, not {}", made.path, found->place,
                                  found->first, found->second)};
    }
}

} // namespace

int Unpack(const std::string& packageFile, const std::string& folder, bool asJson) {
    const Package package = OpenPackage(packageFile);
    const std::vector<const Entry*> entries = OwnEntries(package);
    Require(!entries.empty(), 1, packageFile + ": is empty: pack makes no such package");
    MakeFolder(folder, [&](const std::string& made) {
        TakeApart(package, made);
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
