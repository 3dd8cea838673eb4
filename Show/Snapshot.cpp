#include "Show/Snapshot.h"

#include "Switch/PortChoice.h"

namespace Show {

using State::Value;

namespace {
const Value none;
}

const Value& at(const Value& value, std::initializer_list<std::string_view> names) {
    const Value* found = &value;
    for (const std::string_view name : names) {
        found = found->member(name);
        if (found == nullptr) return none;
    }
    return *found;
}

std::string textOf(const Value& value) {
    const auto* text = std::get_if<std::string>(&value.data);
    return text != nullptr ? *text : std::string{};
}

std::uint64_t numberOf(const Value& value) {
    const auto* number = std::get_if<std::uint64_t>(&value.data);
    return number != nullptr ? *number : 0;
}

std::uint64_t sumOf(const Value& value) {
    std::uint64_t sum = 0;
    for (const auto& [name, number] : membersOf(value)) sum += numberOf(number);
    return sum;
}

bool isTrue(const Value& value) {
    const auto* flag = std::get_if<bool>(&value.data);
    return flag != nullptr && *flag;
}

const State::Object& membersOf(const Value& value) {
    static const State::Object empty;
    const State::Object* members = value.object();
    return members != nullptr ? *members : empty;
}

const Value& Snapshot::record(std::string_view path) const {
    const auto found = records.find(path);
    return found != records.end() ? found->second : none;
}

bool chosen(const Value& intfEnable, std::string_view port) {
    const Value* own = intfEnable.member(port);
    return isTrue(own != nullptr ? *own : at(intfEnable, {everyPort}));
}

std::vector<std::string> enabledPorts(const Snapshot& snapshot) {
    std::vector<std::string> all;
    const Value& said = at(snapshot.record("msrp/config"), {"intfEnable"});
    for (const auto& [port, enabled] : membersOf(said)) {
        if (isTrue(enabled) && port != everyPort) all.push_back(port);
    }
    if (!isTrue(at(said, {everyPort}))) return all;
    // The others are those on which it runs.
    for (const auto& [port, status] : membersOf(at(snapshot.record("msrp/status"), {"intfStatus"}))) {
        if (said.member(port) == nullptr) all.push_back(port);
    }
    return all;
}

}  // namespace Show
