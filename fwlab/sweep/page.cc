// Writes a sweep down as one HTML page and as JUnit XML. Whatever comes from packages, phones and
// runs is made printable and escaped on its way in.
#include "fwlab/sweep/report.h"

#include "fwlab/phone/device.h"
#include "fwlab/sweep/style.h"
#include "simphone/text.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <sstream>

namespace {

constexpr size_t CALLS_PER_LINE = 64;
constexpr size_t CONTEXT_LINES = 3; // before a time line differs from the base run's

// For element content and attribute values of HTML and XML. The text is one printable line: what is
// not comes Escaped.
std::string Markup(const std::string& text) {
    static const std::map<char, std::string> entities = {
        {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&#39;"}};
    std::string safe;
    for (const char c : text) {
        const auto entity = entities.find(c);
        safe += entity != entities.end() ? entity->second
                : c >= ' ' && c <= '~'   ? std::string(1, c)
                                         : "?";
    }
    return safe;
}

std::string CallText(const CallEntry& call) {
    return call.function + (call.path == "-" ? "" : " " + Escaped(call.path));
}

std::string Result(const CallEntry& call) {
    return call.result.rfind("0x", 0) == 0
               ? "a pointer"
               : call.result + (call.error.empty() ? "" : " ") + call.error;
}

// ---- What is left after the jobs at one call ----

struct Chip {
    std::string label;
    Fate fate;
    std::string timeLine, nextTimeLine;
    bool isPowerCut, isWrong;
};
bool operator==(const Chip& one, const Chip& other) { // but for the time lines
    return one.label == other.label && one.fate == other.fate &&
           one.isPowerCut == other.isPowerCut && one.isWrong == other.isWrong;
}

// How far the fault reaches, for a failing call; what it loses, for a power cut.
std::string Label(const SweepJob& job, const SweepLeft& left) {
    if (!job.isPowerCut) {
        const bool isAlone = job.fault.first == job.fault.last;
        const bool hasPath = !job.fault.path.empty();
        return job.way + (isAlone ? "" : hasPath ? ", later ones on the path" : ", all later ones");
    }
    return job.fault.effect == Effect::TORN ? job.way
           : left.losses.empty()            ? "all survives"
                                            : left.losses;
}

// Torn writes that leave the same become one chip, "torn=1 to 114".
void Add(std::vector<Chip>& chips, const Chip& chip) {
    const bool isTorn = chip.label.rfind("torn=", 0) == 0;
    Chip* last = chips.empty() ? nullptr : &chips.back();
    if (isTorn && last != nullptr && last->label.rfind("torn=", 0) == 0 &&
        last->fate == chip.fate && last->isWrong == chip.isWrong) {
        last->label = last->label.substr(0, last->label.find(' ')) + " to " + chip.label.substr(5);
        return;
    }
    chips.push_back(chip);
}

using Violations = std::vector<const SweepViolation*>;

Violations ViolationsOf(const SweepResult& result, size_t scenario) {
    Violations found;
    for (const SweepViolation& wrong : result.violations) {
        if (wrong.scenario == scenario) {
            found.push_back(&wrong);
        }
    }
    return found;
}

// For each call of a base run.
std::vector<std::vector<Chip>> ChipsOf(const SweepResult& result, size_t scenario) {
    std::vector<std::vector<Chip>> chips(result.bases[scenario].calls.size());
    const Violations wrongs = ViolationsOf(result, scenario);
    for (size_t i = 0; i < result.jobs.size(); i++) {
        const SweepJob& job = result.jobs[i];
        const SweepJobResult& done = result.results[i];
        if (job.scenario != scenario) {
            continue;
        }
        for (const SweepLeft& left : done.left) {
            const std::string place = FaultText(job.fault);
            const std::string fault = place + (left.losses.empty() ? "" : " ") + left.losses;
            const bool isWrong =
                std::any_of(wrongs.begin(), wrongs.end(), [&](const SweepViolation* wrong) {
                    return wrong->fault == fault || wrong->fault == place;
                });
            Add(chips[job.call], {Label(job, left), left.fate, done.timeLine, left.nextTimeLine,
                                  job.isPowerCut, isWrong});
        }
    }
    return chips;
}

// ---- The page ----

std::string Key() {
    std::string html = "<p class=\"key\">";
    for (const Fate fate : FATES) {
        html +=
            fmt::format("<span class=\"f{}\">{}</span>", static_cast<int>(fate), FateText(fate));
    }
    return html + "<span class=\"wrong\">a violation</span></p>\n";
}

// One of the two bars of a call: the worst that its chips leave.
std::string Bar(const std::vector<Chip>& chips, bool isPowerCut) {
    int worst = -1;
    bool isWrong = false;
    for (const Chip& chip : chips) {
        if (chip.isPowerCut == isPowerCut) {
            worst = std::max(worst, static_cast<int>(chip.fate));
            isWrong = isWrong || chip.isWrong;
        }
    }
    return worst < 0 ? "<i class=\"none\"></i>"
                     : fmt::format("<i class=\"f{}{}\"></i>", worst, isWrong ? " wrong" : "");
}

std::string Course(const SweepResult& result, size_t scenario,
                   const std::vector<std::vector<Chip>>& chips) {
    const RunResult& base = result.bases[scenario];
    std::string html = "<div class=\"course\">\n";
    for (size_t i = 0; i < base.calls.size(); i++) {
        const CallEntry& call = base.calls[i];
        const bool asks = Updates(base, call.number) != Updates(base, call.number - 1);
        if (i % CALLS_PER_LINE == 0) {
            html += fmt::format("{}<div class=\"line\"><b>{}</b>", i == 0 ? "" : "</div>\n",
                                call.number);
        }
        html += fmt::format("<a href=\"#p{}c{}\" title=\"{} {}\"><u>{}</u>{}{}</a>", scenario,
                            call.number, call.number, Markup(CallText(call)),
                            asks                       ? "D"
                            : call.function == "fsync" ? "S"
                                                       : "",
                            Bar(chips[i], false), Bar(chips[i], true));
    }
    return html + "</div>\n</div>\n";
}

std::string Cell(const std::vector<Chip>& chips, bool isPowerCut) {
    std::string html = "<td>";
    for (const Chip& chip : chips) {
        if (chip.isPowerCut == isPowerCut) {
            html += fmt::format(
                "<span><a class=\"run f{}{}\" href=\"#t{}\" title=\"{}\">{}</a>"
                "<a class=\"next\" href=\"#t{}\" title=\"the next run\">&#9656;</a></span> ",
                static_cast<int>(chip.fate), chip.isWrong ? " wrong" : "", chip.timeLine,
                FateText(chip.fate), Markup(chip.label), chip.nextTimeLine);
        }
    }
    return html + "</td>";
}

// Calls in a row that leave the same share a row of the table, if they are alike or on no path,
// such as those of the clock.
bool SharesRow(const CallEntry& one, const CallEntry& other) {
    return one.path == other.path &&
           (one.path == "-" || (one.function == other.function && Result(one) == Result(other)));
}

std::string Table(const SweepResult& result, size_t scenario,
                  const std::vector<std::vector<Chip>>& chips) {
    const std::vector<CallEntry>& calls = result.bases[scenario].calls;
    std::string html = "<table>\n<tr><th></th><th>call</th><th>result</th><th>it fails</th>"
                       "<th>the power fails before it</th></tr>\n";
    for (size_t i = 0; i < calls.size();) {
        size_t end = i + 1;
        std::string ids; // of the calls without a row of their own
        Texts kinds = {CallText(calls[i])};
        for (; end < calls.size() && SharesRow(calls[i], calls[end]) && chips[end] == chips[i];
             end++) {
            ids += fmt::format("<a id=\"p{}c{}\"></a>", scenario, calls[end].number);
            const std::string kind = CallText(calls[end]);
            if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) {
                kinds.push_back(kind);
            }
        }
        html += fmt::format("<tr id=\"p{}c{}\"><td>{}{}{}</td><td><code>{}</code></td>"
                            "<td><code>{}</code></td>{}{}</tr>\n",
                            scenario, calls[i].number, ids, calls[i].number,
                            end > i + 1 ? fmt::format(" to {}", calls[end - 1].number) : "",
                            Markup(fmt::format("{}", fmt::join(kinds, ", "))),
                            kinds.size() > 1 ? "" : Markup(Result(calls[i])), Cell(chips[i], false),
                            Cell(chips[i], true));
        i = end;
    }
    return html + "</table>\n";
}

Texts Lines(const std::string& text) {
    std::istringstream stream(text);
    Texts lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The lines from one on, which are printable; equal ones in a row once.
std::string TimeLineMarkup(const Texts& lines, size_t from) {
    std::string html;
    for (size_t i = from; i < lines.size(); i++) {
        const size_t first = i;
        while (i + 1 < lines.size() && lines[i + 1] == lines[i]) {
            i++;
        }
        const size_t tab = lines[i].find('\t');
        const std::string source = lines[i].substr(0, tab);
        html += fmt::format("<span class=\"{}\">{:<8}| {}</span>\n", source, source,
                            Markup(lines[i].substr(tab + 1)));
        if (i > first) {
            html += fmt::format("<span class=\"as\">the same {} times</span>\n", i - first + 1);
        }
    }
    return html;
}

std::string TimeLineSection(const std::string& id, const std::string& title,
                            const std::string& text) {
    return fmt::format("<section class=\"timeline\" id=\"{}\"><a class=\"close\" "
                       "href=\"#closed\">close</a><h3>{}</h3>\n<pre>{}</pre></section>\n",
                       id, title, text);
}

// Each distinct time line; what it has in common with the base run's is left out.
std::string TimeLines(const SweepResult& result) {
    std::map<std::string, size_t> owners; // the scenario of each time line
    for (size_t i = 0; i < result.jobs.size(); i++) {
        owners.emplace(result.results[i].timeLine, result.jobs[i].scenario);
        for (const SweepLeft& left : result.results[i].left) {
            owners.emplace(left.nextTimeLine, result.jobs[i].scenario);
        }
    }
    std::vector<Texts> bases;
    std::string html;
    for (const RunResult& base : result.bases) {
        bases.push_back(Lines(TimeLineText(base)));
        html += TimeLineSection(fmt::format("b{}", bases.size() - 1), "The run without a fault",
                                TimeLineMarkup(bases.back(), 0));
    }
    for (const auto& [key, scenario] : owners) {
        const Texts lines = Lines(result.timeLines.at(key));
        const Texts& base = bases[scenario];
        const auto [here, there] =
            std::mismatch(lines.begin(), lines.end(), base.begin(), base.end());
        const auto common = static_cast<size_t>(here - lines.begin());
        const size_t from = common > CONTEXT_LINES + 2 ? common - CONTEXT_LINES : 0;
        const std::string as = fmt::format("<a class=\"as\" href=\"#b{}\">{} lines as in the run "
                                           "without a fault</a>\n",
                                           scenario, from);
        html += TimeLineSection("t" + key, "Time line",
                                (from > 0 ? as : "") + TimeLineMarkup(lines, from));
    }
    return html;
}

std::string Wrongs(const SweepRequest& request, const SweepResult& result) {
    std::string html = "<ol class=\"wrongs\">\n";
    for (const SweepViolation& wrong : result.violations) {
        html += fmt::format("<li>{}<code>{}</code></li>\n", Markup(wrong.text),
                            Markup(RehearseCommand(request, wrong)));
    }
    return result.violations.empty() ? "" : html + "</ol>\n";
}

} // namespace

std::string SweepPage(const SweepRequest& request, const SweepResult& result) {
    std::string html =
        fmt::format("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                    "<meta name=\"viewport\" content=\"width=device-width\">\n"
                    "<title>Sweep of {0}</title>\n<style>{1}</style></head>\n<body>\n"
                    "<h1>Sweep of <code>{0}</code></h1>\n<p>{2} runs, {3} violations.</p>\n{4}{5}",
                    Markup(Escaped(request.package)), SWEEP_STYLE, result.runs,
                    result.violations.size(), Wrongs(request, result), Key());
    for (size_t i = 0; i < result.bases.size(); i++) {
        const SweepSummary sum = Summarize(result, i);
        const auto chips = ChipsOf(result, i);
        html += fmt::format(
            "<h2><code>{}</code>: {}</h2>\n<p><a href=\"#b{}\">Without a fault</a>: {}, in {} "
            "calls.<br>Failing calls: {}.<br>Power cuts: {}; possible states after these cuts: "
            "{}.</p>\n<h3>The course of the run</h3>\n<p>A column for each call, in order. Upper "
            "bar: what the phone is left with when the call fails. Lower bar: when the power fails "
            "before it. Each shows the worst case. D: the device is asked to change; S: a file is "
            "synced.</p>\n{}"
            "<h3>Calls</h3>\n<p>Click a way to fail for the time line of its run, &#9656; for that "
            "of the run after it.</p>\n{}",
            Markup(Escaped(request.phones[i])), Markup(Title(result.phones[i])), i,
            FateText(result.baseFates[i]), result.bases[i].calls.size(),
            FateCountsText(sum.failingCalls), FateCountsText(sum.powerCuts),
            FateCountsText(sum.states), Course(result, i, chips), Table(result, i, chips));
    }
    return html + TimeLines(result) + "</body></html>\n";
}

std::string SweepJunit(const SweepRequest& request, const SweepResult& result) {
    std::string suites;
    for (size_t i = 0; i < result.bases.size(); i++) {
        std::map<size_t, std::string> failures; // by call, the first of the run too for the base
        for (const SweepViolation* wrong : ViolationsOf(result, i)) {
            failures[wrong->call] += fmt::format("{}: {}\n", Markup(wrong->text),
                                                 Markup(RehearseCommand(request, *wrong)));
        }
        const std::vector<CallEntry>& calls = result.bases[i].calls;
        suites += fmt::format("<testsuite name=\"{}\" tests=\"{}\" failures=\"{}\">\n",
                              Markup(Escaped(request.phones[i])), calls.size(), failures.size());
        for (size_t j = 0; j < calls.size(); j++) {
            suites += fmt::format("<testcase classname=\"{}\" name=\"{} {}\"",
                                  Markup(Escaped(request.phones[i])), calls[j].number,
                                  Markup(CallText(calls[j])));
            suites += failures.count(j) == 0
                          ? "/>\n"
                          : fmt::format("><failure message=\"violation\">{}</failure></testcase>\n",
                                        failures[j]);
        }
        const SweepSummary sum = Summarize(result, i);
        suites += fmt::format("<system-out>failing calls: {}; power cuts: {}</system-out>\n"
                              "</testsuite>\n",
                              FateCountsText(sum.failingCalls), FateCountsText(sum.powerCuts));
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites name=\"sweep\">\n" + suites +
           "</testsuites>\n";
}
