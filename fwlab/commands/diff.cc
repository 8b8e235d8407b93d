// Compares two packages: by their entries, and by what devices get from them.
#include "fwlab/commands/commands.h"
#include "fwlab/package/difference.h"
#include "fwlab/package/spans.h"
#include "fwlab/phone/decision.h"
#include "simphone/files.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

namespace {

struct Side {
    Package package;
    std::vector<const Entry*> entries;           // its own
    std::map<const Entry*, std::string> digests; // of their bodies
};

Side Read(const std::string& path) {
    Side side = {OpenPackage(path), {}, {}};
    const Package& package = side.package;
    side.entries = OwnEntries(package);
    for (const Entry* entry : side.entries) {
        side.digests[entry] = entry->bodyFits ? Sha256(package, entry->body, entry->bodySize) : "";
    }
    return side;
}

// The entries of the same device in both packages; either may be null.
struct Pair {
    const Entry *before, *after;
};

bool IsSameDevice(const Identity& one, const Identity& other) {
    const Layout& layout = *one.layout;
    return Get(one, layout.manufacturer) == Get(other, layout.manufacturer) &&
           Get(one, layout.name) == Get(other, layout.name) &&
           Get(one, layout.extCsdRev) == Get(other, layout.extCsdRev);
}

// Of several entries for one device, the most alike belong together.
std::vector<Pair> PairsOf(const Side& before, const Side& after) {
    std::map<const Entry*, const Entry*> partners; // of both sides
    const auto join = [&](auto isLike) {
        for (const Entry* one : before.entries) {
            for (const Entry* other : after.entries) {
                if (partners.count(one) == 0 && partners.count(other) == 0 &&
                    IsSameDevice(one->identity, other->identity) && isLike(*one, *other)) {
                    partners[one] = other;
                    partners[other] = one;
                }
            }
        }
    };
    const auto revision = [](const Entry& entry) {
        return Get(entry.identity, entry.identity.layout->revision);
    };
    join([&](const Entry& one, const Entry& other) {
        return one.identity.header == other.identity.header &&
               before.digests.at(&one) == after.digests.at(&other);
    });
    join([&](const Entry& one, const Entry& other) { return revision(one) == revision(other); });
    join([](const Entry&, const Entry&) { return true; });
    std::vector<Pair> pairs;
    for (const Entry* entry : after.entries) {
        pairs.push_back({partners[entry], entry});
    }
    for (const Entry* entry : before.entries) {
        if (partners[entry] == nullptr) {
            pairs.push_back({entry, nullptr});
        }
    }
    return pairs;
}

// The place of an entry among those that are in both packages, from 1: entries that were added or
// removed do not count.
size_t PlaceOf(const Entry* entry, const std::vector<Pair>& pairs, const Entry* Pair::*side) {
    return 1 + static_cast<size_t>(std::count_if(pairs.begin(), pairs.end(), [&](const Pair& pair) {
               return pair.before != nullptr && pair.after != nullptr &&
                      (pair.*side)->offset < entry->offset;
           }));
}

Json Describe(const Entry* entry, const Side& side) {
    if (entry == nullptr) {
        return {};
    }
    Json shown = {{"number", entry->number}, {"offset", entry->offset}};
    shown.update(Describe(entry->identity));
    shown["body_size"] = entry->bodySize;
    shown["sha256"] = side.digests.at(entry);
    return shown;
}

Json DifferencesOf(const Pair& pair, const std::vector<Pair>& pairs, const Side& before,
                   const Side& after) {
    Json list = Json::array();
    const auto add = [&](const std::string& field, const Json& one, const Json& other) {
        if (one != other) {
            list.push_back({{"field", field}, {"old", one}, {"new", other}});
        }
    };
    add("place", PlaceOf(pair.before, pairs, &Pair::before),
        PlaceOf(pair.after, pairs, &Pair::after));
    for (const Difference& difference :
         DifferencesOf(pair.before->identity, pair.after->identity)) {
        add(difference.field, difference.first, difference.second);
    }
    add("sha256", before.digests.at(pair.before), after.digests.at(pair.after));
    return list;
}

Json Describe(const Pair& pair, const std::vector<Pair>& pairs, const Side& before,
              const Side& after) {
    const bool isInBoth = pair.before != nullptr && pair.after != nullptr;
    const Json differences = isInBoth ? DifferencesOf(pair, pairs, before, after) : Json::array();
    Json notes = Json::array();
    if (isInBoth && before.digests.at(pair.before) != after.digests.at(pair.after)) {
        const Field& revision = pair.before->identity.layout->revision;
        const std::string own = Get(pair.after->identity, revision);
        if (own == Get(pair.before->identity, revision)) {
            notes.push_back("another image under the same revision: phones that run or attempted " +
                            Quoted(own) + " do not get it");
        }
    }
    return {{"change", pair.before == nullptr  ? "added"
                       : pair.after == nullptr ? "removed"
                       : differences.empty()   ? "same"
                                               : "changed"},
            {"old", Describe(pair.before, before)},
            {"new", Describe(pair.after, after)},
            {"differences", differences},
            {"notes", notes}};
}

// A device that a package describes, with the revisions that it may run.
struct Model {
    Identity identity;
    std::set<std::string> revisions;
    bool isAnyAdmitted;
};

std::vector<Model> ModelsOf(const Side& before, const Side& after) {
    std::vector<Model> models;
    for (const Side* side : {&before, &after}) {
        for (const Entry* entry : side->entries) {
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
    const size_t size = model.identity.layout->revision.size;
    std::string other;
    for (uint32_t number = 0x01010101; other.empty() || model.revisions.count(other) > 0;
         number++) {
        other = std::string(size - 4, '\1');
        for (const int shift : {24, 16, 8, 0}) {
            other += static_cast<char>(number >> shift);
        }
    }
    return other;
}

// What the device gets: the answer in short, and its digest.
Json Describe(const Decision& decision, const Side& side) {
    Json shown = Describe(decision);
    shown.erase("steps");
    shown["revision"] = Json();
    shown["sha256"] = Json();
    if (decision.sent != nullptr) {
        const Identity& identity = decision.sent->identity;
        shown["revision"] = Escaped(Get(identity, identity.layout->revision));
        const auto known = side.digests.find(decision.sent);
        shown["sha256"] = known != side.digests.end() && decision.sentSize == known->first->bodySize
                              ? known->second
                              : Sha256(side.package, decision.sent->body, decision.sentSize);
    }
    return shown;
}

// Whether the device ends with the same firmware and the same record.
bool IsSameAnswer(const Json& one, const Json& other) {
    const auto same = [&](const char* key) { return one[key] == other[key]; };
    return same("answer") && same("recorded") && same("sha256");
}

Json DescribeDevices(const Side& before, const Side& after) {
    Json devices = Json::array();
    const auto needsGki = [](const Entry* entry) { return NeedsGkiMode(*entry); };
    const bool hasModes = std::any_of(before.entries.begin(), before.entries.end(), needsGki) ||
                          std::any_of(after.entries.begin(), after.entries.end(), needsGki);
    const auto add = [&](const Model& model, const std::string& revision, const Json& runs) {
        for (const bool gki : hasModes ? std::vector<bool>{false, true} : std::vector<bool>{true}) {
            Device device = {model.identity, gki, 0};
            Set(device.identity, model.identity.layout->revision, revision);
            const Json was = Describe(Decide(before.package, device), before);
            const Json is = Describe(Decide(after.package, device), after);
            Json shown = Describe(model.identity);
            const Layout& layout = *model.identity.layout;
            for (const Field& field : {layout.revision, layout.marketName, layout.baseRevs}) {
                shown.erase(field.key);
            }
            shown["mode"] = hasModes ? Json(gki ? "gki" : "normal") : Json();
            shown["runs"] = runs;
            shown["same"] = IsSameAnswer(was, is);
            shown["old"] = was;
            shown["new"] = is;
            devices.push_back(shown);
        }
    };
    for (const Model& model : ModelsOf(before, after)) {
        for (const std::string& revision : model.revisions) {
            add(model, revision, Escaped(revision));
        }
        if (model.isAnyAdmitted) {
            add(model, OtherRevision(model), Json());
        }
    }
    return devices;
}

Json Describe(const Side& side) {
    const Package& package = side.package;
    Json others = Json::array();
    for (const Span& span : Uncovered(package)) {
        others.push_back({{"offset", span.offset},
                          {"size", span.size},
                          {"sha256", Sha256(package, span.offset, span.size)}});
    }
    return {{"package", Escaped(package.path)},
            {"size", package.size},
            {"sha256", Sha256(package, 0, package.size)},
            {"entries", side.entries.size()},
            {"bytes_of_no_entry", others}};
}

std::string NameOfDevice(const Json& described, const Layout& layout) {
    std::string name =
        Shown(described[layout.manufacturer.key]) + " " + Shown(described[layout.name.key]);
    return layout.extCsdRev.size > 0
               ? name + ", EXT_CSD_REV " + Shown(described[layout.extCsdRev.key])
               : name;
}

void PrintEntry(const Json& item, const Layout& layout) {
    const std::string change = item["change"];
    if (change == "same") {
        return;
    }
    std::string places;
    for (const char* side : {"old", "new"}) {
        if (!item[side].is_null()) {
            places +=
                fmt::format("{}{} entry {} at {:#x}", places.empty() ? "" : ", ", side,
                            item[side]["number"].get<size_t>(), item[side]["offset"].get<size_t>());
        }
    }
    const Json& shown = item["new"].is_null() ? item["old"] : item["new"];
    fmt::print("{}: {}, revision {} ({})\n", change, NameOfDevice(shown, layout),
               Shown(shown[layout.revision.key]), places);
    for (const Json& difference : item["differences"]) {
        fmt::print("    {}: {} -> {}\n", difference["field"].get<std::string>(),
                   Shown(difference["old"]), Shown(difference["new"]));
    }
    for (const Json& note : item["notes"]) {
        fmt::print("    NOTE: {}\n", note.get<std::string>());
    }
}

std::string AnswerOf(const Json& answer) {
    if (answer["answer"] == NameOf(Verdict::UPDATE)) {
        return fmt::format("gets {}, {} bytes of entry {}, sha256 {}...", Shown(answer["revision"]),
                           answer["sent_bytes"].get<size_t>(), answer["sent"].get<size_t>(),
                           answer["sha256"].get<std::string>().substr(0, 12));
    }
    return InWords(answer["answer"], answer["why"]);
}

void Print(const Json& report, const Layout& layout) {
    for (const Json& item : report["entries"]) {
        PrintEntry(item, layout);
    }
    if (report["old"]["bytes_of_no_entry"] != report["new"]["bytes_of_no_entry"]) {
        fmt::print("The bytes that belong to no entry differ: `fwlab list` shows them.\n");
    }
    for (const Json& device : report["devices"]) {
        const bool isOther = device["runs"].is_null();
        const std::string runs = !isOther          ? Shown(device["runs"])
                                 : &layout == &UFS ? "another, older revision"
                                                   : "another revision";
        const std::string mode = device["mode"].is_null()  ? ""
                                 : device["mode"] == "gki" ? " in GKI mode"
                                                           : " in normal mode";
        fmt::print("{}{} runs {}{}:\n",
                   device["same"] ? "" : "CHANGES: ", NameOfDevice(device, layout), runs, mode);
        fmt::print("    old: {}\n    new: {}\n", AnswerOf(device["old"]), AnswerOf(device["new"]));
    }
    fmt::print("{}\n", report["same"] ? "The packages are the same." : "The packages differ.");
}

} // namespace

int Diff(const std::string& oldFile, const std::string& newFile, bool asJson) {
    const Side before = Read(oldFile), after = Read(newFile);
    const Package &one = before.package, &other = after.package;
    if (!before.entries.empty() && !after.entries.empty() && one.layout != other.layout) {
        throw Stop{2, "one package is for eMMC, the other one for UFS"};
    }
    const std::vector<Pair> pairs = PairsOf(before, after);
    const bool isSame = IsSame(one, other);
    Json report = {{"old", Describe(before)},
                   {"new", Describe(after)},
                   {"same", isSame},
                   {"entries", Json::array()},
                   {"devices", DescribeDevices(before, after)}};
    for (const Pair& pair : pairs) {
        report["entries"].push_back(Describe(pair, pairs, before, after));
    }
    const Layout& layout = after.entries.empty() ? *one.layout : *other.layout;
    Show(asJson, report, [&] { Print(report, layout); });
    return isSame ? 0 : 1;
}
