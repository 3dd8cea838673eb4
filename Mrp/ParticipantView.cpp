/// What a participant shows of itself.
#include "Mrp/Participant.h"

#include <map>
#include <string>

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

Value Participant::attributes() const {
    const Runtime::Time now = env_.loop.now();
    const double leaveTime = secondsOf(leaveTime_);
    std::map<std::uint32_t, Runtime::Time> due;  // by the number of the timer
    leaves_.each([&](const LeaveQueue::Entry& entry) { due[entry.sequence] = entry.due; });
    State::Object all;
    eachAttribute([&](const AttributeRef& ref, const Attribute& attribute) {
        const AttributeType& t = type(ref.typeIndex);
        const auto said = [&](const AttributeValue& value) {
            State::Object octets{{"value", Value{hex(std::span{value.octets}.first(t.valueLength))}}};
            if (t.fourPacked) octets.emplace_back("declaration", Value{std::uint64_t{value.declaration}});
            return Value{std::move(octets)};
        };
        Value leaveIn;
        if (attribute.registrar == Registrar::LV) {
            const auto timer = due.find(attribute.leaveSequence);
            leaveIn = timer == due.end() ? leaveTime
                                         : secondsOf(std::max(timer->second - now, Runtime::Duration{0}));
        }
        all.emplace_back(
            std::to_string(t.type) + '/' + State::hexText(ref.key),
            State::Object{
                {"applicant", Value{applicantNames[static_cast<std::size_t>(attribute.applicant)]}},
                {"registrar", Value{registrarNames[static_cast<std::size_t>(attribute.registrar)]}},
                {"refused", Value{attribute.refused}},
                {"age", Value{secondsOf(now - Runtime::Time{std::chrono::seconds{attribute.bornSecond}})}},
                {"leaveIn", std::move(leaveIn)},
                {"declared", attribute.spokenFor() ? said(attribute.own()) : Value{}},
                {"registered", attribute.registered() ? said(attribute.heard()) : Value{}}});
    });
    return Value{std::move(all)};
}

}  // namespace Mrp
