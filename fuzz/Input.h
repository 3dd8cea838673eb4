/// The octets of one fuzz input, read front to back as choices and values.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

namespace Fuzz {

/// Past its end everything is zero, so that every input is a whole script and a cut one means nearly the
/// same.
class Input {
public:
    explicit Input(std::span<const std::uint8_t> octets) : rest_{octets} {}

    [[nodiscard]] bool empty() const { return rest_.empty(); }
    std::uint8_t u8() {
        const auto octet = bytes(1);
        return octet.empty() ? std::uint8_t{0} : octet[0];
    }
    std::uint16_t u16() {
        const std::uint8_t high = u8();
        return static_cast<std::uint16_t>(high << 8 | u8());
    }
    /// Below `bound`, which is at most 256.
    std::size_t pick(std::size_t bound) { return u8() % bound; }
    /// At most `length` octets: what is left of them.
    std::span<const std::uint8_t> bytes(std::size_t length) {
        const auto taken = rest_.first(std::min(length, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

private:
    std::span<const std::uint8_t> rest_;
};

/// How much virtual time one input may take.
class TimeBudget {
public:
    explicit TimeBudget(std::chrono::milliseconds all) : left_{all} {}
    template <class Loop>
    void spend(Loop& loop, int milliseconds) {
        const auto span = std::min(left_, std::chrono::milliseconds{milliseconds});
        left_ -= span;
        loop.runFor(span);
    }

private:
    std::chrono::milliseconds left_;
};

}  // namespace Fuzz
