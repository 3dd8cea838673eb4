/// What a participant shows of itself.
#include "Mrp/AttributeRecords.h"
#include "Mrp/Participant.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Mrp {

namespace {

using State::Value;

double secondsOf(Runtime::Duration span) { return Runtime::seconds(Runtime::Time{span}); }

/// Seconds until the timer fires; null while it is not armed.
Value remaining(const Runtime::Timer& timer, Runtime::Time now) {
    return timer.armed() ? Value{secondsOf(std::max(timer.when() - now, Runtime::Duration{0}))} : Value{};
}

std::string hex(std::span<const std::uint8_t> octets) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string out;
    for (const std::uint8_t octet : octets) {
        out += digits[octet >> 4];
        out += digits[octet & 15U];
    }
    return out;
}

/// "type/key"; zeros for what is none.
std::pair<std::uint64_t, std::uint64_t> parseName(std::string_view name) {
    const auto [type, key] = State::splitPath(name);
    return {State::parseDecimal(type, 255).value_or(0), State::parseHex(key).value_or(0)};
}

}  // namespace

Value Participant::machines() const {
    const Runtime::Time now = env_.loop.now();
    State::Object registered;
    State::Object declared;
    for (std::uint8_t i = 0; i < typeCount(); ++i) {
        std::uint64_t members = 0;
        for (const auto [key, attribute] : attributes_[i]) members += isMember(attribute.applicant) ? 1U : 0U;
        registered.emplace_back(std::to_string(type(i).type), Value{std::uint64_t{registered_[i]}});
        declared.emplace_back(std::to_string(type(i).type), Value{members});
    }
    return State::Object{
        {"leaveAll", Value{leaveAll_ == LeaveAllState::Active ? "Active" : "Passive"}},
        {"leaveAllIn", remaining(leaveAllTimer_, now)},
        {"leaveIn", remaining(leaveTimer_, now)},
        {"opportunityIn", remaining(opportunityTimer_, now)},
        {"registered", std::move(registered)},
        {"declared", std::move(declared)},
        {"refused", Value{std::uint64_t{refused_.size()}}},
    };
}

State::Object Participant::attributes(const State::From& from, std::size_t most) const {
    const auto [first, firstKey] = parseName(from.key.value_or(""));
    std::vector<std::pair<AttributeRef, const Attribute*>> found;
    for (std::uint8_t i = 0; i < typeCount(); ++i) {
        if (type(i).type < first) continue;
        const bool begun = type(i).type == first;
        auto at = begun ? attributes_[i].lowerBound(firstKey) : attributes_[i].begin();
        if (begun && !from.included && at != attributes_[i].end() && (*at).key == firstKey) ++at;
        for (; at != attributes_[i].end() && found.size() < most; ++at)
            found.emplace_back(AttributeRef{i, (*at).key}, &(*at).value);
    }
    // Timers are found by their number, in one walk for all of them.
    std::map<std::uint32_t, Runtime::Time> due;
    for (const auto& [ref, attribute] : found) {
        if (attribute->registrar == Registrar::LV) due[attribute->leaveSequence];
    }
    if (!due.empty()) {
        leaves_.each([&](const LeaveQueue::Entry& entry) {
            if (const auto wanted = due.find(entry.sequence); wanted != due.end()) wanted->second = entry.due;
        });
    }
    const Runtime::Time now = env_.loop.now();
    State::Object all;
    for (const auto& [ref, held] : found) {
        const Attribute& attribute = *held;
        const AttributeType& t = type(ref.typeIndex);
        const auto said = [&t](bool any, const AttributeValue& value) {
            if (!any) return Value{};
            State::Object octets{{"value", Value{hex(std::span{value.octets}.first(t.valueLength))}}};
            octets.emplace_back("declaration",
                                t.fourPacked ? Value{std::uint64_t{value.declaration}} : Value{});
            return Value{std::move(octets)};
        };
        Value leaveIn;
        if (attribute.registrar == Registrar::LV) {
            const Runtime::Time end = due.at(attribute.leaveSequence);
            leaveIn =
                secondsOf(end == Runtime::Time{} ? leaveTime_ : std::max(end - now, Runtime::Duration{0}));
        }
        all.emplace_back(
            std::to_string(t.type) + '/' + State::hexText(ref.key),
            State::Object{
                {"applicant", Value{applicantNames[static_cast<std::size_t>(attribute.applicant)]}},
                {"registrar", Value{registrarNames[static_cast<std::size_t>(attribute.registrar)]}},
                {"refused", Value{attribute.refused}},
                {"age", Value{secondsOf(now - Runtime::Time{std::chrono::seconds{attribute.bornSecond}})}},
                {"leaveIn", std::move(leaveIn)},
                {"declared", said(attribute.spokenFor(), attribute.own())},
                {"registered", said(attribute.registered(), attribute.heard())}});
    }
    return all;
}

State::Schema machinesSchema() {
    const State::Schema text = State::Codec<std::string>::schema();
    const State::Schema number = State::Codec<std::uint64_t>::schema();
    const State::Schema seconds = State::orNull(State::Codec<double>::schema());
    const State::Schema byType = State::mapOf(State::KeyText<std::uint8_t>::schema(), number);
    return State::orNull(State::objectOf({{"leaveAll", text},
                                          {"leaveAllIn", seconds},
                                          {"leaveIn", seconds},
                                          {"opportunityIn", seconds},
                                          {"registered", byType},
                                          {"declared", byType},
                                          {"refused", number}}));
}

State::Schema attributesSchema() {
    const State::Schema text = State::Codec<std::string>::schema();
    const State::Schema seconds = State::Codec<double>::schema();
    const State::Schema said = State::orNull(State::objectOf(
        {{"value", text}, {"declaration", State::orNull(State::Codec<std::uint8_t>::schema())}}));
    return State::mapOf({.type = "string", .pattern = "^[0-9]+/0x[0-9A-F]+$"},
                        State::objectOf({{"applicant", text},
                                         {"registrar", text},
                                         {"refused", State::Codec<bool>::schema()},
                                         {"age", seconds},
                                         {"leaveIn", State::orNull(seconds)},
                                         {"declared", said},
                                         {"registered", said}}));
}

}  // namespace Mrp
