/// What one side of a port declares at the moment, by what it has said there.
#pragma once

#include "Mrp/Decoder.h"
#include "Msrp/types/Attributes.h"
#include "Runtime/Time.h"

#include <bitset>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

namespace Plan {

/// Talker Advertise and Talker Failed are two values of one attribute, named by the former's type.
struct AttributeName {
    std::uint8_t kind = 0;
    std::uint64_t key = 0;
    auto operator<=>(const AttributeName&) const = default;
};

struct Declaration {
    std::uint8_t type = 0;
    /// Without what each bridge puts there itself: a talker's latency and the bridge that failed it.
    Mrp::AttributeValue value{};
    bool operator==(const Declaration&) const = default;
};

AttributeName nameOf(const Mrp::DecodedEvent& event);
Declaration declarationOf(const Mrp::DecodedEvent& event);

/// "stream 02:00:00:00:02:01/1 talker", "class A domain"
std::string nameText(const AttributeName& name);
/// "Talker Failed code 8 (egress port is not AVB capable)"; "nothing" for none.
std::string declarationText(const Declaration* declaration);
/// Both of them in words that tell what is different.
std::pair<std::string, std::string> differenceText(const Declaration* one, const Declaration* other);

class Declared {
public:
    using Changed = std::function<void(const AttributeName&)>;

    void take(const Mrp::DecodedPdu& pdu, Runtime::Time now, const Changed& changed);
    /// A LeaveAll of those types was said at that time by either side, and time to answer it has passed: what
    /// was not declared since is gone.
    void age(Runtime::Time leaveAll, const std::bitset<Mrp::maxTypes>& types, const Changed& changed);

    /// Null while it is not declared.
    [[nodiscard]] const Declaration* find(const AttributeName& name) const;
    /// Declarations that were not taken in because there were `most` already.
    [[nodiscard]] std::size_t beyond() const { return beyond_; }
    /// More than an agent of ours takes in at a port, so that no capture makes this grow without bound.
    static constexpr std::size_t most = 65'536;

private:
    struct Entry {
        Declaration declaration;
        Runtime::Time said{};
    };
    std::map<AttributeName, Entry> entries_;
    std::size_t beyond_ = 0;
};

}  // namespace Plan
