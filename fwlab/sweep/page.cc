// Fills the templates with the report of a sweep. They escape what they are filled with; whatever
// comes from packages, phones and runs is printable before.
#include "fwlab/sweep/page.h"

#include "fwlab/sweep/report.h"
#include "fwlab/sweep/templates.h"

#include <algorithm>
#include <kainjow/mustache.hpp>
#include <map>
#include <unordered_map>

namespace mustache = kainjow::mustache;

namespace {

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
    if (value.is_boolean() || value.is_null() || value == "") {
        return value == true;
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string Filled(const char* text, const Json& data) {
    return mustache::mustache(text).render(DataOf(data));
}

// The report with its counts as texts.
Json WithTexts(Json report) {
    for (Json& phone : report["phones"]) {
        for (const char* counts : {"failing_calls", "power_cuts", "states_after_cuts"}) {
            phone[counts] = CountsText(phone[counts]);
        }
    }
    return report;
}

// Time lines: as a number of lines that are as in the base run, and the other lines by their
// numbers in a table of all distinct ones. Each distinct time line once.
struct TimeLines {
    Json lines = Json::array(), timeLines = Json::array();
    std::unordered_map<const std::string*, size_t> lineNumbers = {};
    std::map<Json, size_t> numbers = {};

    // The number of the time line.
    size_t Add(const SweepTimeLine& base, const SweepTimeLine& timeLine) {
        const auto differs =
            std::mismatch(timeLine.begin(), timeLine.end(), base.begin(), base.end()).first;
        Json shown = {differs - timeLine.begin()};
        std::for_each(differs, timeLine.end(), [&](const std::string* line) {
            const auto [place, isNew] = lineNumbers.emplace(line, lines.size());
            if (isNew) {
                lines.push_back(*line);
            }
            shown.push_back(place->second);
        });
        const auto [place, isNew] = numbers.emplace(shown, timeLines.size());
        if (isNew) {
            timeLines.push_back(shown);
        }
        return place->second;
    }
};

// What page.js draws: the report with the time lines; each fault's object as a list of its values.
std::string Drawn(Json report, const Json& verdicts, const SweepResult& result) {
    TimeLines all;
    for (size_t i = 0; i < result.bases.size(); i++) {
        const SweepTimeLine& base = result.bases[i].timeLine;
        Json& phone = report["phones"][i];
        phone["time_line"] = all.Add({}, base);
        for (Json& call : phone["course"]) {
            for (Json& left : call["left"]) {
                left["job"] = all.Add(base, result.results[left["job"]].timeLine);
                left["state"] = all.Add(base, result.states[left["state"]].timeLine);
                left = Json::array_t(left.begin(), left.end());
            }
        }
    }
    report["verdicts"] = verdicts;
    report["lines"] = all.lines;
    report["time_lines"] = all.timeLines;
    std::string text = report.dump();
    for (size_t at = 0; (at = text.find('<', at)) != std::string::npos;) { // would end the script
        text.replace(at, 1, "\\u003c");
    }
    return text;
}

} // namespace

std::string SweepPage(const Json& report, const SweepResult& result) {
    const char* letter[] = {"", "N", "-", "R", "A", "S", "U", "X", "W"}; // as in LEFT
    Json verdicts = Json::array(), wrongs = Json::array();
    for (size_t i = 0; i < std::size(LEFT); i++) {
        verdicts.push_back(
            {{"word", WordOf(LEFT[i])}, {"letter", letter[i]}, {"sentence", SentenceOf(LEFT[i])}});
    }
    for (size_t i = 0; i < static_cast<size_t>(Wrong::UNEXPECTED); i++) {
        wrongs.push_back({{"sentence", SentenceOf(static_cast<Wrong>(i))}});
    }
    Json page = WithTexts(report);
    page["verdicts"] = verdicts;
    page["wrongs"] = wrongs;
    page["clean"] = report["violations"].empty();
    page["violation_count"] = report["violations"].size();
    page["style"] = SWEEP_STYLE;
    page["script"] = SWEEP_SCRIPT;
    page["report"] = Drawn(report, verdicts, result);
    for (size_t i = 0; i < page["phones"].size(); i++) {
        page["phones"][i]["index"] = i;
        page["phones"][i].erase("course"); // for speed: the script draws it
    }
    return Filled(SWEEP_PAGE, page);
}

std::string SweepJunit(const Json& report) {
    Json suites = WithTexts(report);
    suites["timestamp"] = report["date"].get<std::string>().substr(0, 19); // of no zone there
    for (const Json& wrong : report["violations"]) {
        suites["phones"][wrong["phone"].get<size_t>()]["course"][wrong["call"].get<size_t>()]
              ["failure"]["wrongs"]
                  .push_back(wrong);
    }
    for (Json& phone : suites["phones"]) {
        const auto failed =
            std::count_if(phone["course"].begin(), phone["course"].end(),
                          [](const Json& call) { return call.contains("failure"); });
        phone["failures"] = failed + (phone["updated"] ? 0 : 1);
        phone["tests"] = phone["course"].size() + 1;
    }
    return Filled(SWEEP_JUNIT, suites);
}
