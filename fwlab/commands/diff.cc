// Compares two packages: by their entries, and by what devices get from them.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/digest.h"
#include "fwlab/phone/decision.h"
#include "simphone/text.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>
#include <string_view>

namespace {

using Entries = std::vector<const Entry*>;

// The own entries of one package that the other one does not have, byte by byte.
Entries OnlyIn(const Package& package, const Package& other) {
    const auto bytes = [](const Package& in, const Entry& entry) {
        return BytesOf(in).substr(entry.offset, entry.body - entry.offset + entry.bodySize);
    };
    std::set<std::string_view> others;
    for (const Entry* entry : OwnEntries(other)) {
        others.insert(bytes(other, *entry));
    }
    Entries only;
    for (const Entry* entry : OwnEntries(package)) {
        only.insert(only.end(), others.count(bytes(package, *entry)) == 0 ? 1 : 0, entry);
    }
    return only;
}

// The fields by which an update selects its entry.
std::string SelectorOf(const Identity& identity) {
    return Get(identity, identity.layout->manufacturer) + NameOf(identity) +
           Get(identity, identity.layout->extCsdRev);
}

// What phones do not get, as their revision does not change.
Texts NotesOf(const Entries& removed, const Entries& added) {
    Texts notes;
    for (const Entry* before : removed) {
        for (const Entry* after : added) {
            const std::string revision = RevisionOf(after->identity);
            if (SelectorOf(before->identity) == SelectorOf(after->identity) &&
                revision == RevisionOf(before->identity)) {
                notes.push_back(fmt::format("another entry under the same revision: phones that "
                                            "run or attempted {} do not get it",
                                            Quoted(revision)));
            }
        }
    }
    return notes;
}

// A device that a package describes, with the revisions that it may run.
struct Model {
    Identity identity;
    std::set<std::string> revisions;
    bool isAnyAdmitted;
};

std::vector<Model> ModelsOf(const Package& before, const Package& after) {
    std::vector<Model> models;
    for (const Package* package : {&before, &after}) {
        for (const Entry* entry : OwnEntries(*package)) {
            const Identity& identity = entry->identity;
            auto model = std::find_if(models.begin(), models.end(), [&](const Model& known) {
                return SelectorOf(known.identity) == SelectorOf(identity);
            });
            if (model == models.end()) {
                model = models.insert(model, {identity, {}, false});
            }
            const auto base = BaseRevisionsOf(identity);
            for (const std::string& revision : base.value_or(Texts())) {
                model->revisions.insert(revision);
            }
            model->revisions.insert(RevisionOf(identity));
            model->isAnyAdmitted = model->isAnyAdmitted || !base;
        }
    }
    return models;
}

// A revision that is none of the model's, and older than any printable one.
std::string OtherRevision(const Model& model) {
    std::string other(model.identity.layout->revision.size, '\1');
    while (model.revisions.count(other) > 0) { // count up, from the last byte on
        for (size_t at = other.size(); at > 0 && ++other[--at] == '\0';) {
        }
    }
    return other;
}

// What a device gets from one package.
struct Receipt {
    Decision decision;
    std::string_view body; // as far as the device gets it
};

Receipt ReceiptOf(const Package& package, const Device& device) {
    const Decision decision = Decide(package, device);
    return {decision, decision.sent == nullptr
                          ? std::string_view()
                          : BodyOf(package, *decision.sent).substr(0, decision.sentSize)};
}

// What it gets from both packages.
struct Row {
    std::string device; // with its revision and mode, for people
    Receipt before, after;
};

// Whether it ends with the same firmware and the same record.
bool IsSame(const Row& row) {
    const Decision &was = row.before.decision, &is = row.after.decision;
    return was.verdict == is.verdict && was.recorded == is.recorded &&
           row.before.body == row.after.body;
}

std::vector<Row> RowsOf(const Package& one, const Package& other) {
    const auto needsGki = [](const Entry& entry) { return entry.bodyFits && NeedsGkiMode(entry); };
    const bool hasModes = std::any_of(one.entries.begin(), one.entries.end(), needsGki) ||
                          std::any_of(other.entries.begin(), other.entries.end(), needsGki);
    std::vector<Row> rows;
    const auto add = [&](const Model& model, const std::string& revision, const std::string& runs) {
        for (const bool gki : hasModes ? std::vector<bool>{false, true} : std::vector<bool>{true}) {
            Device device = {model.identity, gki, 0};
            Set(device.identity, model.identity.layout->revision, revision);
            const char* mode = !hasModes ? "" : gki ? " in GKI mode" : " in normal mode";
            rows.push_back({fmt::format("{} runs {}{}", Title(device.identity), runs, mode),
                            ReceiptOf(one, device), ReceiptOf(other, device)});
        }
    };
    for (const Model& model : ModelsOf(one, other)) {
        for (const std::string& revision : model.revisions) {
            add(model, revision, Quoted(revision));
        }
        if (model.isAnyAdmitted) {
            add(model, OtherRevision(model),
                model.identity.layout == &UFS ? "another, older revision" : "another revision");
        }
    }
    return rows;
}

Json Describe(const Package& package, const Entries& entries) {
    Json list = Json::array();
    for (const Entry* entry : entries) {
        list.push_back(Describe(package, *entry));
        list.back().erase("body_offset");
    }
    return list;
}

Json Describe(const Package& package) {
    Json others = Json::array();
    for (const auto& [offset, bytes] : Uncovered(package)) {
        others.push_back({{"offset", offset}, {"size", bytes.size()}, {"sha256", Sha256(bytes)}});
    }
    return {{"package", Escaped(package.path)},
            {"size", package.size},
            {"sha256", Sha256(BytesOf(package))},
            {"entries", OwnEntries(package).size()},
            {"bytes_of_no_entry", others}};
}

Json Describe(const Receipt& receipt) {
    Json shown = Describe(receipt.decision);
    shown.erase("steps");
    shown["sha256"] = receipt.decision.sent == nullptr ? Json() : Json(Sha256(receipt.body));
    return shown;
}

std::string AnswerOf(const Receipt& receipt) {
    const Decision& decision = receipt.decision;
    return decision.verdict == Verdict::UPDATED
               ? fmt::format("gets {}, {} bytes of entry {}, sha256 {}...",
                             Quoted(*decision.recorded), receipt.body.size(), decision.sent->number,
                             Sha256(receipt.body).substr(0, 12))
               : InWords(decision.verdict, WhyOf(decision));
}

void PrintEntries(const char* change, const Json& entries) {
    for (const Json& entry : entries) {
        std::string text;
        for (const auto& [key, value] : entry.items()) {
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", key, Shown(value));
        }
        fmt::print("{}: {}\n", change, text);
    }
}

} // namespace

int Diff(const std::string& oldFile, const std::string& newFile, bool asJson) {
    const Package before = OpenPackage(oldFile), after = OpenPackage(newFile);
    if (before.size > 0 && after.size > 0 && before.layout != after.layout) {
        throw Stop{2, "one package is for eMMC, the other one for UFS"};
    }
    const Entries removed = OnlyIn(before, after), added = OnlyIn(after, before);
    const std::vector<Row> rows = RowsOf(before, after);
    const bool isSame = BytesOf(before) == BytesOf(after);
    Json report = {{"old", Describe(before)},
                   {"new", Describe(after)},
                   {"same", isSame},
                   {"removed", Describe(before, removed)},
                   {"added", Describe(after, added)},
                   {"notes", NotesOf(removed, added)},
                   {"devices", Json::array()}};
    for (const Row& row : rows) {
        report["devices"].push_back({{"device", row.device},
                                     {"same", IsSame(row)},
                                     {"old", Describe(row.before)},
                                     {"new", Describe(row.after)}});
    }
    Show(asJson, report, [&] {
        PrintEntries("removed", report["removed"]);
        PrintEntries("added", report["added"]);
        for (const std::string& note : NotesOf(removed, added)) {
            fmt::print("NOTE: {}\n", note);
        }
        if (Uncovered(before) != Uncovered(after)) {
            fmt::print("The bytes that belong to no entry differ: `fwlab list` shows them.\n");
        }
        for (const Row& row : rows) {
            fmt::print("{}{}:\n    old: {}\n    new: {}\n",
                       IsSame(row) ? "" : "CHANGES: ", row.device, AnswerOf(row.before),
                       AnswerOf(row.after));
        }
        fmt::print("{}\n", isSame ? "The packages are the same." : "The packages differ.");
    });
    return isSame ? 0 : 1;
}
