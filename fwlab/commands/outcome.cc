// Answers for one state directory or for those of a whole fleet, as they were pulled from phones.
// One that is damaged, foreign or unreadable is counted like any other.
#include "fwlab/base/json.h"
#include "fwlab/base/progress.h"
#include "fwlab/base/table.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/state_directory.h"
#include "simphone/text.h"

#include <fmt/format.h>
#include <map>
#include <tuple>

namespace {

constexpr int SCHEMA = 1; // of the JSON lines; counts up when a key changes its meaning

Json Describe(const std::string& directory, const StateReport& report) {
    const Record& record = report.record;
    const auto text = [&](const std::string& bytes) {
        return record.isReadable ? Json(Escaped(bytes)) : Json();
    };
    return {{"schema", SCHEMA},
            {"directory", Escaped(directory)},
            {"state", WordOf(report.verdict)},
            {"product", text(record.product)},
            {"from", text(record.base)},
            {"to", text(record.target)},
            {"time", text(record.time)},
            {"text", Sentence(report)}};
}

using Group = std::tuple<std::string, std::string, std::string, Verdict>; // product, from, to
struct Members {
    size_t count;
    Texts examples;
};

// What the directories show together.
struct Summary {
    std::map<Group, Members> groups;
    std::map<Verdict, size_t> counts;
    Texts notUpdated; // a line each
};

void Count(const std::string& directory, const StateReport& report, Summary& summary) {
    const Record& record = report.record;
    const auto text = [&](const std::string& bytes) {
        return record.isReadable ? Quoted(bytes) : "-";
    };
    Members& members =
        summary
            .groups[{text(record.product), text(record.base), text(record.target), report.verdict}];
    members.count++;
    if (members.examples.size() < 3) {
        members.examples.push_back(Escaped(directory));
    }
}

// In percent, of the phones that may have got an update.
struct Share {
    size_t tried;
    double notUpdated;
};

Share ShareOf(Summary& summary, size_t all) {
    const size_t tried =
        all - summary.counts[Verdict::FOREIGN] - summary.counts[Verdict::NOTHING_TO_DO];
    const size_t failed = tried - summary.counts[Verdict::UPDATED];
    return {tried, tried == 0 ? 0 : 100 * static_cast<double>(failed) / static_cast<double>(tried)};
}

void Print(const Summary& summary, const Share& share, size_t all, bool withList) {
    std::vector<Texts> rows = {{"product", "from", "to", "state", "count", "such as"}};
    for (const auto& [group, members] : summary.groups) {
        const auto& [product, from, to, state] = group;
        rows.push_back({product, from, to, WordOf(state), std::to_string(members.count),
                        fmt::format("{}", fmt::join(members.examples, ", "))});
    }
    fmt::print("{}\n", fmt::join(InColumns(rows, 4), "\n"));
    if (withList) {
        fmt::print("\n{}\n\n", fmt::join(summary.notUpdated, "\n"));
    }
    fmt::print("{} directories", all);
    for (const auto& [state, count] : summary.counts) {
        fmt::print(count > 0 ? ", {} {}" : "", count, WordOf(state));
    }
    fmt::print(". Not updated: {:.4g} % of the {} that are neither \"{}\" nor \"{}\".\n",
               share.notUpdated, share.tried, WordOf(Verdict::NOTHING_TO_DO),
               WordOf(Verdict::FOREIGN));
}

} // namespace

int Outcome(const OutcomeOptions& options, bool asJson) {
    const Texts directories = StateDirectoriesIn(options.directories);
    const size_t all = directories.size();
    const bool isOne = all == 1 && !options.list;
    Summary summary;
    for (size_t i = 0; i < all; i++) {
        if (!asJson) {
            ShowProgress(i, all, "directories");
        }
        const StateReport report = ReadState(directories[i]);
        summary.counts[report.verdict]++;
        if (asJson) {
            fmt::print("{}\n", Describe(directories[i], report).dump());
        } else if (isOne) {
            fmt::print("{}\n", Sentence(report));
        } else {
            Count(directories[i], report, summary);
        }
        if (options.list && !IsCalm(report.verdict)) {
            summary.notUpdated.push_back(
                fmt::format("{}  {}", WordOf(report.verdict), Escaped(directories[i])));
        }
    }
    const Share share = ShareOf(summary, all);
    if (!asJson) {
        ShowProgress(all, all, "directories");
    }
    if (!asJson && !isOne) {
        Print(summary, share, all, options.list);
    }
    std::map<Verdict, size_t>& counts = summary.counts;
    if (counts[Verdict::FOREIGN] + counts[Verdict::NOT_PULLED] + counts[Verdict::UNREADABLE] ==
        all) {
        return 2;
    }
    return options.failAbove ? share.notUpdated > *options.failAbove
                             : counts[Verdict::UPDATED] + counts[Verdict::NOTHING_TO_DO] < all;
}
