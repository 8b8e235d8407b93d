// The release gate: what each phone of a fleet gets from the packages, before any phone has them.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/spans.h"
#include "fwlab/phone/decision.h"
#include "fwlab/phone/fleet.h"
#include "fwlab/phone/state_directory.h"
#include "simphone/text.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

namespace {

// Phones of one model that run one revision and get one answer.
struct Line {
    const Model* model;
    std::string revision;
    uint64_t phones;
    const Package* package; // null: there is none for them
    Decision decision;
};

bool IsBad(Verdict verdict) {
    return !IsCalm(verdict);
}

// The entry that the phones get; null for none.
const Entry* Received(const Line& line) {
    return line.decision.verdict == Verdict::UPDATED ? line.decision.sent : nullptr;
}

std::string Gets(const Line& line) {
    const Entry* entry = Received(line);
    return entry != nullptr
               ? fmt::format("gets entry {}, {}", entry->number, Quoted(*line.decision.recorded))
               : InWords(line.decision.verdict, WhyOf(line.decision));
}

std::string UpToZero(const std::string& bytes) {
    return bytes.substr(0, bytes.find('\0'));
}

// Adds the lines of one model and revision: for phones without a record, and for those whose record
// is there.
void AddLines(const Model& model, const Running& running, const Package* package,
              std::vector<Record>& records, std::vector<Line>& lines) {
    const Layout& layout = *model.device.identity.layout;
    Device device = model.device;
    Set(device.identity, layout.revision, running.revision);
    const auto add = [&](uint64_t phones, const Decision& decision) {
        lines.push_back({&model, running.revision, phones, package, decision});
    };
    if (package == nullptr) {
        add(running.phones, DecideWithoutPackage(device));
        return;
    }
    const auto isOther = [&](const Record& record) {
        return record.product != UpToZero(Get(device.identity, layout.name)) ||
               record.base != UpToZero(running.revision);
    };
    const auto own = std::stable_partition(records.begin(), records.end(), isOther);
    const auto count = std::min<uint64_t>(running.phones, static_cast<size_t>(records.end() - own));
    const auto end = own + static_cast<ptrdiff_t>(count);
    std::map<Verdict, std::pair<Decision, uint64_t>> recorded;
    for (auto record = own; record != end; ++record) { // each is of one phone
        const Decision decision = Decide(*package, device, &*record);
        recorded.try_emplace(decision.verdict, decision, 0).first->second.second++;
    }
    records.erase(own, end);
    if (running.phones > count || recorded.empty()) {
        add(running.phones - count, Decide(*package, device));
    }
    for (const auto& [verdict, group] : recorded) {
        add(group.second, group.first);
    }
}

// What is to be said before the packages are released.
struct Report {
    std::vector<Line> lines;
    std::map<Verdict, uint64_t> totals; // phones
    Texts findings;
    size_t otherRecords; // of no phone of the fleet
    bool isReleasable;
};

// The entries that no phone of the fleet gets. A magic inside an image is no entry.
Texts UnusedEntries(const std::vector<Package>& packages, const std::vector<Line>& lines) {
    std::set<const Entry*> used;
    for (const Line& line : lines) {
        used.insert(Received(line));
    }
    Texts unused;
    for (const Package& package : packages) {
        for (const Entry& entry : package.entries) {
            if (used.count(&entry) == 0 && OuterEntry(package, entry) == nullptr) {
                unused.push_back(fmt::format("{} of {}, {} for {}: no phone of the fleet gets it",
                                             Title(entry), Quoted(package.path),
                                             Quoted(Get(entry.identity, package.layout->revision)),
                                             Quoted(Get(entry.identity, package.layout->name))));
            }
        }
    }
    return unused;
}

// The records of phones that have made an attempt; one that no run can read back is a finding.
void ReadRecords(const std::string& folder, std::vector<Record>& records, Texts& findings) {
    size_t damaged = 0, others = 0;
    for (const std::string& directory : StateDirectoriesIn(folder)) {
        const StateReport report = DescribeState(directory);
        damaged += report.state == State::DAMAGED ? 1 : 0;
        others += report.state == State::FOREIGN || report.state == State::UNREADABLE ? 1 : 0;
        if (!report.record.target.empty()) {
            records.push_back(report.record);
        }
    }
    if (damaged > 0) {
        findings.push_back(fmt::format("{} phones have a record that no run can read back: they "
                                       "stop at every package with an update for them",
                                       damaged));
    }
    if (others > 0) {
        findings.push_back(
            fmt::format("{} folders are not state directories, or cannot be read", others));
    }
}

std::vector<Package> ReadPackages(const Texts& paths) {
    std::vector<Package> packages;
    for (const std::string& path : paths) {
        const Package package = OpenPackage(path);
        if (package.size == 0) {
            throw Stop{1, path + ": is empty: phones find nothing to do"};
        }
        for (const Package& other : packages) {
            if (other.layout == package.layout) {
                throw Stop{2, fmt::format("{} and {} are both {} packages: a phone has one",
                                          other.path, path, package.layout->title)};
            }
        }
        packages.push_back(package);
    }
    return packages;
}

// Both are borrowed by the report.
Report MakeReport(const std::vector<Package>& packages, const std::vector<Model>& models,
                  const std::string& recordsFolder) {
    Report report = {};
    std::vector<Record> records;
    if (!recordsFolder.empty()) {
        ReadRecords(recordsFolder, records, report.findings);
    }
    for (const Model& model : models) {
        const auto package = std::find_if(packages.begin(), packages.end(), [&](const Package& p) {
            return p.layout == model.device.identity.layout;
        });
        for (const Running& running : model.running) {
            AddLines(model, running, package == packages.end() ? nullptr : &*package, records,
                     report.lines);
        }
    }
    report.otherRecords = records.size();
    const Texts unused = UnusedEntries(packages, report.lines);
    report.findings.insert(report.findings.end(), unused.begin(), unused.end());
    report.isReleasable = report.findings.empty();
    for (const Line& line : report.lines) {
        report.totals[line.decision.verdict] += line.phones;
        report.isReleasable = report.isReleasable && !IsBad(line.decision.verdict);
    }
    return report;
}

Json Describe(const Line& line) {
    const Identity& identity = line.model->device.identity;
    const Entry* entry = Received(line);
    return {{"product_name", Escaped(Get(identity, identity.layout->name))},
            {"manufacturer", Escaped(Get(identity, identity.layout->manufacturer))},
            {"revision", Escaped(line.revision)},
            {"phones", line.phones},
            {"answer", WordOf(line.decision.verdict)},
            {"gets", Gets(line)},
            {"package", line.package == nullptr ? Json() : Json(Escaped(line.package->path))},
            {"entry", entry == nullptr ? Json() : Json(entry->number)}};
}

Json Describe(const Report& report) {
    Json lines = Json::array(), totals = Json::object();
    for (const Line& line : report.lines) {
        lines.push_back(Describe(line));
    }
    for (const auto& [verdict, phones] : report.totals) {
        totals[WordOf(verdict)] = phones;
    }
    return {{"lines", lines},
            {"totals", totals},
            {"findings", report.findings},
            {"records_of_no_phone", report.otherRecords}};
}

void Print(const std::vector<Line>& lines) {
    size_t width = 0;
    for (const Line& line : lines) {
        width = std::max(width, Title(line.model->device.identity).size());
    }
    fmt::print("{:<{}}  {:<12} {:>10}\n", "MODEL", width, "RUNS", "PHONES");
    for (const Line& line : lines) {
        fmt::print("{:<{}}  {:<12} {:>10}  {}\n", Title(line.model->device.identity), width,
                   Quoted(line.revision), line.phones, Gets(line));
        const Entry* entry = Received(line);
        for (const std::string& note : entry == nullptr ? Texts() : NotesOf(*entry)) {
            fmt::print("    note: {}\n", note);
        }
    }
}

void Print(const Report& report, size_t packages) {
    Print(report.lines);
    fmt::print("\nPhones:");
    for (const auto& [verdict, phones] : report.totals) {
        fmt::print(" {} {}", phones, WordOf(verdict));
    }
    fmt::print("\n");
    if (report.otherRecords > 0) {
        fmt::print("Note: {} records belong to no phone of the fleet.\n", report.otherRecords);
    }
    for (const std::string& text : report.findings) {
        fmt::print("FINDING: {}\n", text);
    }
    if (report.isReleasable) {
        fmt::print("No phone of this fleet would use up its attempt or get a wrong image.\n");
    } else {
        fmt::print("Do NOT release {} to this fleet.\n",
                   packages == 1 ? "this package" : "these packages");
    }
}

} // namespace

int Plan(const PlanOptions& options, bool asJson) {
    const std::vector<Package> packages = ReadPackages(options.packages);
    const std::vector<Model> models = ReadFleet(options.fleet);
    const Report report = MakeReport(packages, models, options.records);
    Show(asJson, Describe(report), [&] { Print(report, packages.size()); });
    return report.isReleasable ? 0 : 1;
}
