// Tells whether a package is what its manifest makes.
#include "fwlab/commands/commands.h"
#include "fwlab/package/difference.h"
#include "fwlab/package/spans.h"
#include "simphone/text.h"

#include <fmt/format.h>

namespace {

std::string TextOf(const Difference& difference, const std::vector<const Entry*>& entries) {
    if (difference.entry == 0) {
        return fmt::format("{} bytes too many from {:#x} on, behind the last entry",
                           difference.second.get<size_t>() - difference.first.get<size_t>(),
                           difference.offset);
    }
    const Entry& entry = *entries[difference.entry - 1];
    const std::string title = fmt::format("entry {} at {:#x}", difference.entry, entry.offset);
    if (difference.field == "end") {
        return fmt::format("the package ends {} {}: {} bytes too few",
                           difference.offset <= entry.offset ? "in front of" : "in", title,
                           difference.first.get<size_t>() - difference.second.get<size_t>());
    }
    if (difference.field == "body") {
        return fmt::format("{}: body: first difference at byte {} (at {:#x})", title,
                           difference.offset - entry.body, difference.offset);
    }
    return fmt::format(
        "{}: {} (at {:#x}): the manifest makes {}, the package has {}{}", title, difference.field,
        difference.offset, Shown(difference.first), Shown(difference.second),
        difference.field == entry.identity.layout->bodySize.key ? "; what follows is not compared"
                                                                : "");
}

} // namespace

int Verify(const std::string& packageFile, const std::string& manifestFile, bool asJson) {
    const Built built = BuildPackage(manifestFile, true);
    const Package& wanted = built.package;
    const Package package = OpenPackage(packageFile, wanted.layout);
    const bool isSame = IsSame(package, wanted);
    const std::vector<const Entry*> entries = OwnEntries(wanted);
    Json report = {{"package", Escaped(packageFile)},
                   {"manifest", Escaped(manifestFile)},
                   {"same", isSame},
                   {"differences", Json::array()}};
    for (const Difference& difference : DifferencesOf(wanted, package)) {
        report["differences"].push_back(
            {{"entry", difference.entry == 0 ? Json() : Json(difference.entry)},
             {"field", difference.field},
             {"offset", difference.offset},
             {"manifest", difference.first},
             {"package", difference.second},
             {"text", TextOf(difference, entries)}});
    }
    Show(asJson, report, [&] {
        for (const Json& difference : report["differences"]) {
            fmt::print("{}\n", difference["text"].get<std::string>());
        }
        fmt::print("{}: {} identical to the package that {} makes\n", Escaped(packageFile),
                   isSame ? "is" : "is NOT", Escaped(manifestFile));
    });
    return isSame ? 0 : 1;
}
