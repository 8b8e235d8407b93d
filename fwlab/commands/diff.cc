// Compares two packages: by their entries, and by what devices get from them.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/package/difference.h"
#include "fwlab/package/digest.h"
#include "fwlab/package/spans.h"
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
        const auto* first = reinterpret_cast<const char*>(in.bytes.get() + entry.offset);
        return std::string_view(first, entry.body - entry.offset + entry.bodySize);
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

bool IsSameDevice(const Identity& one, const Identity& other) {
    const Layout& layout = *one.layout;
    const Field fields[] = {layout.manufacturer, layout.name, layout.extCsdRev};
    return std::all_of(std::begin(fields), std::end(fields),
                       [&](const Field& field) { return Get(one, field) == Get(other, field); });
}

// What phones do not get, as their revision does not change.
Texts NotesOf(const Entries& removed, const Entries& added) {
    Texts notes;
    for (const Entry* before : removed) {
        for (const Entry* after : added) {
            const Field& revision = after->identity.layout->revision;
            const std::string own = Get(after->identity, revision);
            if (IsSameDevice(before->identity, after->identity) &&
                own == Get(before->identity, revision)) {
                notes.push_back(fmt::format("another entry under the same revision: phones that "
                                            "run or attempted {} do not get it",
                                            Quoted(own)));
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
                return IsSameDevice(known.identity, identity);
            });
            if (model == models.end()) {
                model = models.insert(model, {identity, {}, false});
            }
            const auto base = BaseRevisionsOf(identity);
            for (const std::string& revision : base.value_or(Texts())) {
                model->revisions.insert(revision);
            }
            model->revisions.insert(Get(identity, identity.layout->revision));
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

// What a device gets from both packages.
struct Row {
    std::string device; // with its revision and mode, for people
    Decision before, after;
    bool isSame; // it ends with the same firmware and the same record
};

bool IsSameEnd(const Package& one, const Decision& was, const Package& other, const Decision& is) {
    const auto sent = [](const Package& package, const Decision& decision) {
        const uint8_t* first =
            package.bytes.get() + (decision.sent == nullptr ? 0 : decision.sent->body);
        return std::string_view(reinterpret_cast<const char*>(first), decision.sentSize);
    };
    return was.verdict == is.verdict && was.recorded == is.recorded &&
           sent(one, was) == sent(other, is);
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
            const Decision was = Decide(one, device), is = Decide(other, device);
            rows.push_back({fmt::format("{} runs {}{}", Title(device.identity), runs, mode), was,
                            is, IsSameEnd(one, was, other, is)});
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
        Json shown = {{"number", entry->number}, {"offset", entry->offset}};
        shown.update(Describe(entry->identity));
        shown["body_size"] = entry->bodySize;
        shown["sha256"] = Sha256(package, entry->body, entry->bodySize);
        list.push_back(shown);
    }
    return list;
}

Json Describe(const Package& package) {
    Json others = Json::array();
    for (const Span& span : Uncovered(package)) {
        others.push_back({{"offset", span.offset},
                          {"size", span.size},
                          {"sha256", Sha256(package, span.offset, span.size)}});
    }
    return {{"package", Escaped(package.path)},
            {"size", package.size},
            {"sha256", Sha256(package, 0, package.size)},
            {"entries", OwnEntries(package).size()},
            {"bytes_of_no_entry", others}};
}

// What the device gets.
Json Describe(const Package& package, const Decision& decision) {
    Json shown = Describe(decision);
    shown.erase("steps");
    shown["sha256"] = decision.sent == nullptr
                          ? Json()
                          : Json(Sha256(package, decision.sent->body, decision.sentSize));
    return shown;
}

std::string AnswerOf(const Package& package, const Decision& decision) {
    return decision.verdict == Verdict::UPDATED
               ? fmt::format("gets {}, {} bytes of entry {}, sha256 {}...",
                             Quoted(*decision.recorded), decision.sentSize, decision.sent->number,
                             Sha256(package, decision.sent->body, decision.sentSize).substr(0, 12))
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
    const bool isSame = !FirstDifference(before, after);
    Json report = {{"old", Describe(before)},
                   {"new", Describe(after)},
                   {"same", isSame},
                   {"removed", Describe(before, removed)},
                   {"added", Describe(after, added)},
                   {"notes", NotesOf(removed, added)},
                   {"devices", Json::array()}};
    for (const Row& row : rows) {
        report["devices"].push_back({{"device", row.device},
                                     {"same", row.isSame},
                                     {"old", Describe(before, row.before)},
                                     {"new", Describe(after, row.after)}});
    }
    Show(asJson, report, [&] {
        PrintEntries("removed", report["removed"]);
        PrintEntries("added", report["added"]);
        for (const std::string& note : NotesOf(removed, added)) {
            fmt::print("NOTE: {}\n", note);
        }
        if (report["old"]["bytes_of_no_entry"] != report["new"]["bytes_of_no_entry"]) {
            fmt::print("The bytes that belong to no entry differ: `fwlab list` shows them.\n");
        }
        for (const Row& row : rows) {
            fmt::print("{}{}:\n    old: {}\n    new: {}\n",
                       row.isSame ? "" : "CHANGES: ", row.device, AnswerOf(before, row.before),
                       AnswerOf(after, row.after));
        }
        fmt::print("{}\n", isSame ? "The packages are the same." : "The packages differ.");
    });
    return isSame ? 0 : 1;
}
