// Answers for one state directory or for those of a whole fleet, as they were pulled from phones.
// One that is damaged, foreign or unreadable is counted like any other.
#include "fwlab/base/json.h"
#include "fwlab/base/progress.h"
#include "fwlab/base/text.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/state_directory.h"
#include "simphone/text.h"

#include <fmt/format.h>
#include <map>

namespace {

constexpr int SCHEMA = 1; // of the JSON lines; counts up when a key changes its meaning

Json ReportOf(const std::string& directory, const StateReport& report) {
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

struct Members {
    size_t count;
    Texts examples;
};

// What the directories show together.
struct Summary {
    std::map<std::pair<Texts, Verdict>, Members> groups; // by product, from and to
    std::map<Verdict, size_t> counts;
    Texts notUpdated; // a line each
};

void Count(const std::string& directory, const StateReport& report, Summary& summary) {
    const Record& record = report.record;
    Texts texts = {"-", "-", "-"};
    if (record.isReadable) {
        texts = {Quoted(record.product), Quoted(record.base), Quoted(record.target)};
    }
    Members& members = summary.groups[{texts, report.verdict}];
    members.count++;
    if (members.examples.size() < 3) {
        members.examples.push_back(Escaped(directory));
    }
    if (!IsCalm(report.verdict)) {
        summary.notUpdated.push_back(
            fmt::format("{}  {}", WordOf(report.verdict), Escaped(directory)));
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
        rows.push_back(group.first);
        rows.back().insert(rows.back().end(),
                           {WordOf(group.second), std::to_string(members.count),
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
    const bool isTable = !asJson && (all > 1 || options.list);
    Summary summary;
    size_t phones = 0;
    for (size_t i = 0; i < all; i++) {
        if (!asJson) {
            ShowProgress(i, all, "directories");
        }
        const StateReport report = ReadState(directories[i]);
        summary.counts[report.verdict]++;
        phones += IsNoPhone(report.verdict) ? 0 : 1;
        if (isTable) {
            Count(directories[i], report, summary);
        } else {
            fmt::print("{}\n", asJson ? ReportOf(directories[i], report).dump() : Sentence(report));
        }
    }
    const Share share = ShareOf(summary, all);
    if (!asJson) {
        ShowProgress(all, all, "directories");
    }
    if (isTable) {
        Print(summary, share, all, options.list);
    }
    const size_t fine = summary.counts[Verdict::UPDATED] + summary.counts[Verdict::NOTHING_TO_DO];
    return phones == 0 ? 2 : options.failAbove ? share.notUpdated > *options.failAbove : fine < all;
}
