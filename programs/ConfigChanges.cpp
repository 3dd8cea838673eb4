#include "programs/ConfigChanges.h"

#include "Control/Json.h"
#include "Runtime/Text.h"
#include "Show/Snapshot.h"

namespace {
std::string valueText(const State::Value& value) {
    return value.isNull() ? "nothing" : Control::jsonText(value);
}
}  // namespace

std::string changeText(const State::Difference& change) {
    return Runtime::concat(change.path(), ": ", valueText(change.was), " -> ", valueText(change.is));
}

std::string changesText(const State::Value& changes) {
    const State::Object& lines = Show::membersOf(changes);
    std::string text = lines.empty() ? "nothing has changed\n" : "";
    for (const auto& [path, change] : lines)
        text += changeText({{path}, Show::at(change, {"was"}), Show::at(change, {"is"})}) + '\n';
    return text;
}

State::Value changesValue(const std::vector<State::Difference>& changes) {
    State::Object all;
    for (const State::Difference& change : changes)
        all.emplace_back(change.path(), State::Object{{"was", change.was}, {"is", change.is}});
    return all;
}
