// Tells whether a package is what its manifest makes.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/difference.h"
#include "fwlab/package/manifest.h"
#include "fwlab/phone/decision.h"
#include "simphone/text.h"

#include <fmt/format.h>

int Verify(const std::string& packageFile, const std::string& manifestFile, bool asJson) {
    const Package made = BuildPackage(manifestFile).package;
    RequireFlawless(made, true);
    const Package package = OpenPackage(packageFile, made.layout);
    const auto found = FirstDifference(made, package);
    Json report = {{"package", Escaped(packageFile)},
                   {"manifest", Escaped(manifestFile)},
                   {"same", !found},
                   {"first_difference", Json()}};
    if (found) {
        report["first_difference"] = {{"place", found->place},
                                      {"offset", found->offset},
                                      {"manifest", found->first},
                                      {"package", found->second}};
    }
    Show(asJson, report, [&] {
        if (found) {
            fmt::print("{} (at {:#x}): the manifest makes {}, the package has {}\n", found->place,
                       found->offset, found->first, found->second);
        }
        fmt::print("{}: {} identical to the package that {} makes\n", Escaped(packageFile),
                   found ? "is NOT" : "is", Escaped(manifestFile));
    });
    return found ? 1 : 0;
}
