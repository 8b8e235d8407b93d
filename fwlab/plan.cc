// The release gate: what each phone of a fleet gets from the packages, before any phone has them.
#include "fwlab/commands.h"
#include "fwlab/json.h"
#include "fwlab/models.h"
#include "fwlab/outcome.h"
#include "fwlab/spans.h"
#include "simphone/files.h"

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
    Verdict verdict;
    std::string gets; // for people
    const Package* package;
    const Entry* sent;
};

bool IsBad(Verdict verdict) {
    return verdict == Verdict::USED_UP || verdict == Verdict::WRONG_IMAGE ||
           verdict == Verdict::STUCK;
}

std::string Gets(const Decision& decision) {
    return decision.verdict == Verdict::UPDATE
               ? fmt::format("gets entry {}, {}", decision.sent->number, Quoted(decision.recorded))
               : InWords(NameOf(decision.verdict), decision.why);
}

Line MakeLine(const Model& model, const Running& running, uint64_t phones, const Package* package,
              const Decision& decision) {
    return {&model,
            running.revision,
            phones,
            decision.verdict,
            Gets(decision),
            package,
            decision.verdict == Verdict::UPDATE ? decision.sent : nullptr};
}

std::string UpToZero(const std::string& bytes) {
    return bytes.substr(0, bytes.find('\0'));
}

// The lines of one model and revision: of phones that have made no attempt from it, and of those
// whose record is there.
void AddLines(const Model& model, const Running& running, const Package* package,
              std::vector<Record>& records, std::vector<Line>& lines) {
    const Layout& layout = *model.device.identity.layout;
    Device device = model.device;
    Set(device.identity, layout.revision, running.revision);
    if (package == nullptr) {
        lines.push_back({&model, running.revision, running.phones, Verdict::NOTHING,
                         fmt::format("nothing to do: there is no {} package", layout.title),
                         nullptr, nullptr});
        return;
    }
    std::map<Verdict, Line> recorded;
    uint64_t others = running.phones;
    const auto isOther = [&](const Record& record) {
        return record.product != UpToZero(Get(device.identity, layout.name)) ||
               record.base != UpToZero(running.revision);
    };
    const auto own = std::stable_partition(records.begin(), records.end(), isOther);
    const auto end = records.end() - own > static_cast<ptrdiff_t>(others)
                         ? own + static_cast<ptrdiff_t>(others)
                         : records.end();
    for (auto record = own; record != end; ++record) { // each is of one phone
        const Decision decision = Decide(*package, device, &*record);
        const auto line =
            recorded.try_emplace(decision.verdict, MakeLine(model, running, 0, package, decision));
        line.first->second.phones++;
        others--;
    }
    records.erase(own, end);
    if (others > 0 || recorded.empty()) {
        lines.push_back(MakeLine(model, running, others, package, Decide(*package, device)));
    }
    for (const auto& [verdict, line] : recorded) {
        lines.push_back(line);
    }
}

Json Describe(const Line& line) {
    const Layout& layout = *line.model->device.identity.layout;
    return {{"product_name", Escaped(Get(line.model->device.identity, layout.name))},
            {"manufacturer", Escaped(Get(line.model->device.identity, layout.manufacturer))},
            {"revision", Escaped(line.revision)},
            {"phones", line.phones},
            {"answer", NameOf(line.verdict)},
            {"gets", line.gets},
            {"package", line.package == nullptr ? Json() : Json(Escaped(line.package->path))},
            {"entry", line.sent == nullptr ? Json() : Json(line.sent->number)}};
}

// Entries of the packages' maker that no phone of the fleet gets.
Texts UnusedEntries(const std::vector<Package>& packages, const std::vector<Line>& lines) {
    std::set<const Entry*> used;
    for (const Line& line : lines) {
        used.insert(line.sent);
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
                                       "stop, whatever the package",
                                       damaged));
    }
    if (others > 0) {
        findings.push_back(
            fmt::format("{} folders are no state directory that can be read", others));
    }
}

// The model, by what the update knows it by.
std::string NameOf(const Model& model) {
    const Identity& identity = model.device.identity;
    const Layout& layout = *identity.layout;
    const std::string manufacturer = Get(identity, layout.manufacturer);
    return layout.extCsdRev.size == 0
               ? Quoted(manufacturer) + " " + Quoted(Get(identity, layout.name))
               : fmt::format("{:#04x} {} EXT_CSD_REV {}", static_cast<uint8_t>(manufacturer[0]),
                             Quoted(Get(identity, layout.name)),
                             static_cast<uint8_t>(Get(identity, layout.extCsdRev)[0]));
}

void Print(const std::vector<Line>& lines) {
    size_t width = 0;
    for (const Line& line : lines) {
        width = std::max(width, NameOf(*line.model).size());
    }
    fmt::print("{:<{}}  {:<12} {:>10}\n", "MODEL", width, "RUNS", "PHONES");
    for (const Line& line : lines) {
        fmt::print("{:<{}}  {:<12} {:>10}  {}\n", NameOf(*line.model), width, Quoted(line.revision),
                   line.phones, line.gets);
        for (const std::string& note : line.sent == nullptr ? Texts() : NotesOf(*line.sent)) {
            fmt::print("    note: {}\n", note);
        }
    }
}

} // namespace

int Plan(const PlanOptions& options, bool asJson) {
    std::vector<Package> packages;
    for (const std::string& path : options.packages) {
        packages.push_back(OpenPackage(path));
        if (!packages.back().flaw.empty()) {
            throw Stop{1, path + " " + packages.back().flaw};
        }
        for (size_t i = 0; i + 1 < packages.size(); i++) {
            if (packages[i].layout == packages.back().layout) {
                throw Stop{2, fmt::format("{} and {} are both {} packages: a phone has one",
                                          packages[i].path, path, packages[i].layout->title)};
            }
        }
    }
    const std::vector<Model> models = ReadModels(options.fleet);
    std::vector<Record> records;
    Texts findings;
    if (!options.records.empty()) {
        ReadRecords(options.records, records, findings);
    }
    std::vector<Line> lines;
    for (const Model& model : models) {
        const auto package = std::find_if(packages.begin(), packages.end(), [&](const Package& p) {
            return p.layout == model.device.identity.layout;
        });
        for (const Running& running : model.running) {
            AddLines(model, running, package == packages.end() ? nullptr : &*package, records,
                     lines);
        }
    }
    std::map<Verdict, uint64_t> totals;
    for (const Line& line : lines) {
        totals[line.verdict] += line.phones;
    }
    const Texts unused = UnusedEntries(packages, lines);
    findings.insert(findings.end(), unused.begin(), unused.end());
    const bool isReleasable =
        findings.empty() && std::none_of(lines.begin(), lines.end(),
                                         [](const Line& line) { return IsBad(line.verdict); });
    if (asJson) {
        Json answer = {{"lines", Json::array()},
                       {"totals", Json::object()},
                       {"findings", findings},
                       {"records_of_no_phone", records.size()}};
        for (const Line& line : lines) {
            answer["lines"].push_back(Describe(line));
        }
        for (const auto& [verdict, phones] : totals) {
            answer["totals"][NameOf(verdict)] = phones;
        }
        fmt::print("{}\n", answer.dump(2));
        return isReleasable ? 0 : 1;
    }
    Print(lines);
    fmt::print("\nPhones:");
    for (const auto& [verdict, phones] : totals) {
        fmt::print(" {} {}", phones, NameOf(verdict));
    }
    fmt::print("\n");
    if (!records.empty()) {
        fmt::print("Note: {} records are of no phone of the fleet.\n", records.size());
    }
    for (const std::string& text : findings) {
        fmt::print("FINDING: {}\n", text);
    }
    fmt::print("{}\n", isReleasable
                           ? "No phone of this fleet would use up its attempt or get a wrong image."
                           : "NOT to be released to this fleet.");
    return isReleasable ? 0 : 1;
}
