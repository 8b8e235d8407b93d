// Shows what a package holds and what is wrong with it, without changing it.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/digest.h"
#include "fwlab/phone/decision.h"
#include "simphone/text.h"

#include <fmt/format.h>

namespace {

// Of the package itself.
Texts FindingsOf(const Package& package) {
    Texts findings;
    for (const auto& [offset, bytes] : Uncovered(package)) {
        findings.push_back(fmt::format("{} bytes from {:#x} belong to no entry: the package is "
                                       "damaged, or they are junk (sha256 {})",
                                       bytes.size(), offset, Sha256(bytes)));
    }
    if (package.size == 0) {
        findings.emplace_back("it is empty: phones find nothing to do");
    }
    return findings;
}

// A key and its value a line.
void Print(const Json& object, const char* margin) {
    for (const auto& [key, value] : object.items()) {
        for (const Json& element : value.is_array() ? value : Json::array({value})) {
            if (key == "entries") {
                fmt::print("\n");
                Print(element, "    ");
            } else if (key == "findings" || key == "notes") {
                fmt::print("{}{}: {}\n", margin, key == "notes" ? "note" : "FINDING",
                           element.get<std::string>());
            }
        }
        if (!value.is_array() || key == "base_revisions") {
            fmt::print("{}{:<17}{}\n", margin, key, Shown(value));
        }
    }
}

} // namespace

int List(const std::string& packageFile, bool asJson) {
    const Package package = OpenPackage(packageFile);
    Texts findings = FindingsOf(package);
    bool isFlawless = findings.empty();
    Json report = {{"package", Escaped(package.path)},
                   {"size", package.size},
                   {"sha256", Sha256(BytesOf(package))},
                   {"findings", findings},
                   {"entries", Json::array()}};
    for (const Entry& entry : package.entries) {
        const Entry* outer = OuterEntry(package, entry);
        findings = outer == nullptr ? FindingsOf(package, entry) : Texts();
        isFlawless = isFlawless && findings.empty();
        Json shown = ReportOf(package, entry);
        shown["findings"] = findings;
        shown["notes"] =
            outer == nullptr ? NotesForAnyPhone(entry) : Texts{"a magic inside " + Title(*outer)};
        report["entries"].push_back(shown);
    }
    Show(asJson, report, [&] { Print(report, ""); });
    return isFlawless ? 0 : 1;
}
