// Builds packages. A package is put together in memory, looked at there as a phone would, and only
// then written.
#include "fwlab/base/json.h"
#include "fwlab/base/output.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/manifest.h"
#include "fwlab/phone/decision.h"
#include "simphone/text.h"

#include <fmt/format.h>

int Pack(const std::string& manifestFile, const std::string& output, bool withLargeEmmc,
         bool asJson) {
    const Built built = BuildPackage(manifestFile);
    RequireFlawless(built.package, withLargeEmmc);
    for (const std::string& input : built.inputs) {
        RequireOther(output, input);
    }
    const std::string_view bytes = BytesOf(built.package);
    const size_t entries = OwnEntries(built.package).size();
    WriteOutput(output, bytes);
    const Json report = {{"package", Escaped(output)},
                         {"size", bytes.size()},
                         {"entries", entries},
                         {"sha256", Sha256(bytes)}};
    Show(asJson, report, [&] {
        fmt::print("{}: {} bytes, entries: {}\n", Escaped(output), bytes.size(), entries);
    });
    return 0;
}
