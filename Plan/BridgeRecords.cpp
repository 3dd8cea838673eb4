#include "Plan/BridgeRecords.h"

#include "Show/PortJudge.h"

#include <utility>

namespace Plan {

BridgeRecords::BridgeRecords(Sim::Bridge& bridge, double now) : bridge_{bridge} { snapshot_.now = now; }

Show::Explanation BridgeRecords::explain(const Show::BridgeNames& names, std::uint64_t id,
                                         const std::string& port) {
    for (const std::string& path : Show::judgedRecords()) take(path);
    for (const std::string& path : Show::judgedMore(snapshot_)) take(path);
    for (const std::string& path : Show::explainMore(snapshot_, id)) take(path);
    return Show::explain(snapshot_, names, id, port);
}

State::Value BridgeRecords::value(const std::string& path) const {
    const auto [record, below] = bridge_.database().resolve(path);
    if (!record) return {};
    if (below.empty()) return record->value();
    const auto slash = below.find('/');
    const std::string key = slash == std::string::npos ? std::string{} : below.substr(slash + 1);
    return record->fieldValue(below.substr(0, slash), key).value_or(State::Value{});
}

void BridgeRecords::take(const std::string& path) {
    if (snapshot_.records.contains(path)) return;
    State::Value found = value(path);
    if (!found.isNull()) snapshot_.records.emplace(path, std::move(found));
}

}  // namespace Plan
