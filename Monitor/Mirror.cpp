#include "Monitor/Mirror.h"

#include "Control/Client.h"
#include "Runtime/Text.h"
#include "State/Codec.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace Monitor {

using Runtime::concat;
using State::Value;

namespace {

/// Puts a field's value into the record; one that the daemon does not have stays out.
void put(Show::Snapshot& snapshot, const Wanted& wanted, Value value) {
    Value& record = snapshot.records[wanted.record];
    if (wanted.field.empty()) {
        record = std::move(value);
    } else {
        if (record.isNull()) record = State::Object{};
        std::get<State::Object>(record.data).emplace_back(wanted.field, std::move(value));
    }
}

}  // namespace

const Show::Snapshot* Mirror::fresh() {
    if (const Runtime::Time begun = loop_.now(); fetches_ == 0 || begun >= notBefore_) {
        Show::Snapshot snapshot;
        problem_ = fetch(snapshot);
        snapshot_ = problem_.empty() ? std::optional{std::move(snapshot)} : std::nullopt;
        ++fetches_;
        if (!snapshot_) ++failures_;
        const Runtime::Time ended = loop_.now();
        took_ = ended - begun;
        const Runtime::Duration pause = snapshot_ ? 9 * took_ : std::min(9 * took_, longestSearch);
        notBefore_ = std::max(begun + shortestPause, ended + pause);
    }
    return snapshot_ ? &*snapshot_ : nullptr;
}

std::string Mirror::fetch(Show::Snapshot& snapshot) const {
    Control::Client client;
    const Runtime::Time begun = loop_.now();
    std::string problem = client.connect(socket_, patience);
    for (const Wanted& wanted : wanted_) {
        if (!problem.empty()) return problem;
        const std::string path = wanted.field.empty() ? wanted.record : wanted.record + '/' + wanted.field;
        problem = client.send(State::Object{{"op", Value{"get"}}, {"path", Value{path}}});
    }
    for (const Wanted& wanted : wanted_) {
        if (!problem.empty()) return problem;
        const auto gone = std::chrono::duration_cast<std::chrono::seconds>(loop_.now() - begun).count();
        if (gone >= patience)
            return concat("socket ", socket_, ": not all answers within ", patience, " seconds");
        Value reply;
        problem = client.receive(reply, patience - static_cast<unsigned>(gone));
        const Value* value = reply.member("value");
        if (value != nullptr) put(snapshot, wanted, *value);
        // An older daemon does not have every record.
        if (reply.member("error") != nullptr) problem.clear();
        snapshot.now = State::Codec<double>::decode(Show::at(reply, {"now"})).value_or(snapshot.now);
    }
    return problem;
}

}  // namespace Monitor
