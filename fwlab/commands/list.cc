// Shows what a package holds and what is wrong with it, without changing it.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
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

// A line for each key, and one for each finding and note.
void Print(const Json& object, const char* margin) {
    for (const auto& [key, value] : object.items()) {
        const bool isNote = key == "notes";
        if (key == "entries") {
            for (const Json& entry : value) {
                fmt::print("\n");
                Print(entry, "    ");
            }
        } else if (isNote || key == "findings") {
            for (const Json& text : value) {
                fmt::print("{}{}: {}\n", margin, isNote ? "note" : "FINDING",
                           text.get<std::string>());
            }
        } else {
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
        Json shown = ReportOf(entry);
        shown["findings"] = findings;
        shown["notes"] =
            outer == nullptr ? NotesOf(entry, true) : Texts{"a magic inside " + Title(*outer)};
        report["entries"].push_back(shown);
    }
    Show(asJson, report, [&] { Print(report, ""); });
    return isFlawless ? 0 : 1;
}
