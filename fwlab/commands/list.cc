// Shows what a package holds and what is wrong with it, without changing it.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/digest.h"
#include "fwlab/package/spans.h"
#include "fwlab/phone/decision.h"
#include "simphone/text.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

// outer is the entry inside which this one begins, null if there is none.
Json Describe(const Package& package, const Entry& entry, const Entry* outer) {
    Json shown = {{"number", entry.number}, {"offset", entry.offset}};
    shown.update(Describe(entry.identity));
    shown["body_offset"] = entry.body;
    shown["body_size"] = entry.bodySize;
    if (outer != nullptr) { // a part of the image, which no device takes
        shown["findings"] = Json::array();
        shown["notes"] = {"a magic inside " + Title(*outer)};
        return shown;
    }
    if (entry.bodyFits) {
        shown["sha256"] = Sha256(package, entry.body, entry.bodySize);
    }
    shown["findings"] = FindingsOf(package, entry);
    shown["notes"] = NotesForAnyPhone(entry);
    return shown;
}

Json Describe(const Package& package) {
    Json report = {{"package", Escaped(package.path)},
                   {"size", package.size},
                   {"sha256", Sha256(package, 0, package.size)},
                   {"findings", Json::array()}};
    for (const Span& span : Uncovered(package)) {
        report["findings"].push_back(fmt::format(
            "{} bytes from {:#x} belong to no entry: the package is damaged, or they are junk "
            "(sha256 {})",
            span.size, span.offset, Sha256(package, span.offset, span.size)));
    }
    Json& entries = report["entries"] = Json::array();
    for (const Entry& entry : package.entries) {
        entries.push_back(Describe(package, entry, OuterEntry(package, entry)));
    }
    if (package.size == 0) {
        report["findings"].push_back("it is empty: phones find nothing to do");
    }
    return report;
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

bool IsFlawless(const Json& report) {
    const Json& entries = report["entries"];
    return report["findings"].empty() &&
           std::all_of(entries.begin(), entries.end(),
                       [](const Json& entry) { return entry["findings"].empty(); });
}

} // namespace

int List(const std::string& packageFile, bool asJson) {
    const Json report = Describe(OpenPackage(packageFile));
    Show(asJson, report, [&] { Print(report, ""); });
    return IsFlawless(report) ? 0 : 1;
}
