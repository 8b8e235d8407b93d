// The release gate: what each phone of a fleet gets from the packages, before any phone has them.
#include "fwlab/base/json.h"
#include "fwlab/base/progress.h"
#include "fwlab/base/table.h"
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

// A model that a phone may be of, with a revision that it may run, and what it gets then.
struct Case {
    const Model* model;
    const Package* package; // null: there is none for it
    Decision decision;      // for the model's device with that revision
};

// Phones of which the same is known.
struct Line {
    uint64_t phones;
    std::vector<Case> cases; // at least one
};

// The entry that a phone gets; null for none.
const Entry* Received(const Case& one) {
    return one.decision.verdict == Verdict::UPDATED ? one.decision.sent : nullptr;
}

std::string Gets(const Case& one) {
    const Entry* entry = Received(one);
    return entry != nullptr
               ? fmt::format("gets entry {}, {}", entry->number, Quoted(*one.decision.recorded))
               : InWords(one.decision.verdict, WhyOf(one.decision));
}

// The answer for the phones: UNKNOWN if it depends on the case.
Verdict VerdictOf(const Line& line) {
    const Verdict first = line.cases.front().decision.verdict;
    const bool isOne = std::all_of(line.cases.begin(), line.cases.end(), [&](const Case& other) {
        return other.decision.verdict == first;
    });
    return isOne ? first : Verdict::UNKNOWN;
}

// Whether one answer with one reason holds in each case. A field that differs from the device's is
// a reason of its own for each model.
bool IsDecided(const Line& line) {
    const Case& first = line.cases.front();
    const Reason& reason = first.decision.reason;
    return std::all_of(line.cases.begin() + 1, line.cases.end(), [&](const Case& one) {
        const Reason& other = one.decision.reason;
        return one.decision.verdict == first.decision.verdict && Received(one) == Received(first) &&
               other.kind == reason.kind && other.entry == reason.entry &&
               other.other == reason.other && other.limit == reason.limit && other.field == nullptr;
    });
}

std::string Gets(const Line& line) {
    return IsDecided(line) ? Gets(line.cases.front())
                           : InWords(VerdictOf(line), "undecided between these cases");
}

std::string UpToZero(const std::string& bytes) {
    return bytes.substr(0, bytes.find('\0'));
}

// Phones whose last attempt is the same.
struct Attempted {
    Record record;
    bool hasPassed;
    uint64_t phones;
};
// By what decides: whether the outcome is open; product; base, if it is open; target.
using Attempts = std::map<std::tuple<bool, std::string, std::string, std::string>, Attempted>;

Case MakeCase(const std::vector<Package>& packages, const Model& model, const std::string& revision,
              const Record* record) {
    const Layout& layout = *model.device.identity.layout;
    Device device = model.device;
    Set(device.identity, layout.revision, revision);
    const auto package = std::find_if(packages.begin(), packages.end(),
                                      [&](const Package& one) { return one.layout == &layout; });
    return package == packages.end() ? Case{&model, nullptr, DecideWithoutPackage(device)}
                                     : Case{&model, &*package, Decide(*package, device, record)};
}

// A phone whose last attempt passed runs its target. Another one runs its base or its target.
std::vector<Case> CasesOf(const std::vector<Package>& packages, const std::vector<Model>& models,
                          const Attempted& attempted) {
    std::vector<Case> cases;
    const Record& record = attempted.record;
    for (const Model& model : models) {
        const Identity& identity = model.device.identity;
        if (UpToZero(NameOf(identity)) != record.product) {
            continue;
        }
        Texts texts = {record.target};
        if (!attempted.hasPassed && record.base != record.target) {
            texts.insert(texts.begin(), record.base);
        }
        for (const std::string& text : texts) {
            const auto isIt = [&](const Running& one) { return UpToZero(one.revision) == text; };
            const auto running = std::find_if(model.running.begin(), model.running.end(), isIt);
            std::string revision = running == model.running.end() ? text : running->revision;
            revision.resize(identity.layout->revision.size);
            cases.push_back(MakeCase(packages, model, revision, &record));
        }
    }
    return cases;
}

// Takes phones out of the fleet's lines that count them, those of the first case first. Returns how
// many there were.
uint64_t TakePhones(std::vector<Line>& fleet, const std::vector<Case>& cases, uint64_t phones) {
    uint64_t taken = 0;
    for (const Case& one : cases) {
        for (Line& line : fleet) {
            const Case& counted = line.cases.front();
            const bool isIt = counted.model == one.model && RevisionOf(counted.decision.device) ==
                                                                RevisionOf(one.decision.device);
            const uint64_t more = isIt ? std::min(line.phones, phones - taken) : 0;
            line.phones -= more;
            taken += more;
        }
    }
    return taken;
}

// What is to be said before the packages are released.
struct Report {
    std::vector<Line> lines;
    std::map<Verdict, uint64_t> totals; // phones
    Texts findings;
    uint64_t otherRecords; // of no phone of the fleet
    bool isReleasable;
};

// Each entry that no phone of the fleet gets is a finding. A magic inside an image is no entry.
void AddUnusedEntries(const std::vector<Package>& packages, Report& report) {
    std::set<const Entry*> used;
    for (const Line& line : report.lines) {
        for (const Case& one : line.cases) {
            used.insert(Received(one));
        }
    }
    for (const Package& package : packages) {
        for (const Entry& entry : package.entries) {
            if (used.count(&entry) == 0 && entry.outer == 0) {
                report.findings.push_back(
                    fmt::format("{} of {}, {} for {}: no phone of the fleet gets it", Title(entry),
                                Quoted(package.path), Quoted(RevisionOf(entry.identity)),
                                Quoted(NameOf(entry.identity))));
            }
        }
    }
}

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
            const bool hasPassed = HasPassed(report);
            attempts
                .try_emplace(
                    {!hasPassed, record.product, hasPassed ? "" : record.base, record.target},
                    Attempted{record, hasPassed, 0})
                .first->second.phones++;
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

std::vector<Package> ReadPackages(const Texts& paths) {
    std::vector<Package> packages;
    for (const std::string& path : paths) {
        const Package package = OpenPackage(path);
        if (package.size == 0) {
            throw Stop{1, path + " is empty: phones find nothing to do in it"};
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

// The packages and the models are borrowed by the report.
Report MakeReport(const std::vector<Package>& packages, const std::vector<Model>& models,
                  const std::string& recordsFolder) {
    Report report = {};
    std::vector<Line> fleet;
    for (const Model& model : models) {
        for (const Running& running : model.running) {
            fleet.push_back(
                {running.phones, {MakeCase(packages, model, running.revision, nullptr)}});
        }
    }
    const Attempts attempts =
        recordsFolder.empty() ? Attempts() : ReadAttempts(recordsFolder, report.findings);
    std::vector<Line> tried;
    for (const auto& [key, attempt] : attempts) { // those that passed come first
        tried.push_back({0, CasesOf(packages, models, attempt)});
        tried.back().phones = TakePhones(fleet, tried.back().cases, attempt.phones);
        report.otherRecords += attempt.phones - tried.back().phones;
    }
    fleet.insert(fleet.end(), tried.begin(), tried.end());
    report.isReleasable = true;
    for (const Line& line : fleet) {
        if (line.phones > 0) {
            report.lines.push_back(line);
            report.totals[VerdictOf(line)] += line.phones;
            report.isReleasable = report.isReleasable && IsCalm(VerdictOf(line));
        }
    }
    AddUnusedEntries(packages, report);
    report.isReleasable = report.isReleasable && report.findings.empty();
    return report;
}

Json Describe(const Case& one) {
    const Identity& identity = one.decision.device;
    const Entry* entry = Received(one);
    return {{"product_name", Escaped(NameOf(identity))},
            {"manufacturer", Escaped(Get(identity, identity.layout->manufacturer))},
            {"revision", Escaped(RevisionOf(one.decision.device))},
            {"answer", WordOf(one.decision.verdict)},
            {"gets", Gets(one)},
            {"package", one.package == nullptr ? Json() : Json(Escaped(one.package->path))},
            {"entry", entry == nullptr ? Json() : Json(entry->number)}};
}

Json Describe(const Report& report) {
    Json lines = Json::array(), totals = Json::object();
    for (const Line& line : report.lines) {
        lines.push_back(Describe(line.cases.front()));
        Json& shown = lines.back();
        shown["phones"] = line.phones;
        shown["answer"] = WordOf(VerdictOf(line));
        shown["gets"] = Gets(line);
        shown["entry"] = IsDecided(line) ? shown["entry"] : Json();
        shown["cases"] = Json::array();
        for (const Case& one : line.cases) {
            shown["cases"].push_back(Describe(one));
        }
    }
    for (const auto& [verdict, phones] : report.totals) {
        totals[WordOf(verdict)] = phones;
    }
    return {{"lines", lines},
            {"totals", totals},
            {"findings", report.findings},
            {"records_of_no_phone", report.otherRecords}};
}

// The lines below that of the phones: what they get in each case, and notes on the entry.
Texts Details(const Line& line) {
    Texts details;
    if (!IsDecided(line)) {
        for (const Case& one : line.cases) {
            details.push_back(fmt::format("if it is {} and runs {}: {}", Title(one.decision.device),
                                          Quoted(RevisionOf(one.decision.device)), Gets(one)));
        }
    } else if (const Entry* entry = Received(line.cases.front()); entry != nullptr) {
        for (const std::string& note : NotesOf(*entry)) {
            details.push_back("note: " + note);
        }
    }
    return details;
}

void Print(const std::vector<Line>& lines) {
    std::vector<Texts> rows = {{"MODEL", "RUNS", "PHONES", ""}};
    for (const Line& line : lines) {
        std::set<std::string> models, revisions;
        for (const Case& one : line.cases) {
            models.insert(Title(one.decision.device));
            revisions.insert(Quoted(RevisionOf(one.decision.device)));
        }
        rows.push_back({fmt::format("{}", fmt::join(models, " or ")),
                        fmt::format("{}", fmt::join(revisions, " or ")),
                        std::to_string(line.phones), Gets(line)});
    }
    const Texts shown = InColumns(rows, 2);
    fmt::print("{}\n", shown.front());
    for (size_t i = 0; i < lines.size(); i++) {
        fmt::print("{}\n", shown[i + 1]);
        for (const std::string& detail : Details(lines[i])) {
            fmt::print("    {}\n", detail);
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
        fmt::print("Note: {} records belong to no phone of the fleet: it counts no phone, or no "
                   "further one, of that model with that revision.\n",
                   report.otherRecords);
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
