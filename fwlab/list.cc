// Shows what a package holds and what is wrong with it, without changing it.
#include "fwlab/commands.h"
#include "fwlab/selection.h"
#include "simphone/files.h"
#include "ufs/ufs_write_buffer.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>

using Json = nlohmann::ordered_json;

namespace {

std::string Sha256(const uint8_t* bytes, size_t size) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    Require(EVP_Digest(bytes, size, digest, &length, EVP_sha256(), nullptr) == 1, 2,
            "libcrypto has no SHA-256");
    return Hex(digest, length);
}

// outer is the entry inside which this one begins, null if there is none.
Json Describe(const Package& package, const Entry& entry, const Entry* outer) {
    const Layout& layout = *package.layout;
    Json shown = {{"number", entry.number}, {"offset", entry.offset}};
    for (const Field& field :
         {layout.manufacturer, layout.name, layout.extCsdRev, layout.revision, layout.marketName}) {
        const std::string bytes = Get(entry.identity, field);
        if (field.size > 0) {
            shown[field.key] =
                field.size == 1 ? Json(static_cast<uint8_t>(bytes[0])) : Json(Escaped(bytes));
        }
    }
    const auto base = BaseRevisionsOf(entry.identity);
    Json& revisions = shown[layout.baseRevs.key] = base ? Json::array() : Json("any");
    for (const std::string& revision : base.value_or(Texts())) {
        revisions.push_back(Escaped(revision));
    }
    shown["body_offset"] = entry.body;
    shown["body_size"] = entry.bodySize;
    // Bodies inside others may be many: no digest of what no device takes.
    if (entry.bodyFits && (outer == nullptr || entry.bodySize <= TRANSFER_SIZE)) {
        shown["sha256"] = Sha256(package.bytes.get() + entry.body, entry.bodySize);
    }
    shown["findings"] = outer == nullptr ? Json(FindingsOf(package, entry))
                                         : Json({"a magic inside " + Title(*outer)});
    return shown;
}

Json Describe(const Package& package) {
    Json report = {
        {"package", Escaped(package.path)}, {"size", package.size}, {"findings", Json::array()}};
    Json& entries = report["entries"] = Json::array();
    const Entry* outer = nullptr; // the one that reaches furthest so far
    size_t end = 0;
    for (const Entry& entry : package.entries) {
        entries.push_back(Describe(package, entry, entry.offset < end ? outer : nullptr));
        const size_t entryEnd = entry.body + (entry.bodyFits ? entry.bodySize : 0);
        outer = entryEnd > end ? &entry : outer;
        end = std::max(end, entryEnd);
    }
    if (entries.empty()) {
        report["findings"] = {package.flaw.empty() ? "holds no entry" : package.flaw};
    }
    return report;
}

std::string Shown(const Json& value) {
    return value.is_string() ? '"' + value.get<std::string>() + '"' : value.dump();
}

// A key and its value a line.
void Print(const Json& object, const char* margin) {
    for (const auto& [key, value] : object.items()) {
        std::string shown;
        for (const Json& element : value.is_array() ? value : Json::array({value})) {
            if (key == "entries") {
                fmt::print("\n");
                Print(element, "    ");
            } else if (key == "findings") {
                fmt::print("{}FINDING: {}\n", margin, element.get<std::string>());
            } else {
                shown += (shown.empty() ? "" : " ") + Shown(element);
            }
        }
        if (!value.is_array() || key == "base_revisions") {
            fmt::print("{}{:<17}{}\n", margin, key, shown);
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
    if (asJson) {
        fmt::print("{}\n", report.dump(2));
    } else {
        Print(report, "");
    }
    return IsFlawless(report) ? 0 : 1;
}
