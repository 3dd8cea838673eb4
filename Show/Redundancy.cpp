#include "Show/Table.h"
#include "Show/Views.h"

#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace Show {

using State::Value;

namespace {

struct SupervisorRow {
    const Value& status;
    const Value& config;
    const Value& store;
};

std::vector<std::pair<std::string, bool>> othersOf(const Value& status) {
    std::vector<std::pair<std::string, bool>> others;
    for (const auto& [name, ready] : membersOf(at(status, {"agent"})))
        others.emplace_back(name, isTrue(ready));
    return others;
}

const Column<SupervisorRow> supervisorColumns[]{
    {"role", [](const auto& r) { return textOf(at(r.status, {"role"})); }},
    {"name", [](const auto& r) { return textOf(at(r.status, {"name"})); }},
    {"lease", [](const auto& r) { return known<double>(at(r.config, {"lease"})); }},
    {"active", [](const auto& r) { return textOrNone(textOf(at(r.status, {"holder"}))); }},
    {"changes", [](const auto& r) { return numberOf(at(r.status, {"fence"})); }},
    {"others", [](const auto& r) { return othersOf(r.status); }},
    {"switch", [](const auto& r) { return textOf(at(r.store, {"name"})); }},
    {"server", [](const auto& r) { return textOrNone(textOf(at(r.status, {"server"}))); }},
    {"problem", [](const auto& r) { return textOrNone(textOf(at(r.status, {"problem"}))); }},
    {"complete", [](const auto& r) { return isTrue(at(r.status, {"complete"})); }},
    {"backlog", [](const auto& r) { return numberOf(at(r.status, {"backlog"})); }},
    {"answerTime", [](const auto& r) { return known<double>(at(r.status, {"answerTime"})); }},
};

SupervisorRow rowOf(const Snapshot& s) {
    return {s.record("redundancy"), s.record("redundancy/config"), s.record("store/config")};
}

std::string milliseconds(const Value& seconds) {
    const double span = State::Codec<double>::decode(seconds).value_or(0.0);
    return std::to_string(std::lround(span * 1000.0)) + " ms";
}

std::string redundancyText(const Snapshot& snapshot, const Page& page) {
    const auto [status, config, store] = rowOf(snapshot);
    if (textOf(at(store, {"redis"})).empty() && textOf(at(store, {"sentinels"})).empty())
        return "There is no store: this agent always acts.\n";
    const bool acts = textOf(at(status, {"role"})) == "active";
    const bool alone = State::Codec<double>::decode(at(config, {"lease"})).value_or(0.0) == 0.0;
    const std::string holder = textOf(at(status, {"holder"}));
    std::vector<std::pair<std::string_view, std::string>> lines{
        {"supervisor", textOf(at(status, {"name"})) + (acts ? ", acts" : ", stands by")}};
    if (!alone) {
        lines.emplace_back("active", holder.empty() ? "nobody" : holder);
        lines.emplace_back("changes of role", std::to_string(numberOf(at(status, {"fence"}))));
        lines.emplace_back("lease",
                           spanText(State::Codec<double>::decode(at(config, {"lease"})).value_or(0.0)));
        std::string others;
        for (const auto& [name, ready] : othersOf(status))
            others += (others.empty() ? "" : ", ") + name + (ready ? "" : " (not ready)");
        lines.emplace_back("others", others.empty() ? "none: nobody would take over" : others);
    }
    const std::string problem = textOf(at(status, {"problem"}));
    lines.emplace_back("store", textOf(at(status, {"server"})) + ", switch " + textOf(at(store, {"name"})));
    lines.emplace_back("",
                       problem.empty() ? "answers in " + milliseconds(at(status, {"answerTime"})) : problem);
    lines.emplace_back("records",
                       isTrue(at(status, {"complete"}))
                           ? (acts ? "all are in the store" : "all that the store has are here")
                           : (acts ? std::to_string(numberOf(at(status, {"backlog"}))) + " wait to be written"
                                   : std::string{"not all that the store has are here"}));
    return facts(lines, page);
}

}  // namespace

const View& redundancy() {
    static const View view{{"redundancy", "redundancy/config", "store/config"},
                           redundancyText,
                           [](const Snapshot& s) { return Value{objectValue(supervisorColumns, rowOf(s))}; },
                           [] { return objectSchema(supervisorColumns); }};
    return view;
}

}  // namespace Show
