// Answers for one state directory or for those of a whole fleet, as they were pulled from phones.
// One that is damaged, foreign or unreadable is counted like any other.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/state_directory.h"
#include "simphone/text.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <tuple>

namespace fs = std::filesystem;

namespace {

constexpr int DEPTH_MAX = 6; // REGION/DAY/SERIAL/data/vendor/fw
constexpr int SCHEMA = 1;    // of the JSON lines; counts up when a key changes its meaning

// Adds the state directories that are at directory or below it to found, in the order of their
// names, and each folder that cannot be read. Returns whether there is any. Links are not followed.
bool Search(const std::string& directory, int depth, Texts& found) {
    const Texts& names = StateFileNames();
    Texts folders;
    bool isState = false;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        isState |= std::count(names.begin(), names.end(), entry->path().filename()) > 0;
        std::error_code gone;
        if (depth < DEPTH_MAX && entry->symlink_status(gone).type() == fs::file_type::directory) {
            folders.push_back(entry->path());
        }
    }
    const size_t foundBefore = found.size();
    if (isState || error) {
        found.push_back(directory);
    }
    std::sort(folders.begin(), folders.end());
    Texts others;
    bool isWholePhone = false; // pulled from its root on: data is one of many folders
    for (const std::string& folder : folders) {
        const bool isFound = Search(folder, depth + 1, found);
        isWholePhone |= isFound && fs::path(folder).filename() == "data";
        if (!isFound) {
            others.push_back(folder);
        }
    }
    if (depth == 0 && !isState && !isWholePhone) { // phones from which nothing was pulled
        found.insert(found.end(), others.begin(), others.end());
    }
    return found.size() > foundBefore;
}

Json Describe(const std::string& directory, const StateReport& report) {
    const Record& record = report.record;
    const auto text = [&](const std::string& bytes) {
        return record.isReadable ? Json(Escaped(bytes)) : Json();
    };
    return {{"schema", SCHEMA},
            {"directory", Escaped(directory)},
            {"state", NameOf(report.state)},
            {"product", text(record.product)},
            {"from", text(record.base)},
            {"to", text(record.target)},
            {"time", text(record.time)},
            {"text", report.text}};
}

using Group = std::tuple<std::string, std::string, std::string, State>; // product, from, to
struct Members {
    size_t count;
    Texts examples;
};
using Table = std::map<Group, Members>;

void Count(const std::string& directory, const StateReport& report, Table& table) {
    const Record& record = report.record;
    const auto text = [&](const std::string& bytes) {
        return record.isReadable ? Quoted(bytes) : "-";
    };
    Members& members =
        table[{text(record.product), text(record.base), text(record.target), report.state}];
    members.count++;
    if (members.examples.size() < 3) {
        members.examples.push_back(Escaped(directory));
    }
}

void Print(const Table& table) {
    std::vector<std::array<std::string, 6>> rows = {
        {"product", "from", "to", "state", "count", "such as"}};
    for (const auto& [group, members] : table) {
        const auto& [product, from, to, state] = group;
        rows.push_back({product, from, to, NameOf(state), std::to_string(members.count),
                        fmt::format("{}", fmt::join(members.examples, ", "))});
    }
    std::array<size_t, 5> widths = {};
    for (const auto& row : rows) {
        for (size_t i = 0; i < widths.size(); i++) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const auto& row : rows) {
        fmt::print("{:{}}  {:{}}  {:{}}  {:{}}  {:>{}}  {}\n", row[0], widths[0], row[1], widths[1],
                   row[2], widths[2], row[3], widths[3], row[4], widths[4], row[5]);
    }
}

} // namespace

Texts StateDirectoriesIn(const std::string& directory) {
    Texts found;
    if (!Search(directory, 0, found)) {
        found.push_back(directory);
    }
    return found;
}

int Outcome(const OutcomeOptions& options, bool asJson) {
    Texts directories;
    for (const std::string& directory : options.directories) {
        const Texts found = StateDirectoriesIn(directory);
        directories.insert(directories.end(), found.begin(), found.end());
    }
    Table table;
    std::map<State, size_t> counts;
    for (const std::string& directory : directories) {
        const StateReport report = DescribeState(directory);
        counts[report.state]++;
        if (asJson) {
            fmt::print("{}\n", Describe(directory, report).dump());
        } else if (directories.size() == 1) {
            fmt::print("{}\n", report.text);
        } else {
            Count(directory, report, table);
        }
    }
    const size_t all = directories.size(), foreign = counts[State::FOREIGN];
    const size_t good = counts[State::UPDATED], nothing = counts[State::NOTHING];
    const size_t tried = all - foreign - nothing;
    const double share =
        tried == 0 ? 0 : 100 * static_cast<double>(tried - good) / static_cast<double>(tried);
    if (!table.empty()) {
        Print(table);
        fmt::print("{} directories", all);
        for (const auto& [state, count] : counts) {
            fmt::print(count > 0 ? ", {} {}" : "", count, NameOf(state));
        }
        fmt::print(". Not updated: {:.4g} % of the {} that are neither \"nothing\" nor "
                   "\"foreign\".\n",
                   share, tried);
    }
    if (foreign + counts[State::UNREADABLE] == all) {
        return 2;
    }
    return options.failAbove ? share > *options.failAbove : good + nothing < all;
}
