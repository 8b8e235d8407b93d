// Brings the report of a sweep into the order in which the templates show it. They escape what they
// are filled with; whatever comes from packages, phones and runs is printable before.
#include "fwlab/sweep/page.h"

#include "fwlab/sweep/report.h"
#include "fwlab/sweep/templates.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <kainjow/mustache.hpp>
#include <map>

namespace mustache = kainjow::mustache;

namespace {

constexpr size_t CALLS_PER_LINE = 64;
constexpr size_t CONTEXT_LINES = 3; // before a time line differs from the base run's

std::string TextOf(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

mustache::data DataOf(const Json& value) {
    if (value.is_array()) {
        mustache::data list = mustache::data::type::list;
        for (const Json& element : value) {
            list.push_back(DataOf(element));
        }
        return list;
    }
    if (value.is_object()) {
        mustache::data object = mustache::data::type::object;
        for (const auto& [key, element] : value.items()) {
            object.set(key, DataOf(element));
        }
        return object;
    }
    return value.is_boolean() ? mustache::data(value.get<bool>()) : mustache::data(TextOf(value));
}

std::string Filled(const char* text, const Json& data) {
    return mustache::mustache(text).render(DataOf(data));
}

std::string CallText(const Json& call) {
    const std::string path = call["path"];
    return call["function"].get<std::string>() + (path.empty() ? "" : " ") + path;
}

struct Chip {
    std::string label;
    Verdict verdict;
    bool isPowerCut, isTorn, isWrong;
    size_t job, state;
};
bool operator==(const Chip& one, const Chip& other) { // but for the time lines
    return one.label == other.label && one.verdict == other.verdict &&
           one.isPowerCut == other.isPowerCut && one.isWrong == other.isWrong;
}

// Torn writes that leave the same become one chip, "torn=1 to 114".
std::vector<Chip> ChipsOf(const Json& call, const SweepResult& result) {
    std::vector<Chip> chips;
    for (const Json& left : call["left"]) {
        const size_t job = left["job"], state = left["state"];
        const Fault& fault = result.jobs[job].fault;
        const Chip chip = {left["label"],
                           result.states[state].verdict,
                           left["is_power_cut"],
                           fault.effect == Effect::TORN,
                           left["violates"],
                           job,
                           state};
        Chip* last = chips.empty() ? nullptr : &chips.back();
        if (chip.isTorn && last != nullptr && last->isTorn && last->verdict == chip.verdict &&
            last->isWrong == chip.isWrong) {
            last->label =
                EffectText(result.jobs[last->job].fault) + " to " + std::to_string(fault.value);
        } else {
            chips.push_back(chip);
        }
    }
    return chips;
}

using TimeLineIds = std::map<const SweepTimeLine*, size_t>;

// In the order in which the page first shows them.
TimeLineIds IdsOf(const SweepResult& result) {
    TimeLineIds ids;
    for (const SweepJobResult& done : result.results) {
        ids.try_emplace(done.timeLine, ids.size());
        for (const SweepLeft& left : done.left) {
            ids.try_emplace(result.states[left.state].timeLine, ids.size());
        }
    }
    return ids;
}

// The lines from one on; equal ones in a row once.
Json LinesOf(const std::vector<TimeLineEntry>& lines, size_t from) {
    Json shown = Json::array();
    for (size_t i = from; i < lines.size(); i++) {
        const size_t first = i;
        while (i + 1 < lines.size() && lines[i + 1].text == lines[i].text &&
               std::string(lines[i + 1].source) == lines[i].source) {
            i++;
        }
        const std::string source = lines[i].source;
        shown.push_back({{"source", source},
                         {"column", source + std::string(8 - source.size(), ' ')},
                         {"text", lines[i].text},
                         {"times", i > first ? Json(i - first + 1) : Json(false)}});
    }
    return shown;
}

Json TimeLinesOf(const SweepResult& result, const TimeLineIds& ids) {
    Json shown = Json::array();
    for (size_t i = 0; i < result.bases.size(); i++) {
        shown.push_back({{"id", "b" + std::to_string(i)},
                         {"title", "The run without a fault"},
                         {"as_base", false},
                         {"lines", LinesOf(result.bases[i].timeLine, 0)}});
    }
    std::map<size_t, const SweepTimeLine*> inOrder;
    for (const auto& [line, id] : ids) {
        inOrder[id] = line;
    }
    for (const auto& [id, line] : inOrder) {
        std::vector<TimeLineEntry> lines = result.bases[line->scenario].timeLine;
        lines.resize(line->common);
        lines.insert(lines.end(), line->rest.begin(), line->rest.end());
        const size_t common = line->common;
        const size_t from = common > CONTEXT_LINES + 2 ? common - CONTEXT_LINES : 0;
        const Json asBase = {{"base", line->scenario}, {"count", from}};
        shown.push_back({{"id", "t" + std::to_string(id)},
                         {"title", "Time line"},
                         {"as_base", from > 0 ? asBase : Json(false)},
                         {"lines", LinesOf(lines, from)}});
    }
    return shown;
}

// One of the two bars of a call: the worst that its chips leave.
Json BarOf(const std::vector<Chip>& chips, bool isPowerCut) {
    std::string kind = "none";
    size_t worst = 0;
    bool isWrong = false;
    for (const Chip& chip : chips) {
        if (chip.isPowerCut == isPowerCut) {
            worst = std::max(worst, RankOf(chip.verdict));
            isWrong = isWrong || chip.isWrong;
            kind = WordOf(LEFT[worst]);
        }
    }
    return {{"class", kind + (isWrong ? " wrong" : "")}};
}

Json CellOf(const std::vector<Chip>& chips, bool isPowerCut, const SweepResult& result,
            const TimeLineIds& ids) {
    Json shown = Json::array();
    for (const Chip& chip : chips) {
        if (chip.isPowerCut == isPowerCut) {
            shown.push_back(
                {{"class", std::string(WordOf(chip.verdict)) + (chip.isWrong ? " wrong" : "")},
                 {"answer", WordOf(chip.verdict)},
                 {"label", chip.label},
                 {"time_line", ids.at(result.results[chip.job].timeLine)},
                 {"next_time_line", ids.at(result.states[chip.state].timeLine)}});
        }
    }
    return {{"chips", shown}};
}

// The calls as columns, in lines of so many.
Json CourseOf(const Json& calls, const std::vector<std::vector<Chip>>& chips) {
    Json lines = Json::array();
    for (size_t i = 0; i < calls.size(); i++) {
        const Json& call = calls[i];
        if (i % CALLS_PER_LINE == 0) {
            lines.push_back({{"first", call["number"]}, {"columns", Json::array()}});
        }
        const char* mark = call["asks_for_change"] ? "D" : call["syncs"] ? "S" : "";
        lines.back()["columns"].push_back(
            {{"number", call["number"]},
             {"call", CallText(call)},
             {"mark", mark},
             {"bars", {BarOf(chips[i], false), BarOf(chips[i], true)}}});
    }
    return lines;
}

// Calls in a row that leave the same share a row of the table, if they are alike or on no path,
// such as those of the clock.
bool SharesRow(const Json& one, const Json& other) {
    return one["path"] == other["path"] &&
           (one["path"] == "" ||
            (one["function"] == other["function"] && one["result"] == other["result"]));
}

Json TableOf(const Json& calls, const std::vector<std::vector<Chip>>& chips,
             const SweepResult& result, const TimeLineIds& ids) {
    Json rows = Json::array();
    for (size_t i = 0; i < calls.size();) {
        size_t end = i + 1;
        Json others = Json::array(); // without a row of their own
        Texts kinds = {CallText(calls[i])};
        for (; end < calls.size() && SharesRow(calls[i], calls[end]) && chips[end] == chips[i];
             end++) {
            others.push_back({{"number", calls[end]["number"]}});
            const std::string kind = CallText(calls[end]);
            if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) {
                kinds.push_back(kind);
            }
        }
        rows.push_back(
            {{"number", calls[i]["number"]},
             {"others", others},
             {"last", end > i + 1 ? calls[end - 1]["number"] : Json(false)},
             {"call", fmt::format("{}", fmt::join(kinds, ", "))},
             {"result", kinds.size() > 1 ? Json("") : calls[i]["result"]},
             {"cells",
              {CellOf(chips[i], false, result, ids), CellOf(chips[i], true, result, ids)}}});
        i = end;
    }
    return rows;
}

Json PhoneOf(const Json& phone, size_t index, const SweepResult& result, const TimeLineIds& ids) {
    std::vector<std::vector<Chip>> chips;
    for (const Json& call : phone["course"]) {
        chips.push_back(ChipsOf(call, result));
    }
    Json shown = phone;
    shown["index"] = index;
    shown["not_updated"] = phone["updated"] ? Json(false) : phone["why"];
    for (const char* counts : {"failing_calls", "power_cuts", "states_after_cuts"}) {
        shown[counts] = CountsText(phone[counts]);
    }
    shown["course"] = CourseOf(phone["course"], chips);
    shown["table"] = TableOf(phone["course"], chips, result, ids);
    return shown;
}

} // namespace

std::string SweepPage(const Json& report, const SweepResult& result) {
    const TimeLineIds ids = IdsOf(result);
    Json page = {{"package", report["package"]},
                 {"style", SWEEP_STYLE},
                 {"runs", report["runs"]},
                 {"count", report["violations"].size()},
                 {"wrong", report["violations"].empty() ? Json(false)
                                                        : Json{{"items", report["violations"]}}},
                 {"verdicts", Json::array()},
                 {"phones", Json::array()},
                 {"time_lines", TimeLinesOf(result, ids)}};
    for (const Verdict verdict : LEFT) {
        page["verdicts"].push_back({{"word", WordOf(verdict)}, {"sentence", SentenceOf(verdict)}});
    }
    for (const Json& phone : report["phones"]) {
        page["phones"].push_back(PhoneOf(phone, page["phones"].size(), result, ids));
    }
    return Filled(SWEEP_PAGE, page);
}

std::string SweepJunit(const Json& report) {
    Json suites = Json::array();
    for (const Json& phone : report["phones"]) {
        Json cases = Json::array();
        const Json failure = {
            {"message", "not updated"},
            {"wrongs", {{{"line", TextOf(phone["answer"]) + ": " + TextOf(phone["why"])}}}}};
        cases.push_back({{"name", "the update without a fault"},
                         {"failure", phone["updated"] ? Json(false) : failure}});
        for (const Json& call : phone["course"]) {
            cases.push_back(
                {{"name", TextOf(call["number"]) + " " + CallText(call)}, {"failure", false}});
        }
        for (const Json& wrong : report["violations"]) {
            if (wrong["phone"] == suites.size()) {
                Json& about = cases[wrong["call"].get<size_t>() + 1]["failure"];
                if (about == false) {
                    about = {{"message", "violation"}, {"wrongs", Json::array()}};
                }
                const std::string text = wrong["text"], command = wrong["command"];
                about["wrongs"].push_back({{"line", text + ": " + command}});
            }
        }
        const auto failures = std::count_if(
            cases.begin(), cases.end(), [](const Json& one) { return one["failure"] != false; });
        suites.push_back({{"phone", phone["phone"]},
                          {"tests", cases.size()},
                          {"failures", failures},
                          {"cases", cases},
                          {"failing_calls", CountsText(phone["failing_calls"])},
                          {"power_cuts", CountsText(phone["power_cuts"])}});
    }
    return Filled(SWEEP_JUNIT, {{"suites", suites}});
}
