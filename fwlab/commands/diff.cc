// Compares two packages: by their entries, and by what devices get from them.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/decision.h"
#include "simphone/text.h"

#include <fmt/format.h>
#include <map>
#include <set>
#include <string_view>

namespace {

// The own entries of one package that the other one does not have, byte by byte.
Json OnlyIn(const Package& package, const Package& other) {
    std::set<std::pair<std::string_view, std::string_view>> others; // header and body
    for (const Entry* entry : OwnEntries(other)) {
        others.emplace(entry->identity.header, entry->image);
    }
    Json only = Json::array();
    for (const Entry* entry : OwnEntries(package)) {
        if (others.count({entry->identity.header, entry->image}) == 0) {
            only.push_back(ReportOf(*entry));
            only.back().erase("body_offset");
        }
    }
    return only;
}

// Devices in the form of headers; each has the name of the revision that it runs.
using Devices = std::map<std::string, std::string>;

// Adds the devices that the package's entries describe.
void AddDevices(const Package& package, Devices& devices) {
    const Layout& layout = *package.layout;
    for (const Entry* entry : OwnEntries(package)) {
        Identity device = NewIdentity(layout);
        for (const Field* field : {&layout.manufacturer, &layout.name, &layout.extCsdRev}) {
            Set(device, *field, Get(entry->identity, *field));
        }
        const auto base = BaseRevisionsOf(entry->identity);
        if (!base) {
            Set(device, layout.revision, OldestRevision(layout));
            devices.emplace(device.header,
                            &layout == &UFS ? "another, older revision" : "another revision");
        }
        Texts named = base.value_or(Texts());
        named.push_back(RevisionOf(entry->identity));
        for (const std::string& revision : named) {
            Set(device, layout.revision, revision);
            devices[device.header] = Quoted(revision);
        }
    }
}

// What a device gets from the package.
Json DeviceReport(const Decision& decision) {
    Json report = ReportOf(decision);
    report.erase("steps");
    const std::string digest = Sha256(decision.sentBody);
    report["sha256"] = decision.sent == nullptr ? Json() : Json(digest);
    if (decision.verdict != Verdict::UPDATED) {
        report["gets"] = InWords(decision.verdict, WhyOf(decision));
        return report;
    }
    Texts gets = NotesOf(*decision.sent);
    gets.insert(gets.begin(), fmt::format("gets {}, {} bytes of entry {}, sha256 {}...",
                                          Quoted(*decision.recorded), decision.sentBody.size(),
                                          decision.sent->number, digest.substr(0, 12)));
    report["gets"] = fmt::format("{}", fmt::join(gets, "; note: "));
    return report;
}

// What each device gets from both packages.
Json DevicesReport(const Package& before, const Package& after, const Layout& layout) {
    Devices devices;
    AddDevices(before, devices);
    AddDevices(after, devices);
    Json reports = Json::array();
    for (const auto& [header, revision] : devices) {
        const Device device = {{&layout, header}, true, 0};
        const Decision was = Decide(before, device), is = Decide(after, device);
        // It ends with the same firmware and the same record.
        const bool isSame =
            was.verdict == is.verdict && was.recorded == is.recorded && was.sentBody == is.sentBody;
        reports.push_back({{"device", Title(device.identity) + " runs " + revision},
                           {"same", isSame},
                           {"old", DeviceReport(was)},
                           {"new", DeviceReport(is)}});
    }
    return reports;
}

Json ReportOf(const Package& package) {
    return {{"package", Escaped(package.path)},
            {"size", package.size},
            {"sha256", Sha256(BytesOf(package))},
            {"entries", OwnEntries(package).size()}};
}

void PrintEntries(const char* change, const Json& entries) {
    for (const Json& entry : entries) {
        Texts fields;
        for (const auto& [key, value] : entry.items()) {
            fields.push_back(key + " " + Shown(value));
        }
        fmt::print("{}: {}\n", change, fmt::join(fields, ", "));
    }
}

} // namespace

int Diff(const std::string& oldFile, const std::string& newFile, bool asJson) {
    const Package before = OpenPackage(oldFile), after = OpenPackage(newFile);
    Require(before.size == 0 || after.size == 0 || before.layout == after.layout, 2,
            "one package is for eMMC, the other one for UFS");
    const Layout& layout = *(after.size > 0 ? after : before).layout;
    const bool isSame = BytesOf(before) == BytesOf(after);
    const Json report = {{"old", ReportOf(before)},
                         {"new", ReportOf(after)},
                         {"same", isSame},
                         {"removed", OnlyIn(before, after)},
                         {"added", OnlyIn(after, before)},
                         {"devices", DevicesReport(before, after, layout)}};
    Show(asJson, report, [&] {
        PrintEntries("removed", report["removed"]);
        PrintEntries("added", report["added"]);
        if (Uncovered(before) != Uncovered(after)) {
            fmt::print("The bytes that belong to no entry differ: `fwlab list` shows them.\n");
        }
        for (const Json& row : report["devices"]) {
            fmt::print("{}{}:\n    old: {}\n    new: {}\n",
                       row["same"] ? "" : "CHANGES: ", row["device"].get<std::string>(),
                       row["old"]["gets"].get<std::string>(),
                       row["new"]["gets"].get<std::string>());
        }
        fmt::print("{}\n", isSame ? "The packages are the same." : "The packages differ.");
    });
    return isSame ? 0 : 1;
}
