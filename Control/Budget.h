/// Memory that all clients have together.
#pragma once

#include <cstddef>

namespace Control {

class Budget {
public:
    explicit Budget(std::size_t limit) : limit_{limit} {}

    /// False, and nothing is taken, when so much is not left.
    [[nodiscard]] bool take(std::size_t octets) {
        if (octets > limit_ - used_) return false;
        used_ += octets;
        return true;
    }
    void giveBack(std::size_t octets) { used_ -= octets; }

private:
    const std::size_t limit_;
    std::size_t used_ = 0;
};

}  // namespace Control
