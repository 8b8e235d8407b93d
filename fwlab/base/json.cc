#include "fwlab/base/json.h"

#include "simphone/files.h"

#include <fmt/format.h>

namespace {

Json NumberOf(const Entry* entry) {
    return entry == nullptr ? Json() : Json(entry->number);
}

} // namespace

Json Describe(const Identity& identity) {
    const Layout& layout = *identity.layout;
    Json shown;
    for (const Field& field :
         {layout.manufacturer, layout.name, layout.extCsdRev, layout.revision, layout.marketName}) {
        const std::string bytes = Get(identity, field);
        if (field.size > 0) {
            shown[field.key] =
                field.size == 1 ? Json(static_cast<uint8_t>(bytes[0])) : Json(Escaped(bytes));
        }
    }
    const auto base = BaseRevisionsOf(identity);
    Json& revisions = shown[layout.baseRevs.key] = base ? Json::array() : Json("any");
    for (const std::string& revision : base.value_or(Texts())) {
        revisions.push_back(Escaped(revision));
    }
    return shown;
}

Json Describe(const Decision& decision) {
    Json steps = Json::array();
    for (const Step& step : decision.steps) {
        steps.push_back({{"step", step.name},
                         {"goes_on", step.goesOn},
                         {"entry", NumberOf(step.entry)},
                         {"reason", step.reason},
                         {"messages", step.messages}});
    }
    return {{"answer", WordOf(decision.verdict)},
            {"why", decision.why},
            {"pre_check", NumberOf(decision.PreCheck())},
            {"recorded", decision.recorded ? Json(Escaped(*decision.recorded)) : Json()},
            {"sent", NumberOf(decision.sent)},
            {"sent_bytes", decision.sentSize},
            {"steps", steps}};
}

void Show(bool asJson, const Json& report, const std::function<void()>& print) {
    if (asJson) {
        fmt::print("{}\n", report.dump(2));
    } else {
        print();
    }
}

std::string Shown(const Json& value) {
    std::string shown;
    for (const Json& element : value.is_array() ? value : Json::array({value})) {
        const bool isText = element.is_string();
        shown += (shown.empty() ? "" : " ") +
                 (isText ? '"' + element.get<std::string>() + '"' : element.dump());
    }
    return shown;
}
