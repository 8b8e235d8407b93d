// The release gate: what each phone of a fleet gets from the packages, before any phone has them.
#include "fwlab/base/json.h"
#include "fwlab/base/progress.h"
#include "fwlab/base/text.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/decision.h"
#include "fwlab/phone/fleet.h"
#include "fwlab/phone/state_directory.h"
#include "simphone/text.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>
#include <tuple>

namespace {

// Phones of which the same is known.
struct Line {
    uint64_t phones;
    std::vector<Decision> cases; // for each device that they may be, with each revision
};

// The entry that a phone gets; null for none.
const Entry* Received(const Decision& one) {
    return one.verdict == Verdict::UPDATED ? one.sent : nullptr;
}

std::string Gets(const Decision& one) {
    const Entry* entry = Received(one);
    return entry != nullptr ? fmt::format("gets entry {}, {}", entry->number, Quoted(*one.recorded))
                            : InWords(one.verdict, WhyOf(one));
}

// The answer for the phones: UNKNOWN if it depends on the case.
Verdict VerdictOf(const Line& line) {
    const Verdict first = line.cases.front().verdict;
    const bool isOne = std::all_of(line.cases.begin(), line.cases.end(),
                                   [&](const Decision& other) { return other.verdict == first; });
    return isOne ? first : Verdict::UNKNOWN;
}

// Whether there is only one case, or the phones get the same entry in each.
bool IsDecided(const Line& line) {
    const Entry* first = Received(line.cases.front());
    return line.cases.size() == 1 ||
           (first != nullptr && std::all_of(line.cases.begin(), line.cases.end(),
                                            [&](auto& other) { return Received(other) == first; }));
}

std::string UpToZero(const std::string& bytes) {
    return bytes.substr(0, bytes.find('\0'));
}

// What a device of the model that runs this revision gets.
Decision DecideFor(const std::vector<Package>& packages, const Model& model,
                   const std::string& revision, const std::optional<Record>& record = {}) {
    static const Package none = {};
    Device device = model.device;
    const Layout* layout = device.identity.layout;
    Set(device.identity, layout->revision, revision);
    const auto package = std::find_if(packages.begin(), packages.end(),
                                      [&](const Package& one) { return one.layout == layout; });
    return Decide(package == packages.end() ? none : *package, device, record);
}

// Each entry that no phone of the fleet gets is a finding. A magic inside an image is no entry.
void FindUnusedEntries(const std::vector<Package>& packages, const std::vector<Line>& lines,
                       Texts& findings) {
    std::set<const Entry*> used;
    for (const Line& line : lines) {
        for (const Decision& one : line.cases) {
            used.insert(Received(one));
        }
    }
    for (const Package& package : packages) {
        for (const Entry& entry : package.entries) {
            if (used.count(&entry) == 0 && entry.outer == 0) {
                findings.push_back(fmt::format("{} of {}, {} for {}: no phone of the fleet gets it",
                                               Title(entry), Quoted(package.path),
                                               Quoted(RevisionOf(entry.identity)),
                                               Quoted(NameOf(entry.identity))));
            }
        }
    }
}

// Phones whose last attempt is the same.
struct Attempted {
    Record record; // of one of them
    uint64_t phones;
};
// By what decides: whether the outcome is open; the product; the revisions that they may run.
using Attempts = std::map<std::tuple<bool, std::string, Texts>, Attempted>;

// The attempts of the phones that have made one; a record that no run can read back is a finding.
Attempts ReadAttempts(const std::string& folder, Texts& findings) {
    Attempts attempts;
    size_t damaged = 0, others = 0;
    const Texts directories = StateDirectoriesIn({folder});
    for (size_t i = 0; i < directories.size(); i++) {
        ShowProgress(i, directories.size(), "state directories");
        const StateReport report = ReadState(directories[i]);
        const Record& record = report.record;
        damaged += report.verdict == Verdict::RECORD_UNREADABLE ? 1 : 0;
        others += IsNoPhone(report.verdict) ? 1 : 0;
        if (record.isReadable) {
            const bool isOpen = !HasPassed(report);
            const Texts running = isOpen && record.base != record.target
                                      ? Texts{record.base, record.target}
                                      : Texts{record.target};
            const auto key = std::make_tuple(isOpen, record.product, running);
            attempts.try_emplace(key, Attempted{record, 0}).first->second.phones++;
        }
    }
    ShowProgress(directories.size(), directories.size(), "state directories");
    if (damaged > 0) {
        findings.push_back(fmt::format("{} phones have a record that no run can read back: they "
                                       "stop at every package with an update for them",
                                       damaged));
    }
    if (others > 0) {
        findings.push_back(fmt::format(
            "{} folders are not state directories, are empty or cannot be read", others));
    }
    return attempts;
}

// Takes the phones out of the fleet's models that count them. A line without phones if there are
// none.
Line TakePhones(std::vector<Model>& fleet, const std::vector<Package>& packages,
                const Attempted& attempt, const Texts& running) {
    Line line = {0, {}};
    for (Model& model : fleet) {
        if (UpToZero(NameOf(model.device.identity)) != attempt.record.product) {
            continue;
        }
        for (const std::string& text : running) {
            const auto isIt = [&](const Running& one) { return UpToZero(one.revision) == text; };
            const auto counted = std::find_if(model.running.begin(), model.running.end(), isIt);
            const bool isCounted = counted != model.running.end();
            line.cases.push_back(
                DecideFor(packages, model, isCounted ? counted->revision : text, attempt.record));
            if (isCounted) {
                const uint64_t taken = std::min(counted->phones, attempt.phones - line.phones);
                counted->phones -= taken;
                line.phones += taken;
            }
        }
    }
    return line;
}

std::vector<Package> ReadPackages(const Texts& paths) {
    std::vector<Package> packages;
    for (const std::string& path : paths) {
        const Package package = OpenPackage(path);
        Require(package.size > 0, 1, path + " is empty: phones find nothing to do in it");
        for (const Package& other : packages) {
            Require(other.layout != package.layout, 2,
                    fmt::format("{} and {} are both {} packages: a phone has one", other.path, path,
                                package.layout->title));
        }
        packages.push_back(package);
    }
    return packages;
}

Json Describe(const Decision& one) {
    const Identity& device = one.device.identity;
    const Entry* entry = Received(one);
    const std::string& path = one.package->path;
    return {{"product_name", Escaped(NameOf(device))},
            {"manufacturer", Escaped(Get(device, device.layout->manufacturer))},
            {"revision", Escaped(RevisionOf(device))},
            {"device", Title(device)},
            {"answer", WordOf(one.verdict)},
            {"gets", Gets(one)},
            {"package", path.empty() ? Json() : Json(Escaped(path))},
            {"entry", entry == nullptr ? Json() : Json(entry->number)}};
}

// As the first case, but for what is not the same in each.
Json Describe(const Line& line) {
    Json report = Describe(line.cases.front()), cases = Json::array();
    Texts details;
    for (const Decision& one : line.cases) {
        const Identity& device = one.device.identity;
        cases.push_back(Describe(one));
        details.push_back(fmt::format("if it is {} and runs {}: {}", Title(device),
                                      Quoted(RevisionOf(device)), Gets(one)));
    }
    if (IsDecided(line)) {
        const Entry* entry = Received(line.cases.front());
        details = entry == nullptr ? Texts() : NotesOf(*entry);
    } else {
        report["gets"] = InWords(VerdictOf(line), "it is one of these cases");
        report["entry"] = Json();
    }
    report["phones"] = line.phones;
    report["answer"] = WordOf(VerdictOf(line));
    report["cases"] = cases;
    report["details"] = details;
    return report;
}

// What is to be said before the packages are released.
Json MakeReport(const std::vector<Package>& packages, std::vector<Model> fleet,
                const std::string& recordsFolder) {
    Texts findings;
    const Attempts attempts =
        recordsFolder.empty() ? Attempts() : ReadAttempts(recordsFolder, findings);
    std::vector<Line> tried, lines;
    uint64_t otherRecords = 0;
    for (const auto& [key, attempt] : attempts) { // those that passed come first
        const Line line = TakePhones(fleet, packages, attempt, std::get<Texts>(key));
        tried.insert(tried.end(), line.phones > 0 ? 1 : 0, line);
        otherRecords += attempt.phones - line.phones;
    }
    for (const Model& model : fleet) { // those that have not tried
        for (const auto& [revision, phones] : model.running) {
            if (phones > 0) {
                lines.push_back({phones, {DecideFor(packages, model, revision)}});
            }
        }
    }
    lines.insert(lines.end(), tried.begin(), tried.end());
    FindUnusedEntries(packages, lines, findings);
    Json described = Json::array(), totals = Json::object();
    std::map<Verdict, uint64_t> phones;
    for (const Line& line : lines) {
        described.push_back(Describe(line));
        phones[VerdictOf(line)] += line.phones;
    }
    bool isReleasable = findings.empty();
    for (const auto& [verdict, count] : phones) {
        totals[WordOf(verdict)] = count;
        isReleasable = isReleasable && IsCalm(verdict);
    }
    return {{"releasable", isReleasable},
            {"lines", described},
            {"totals", totals},
            {"findings", findings},
            {"records_of_no_phone", otherRecords}};
}

void PrintLines(const Json& lines) {
    std::vector<Texts> rows = {{"MODEL", "RUNS", "PHONES", ""}};
    for (const Json& line : lines) {
        std::set<std::string> devices, revisions;
        for (const Json& one : line["cases"]) {
            devices.insert(one["device"]);
            revisions.insert(Shown(one["revision"]));
        }
        rows.push_back({fmt::format("{}", fmt::join(devices, " or ")),
                        fmt::format("{}", fmt::join(revisions, " or ")), Shown(line["phones"]),
                        line["gets"]});
    }
    const Texts shown = InColumns(rows, 2);
    fmt::print("{}\n", shown.front());
    for (size_t i = 0; i < lines.size(); i++) {
        fmt::print("{}\n", shown[i + 1]);
        for (const Json& detail : lines[i]["details"]) {
            fmt::print("    {}\n", detail.get<std::string>());
        }
    }
}

void Print(const Json& report) {
    PrintLines(report["lines"]);
    fmt::print("\nPhones:");
    for (const auto& [word, phones] : report["totals"].items()) {
        fmt::print(" {} {}", phones.get<uint64_t>(), word);
    }
    fmt::print("\n");
    if (report["records_of_no_phone"] > 0) {
        fmt::print("Note: {} records belong to no phone of the fleet: it counts no phone, or no "
                   "further one, of that model with that revision.\n",
                   Shown(report["records_of_no_phone"]));
    }
    for (const Json& finding : report["findings"]) {
        fmt::print("FINDING: {}\n", finding.get<std::string>());
    }
    fmt::print(report["releasable"]
                   ? "No phone of this fleet would use up its attempt or get a wrong image.\n"
                   : "Do NOT release to this fleet.\n");
}

} // namespace

int Plan(const PlanOptions& options, bool asJson) {
    const std::vector<Package> packages = ReadPackages(options.packages);
    const Json report = MakeReport(packages, ReadFleet(options.fleet), options.records);
    Show(asJson, report, [&] { Print(report); });
    return report["releasable"] ? 0 : 1;
}
