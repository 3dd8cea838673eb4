/// Metrics in the text format of Prometheus, version 0.0.4: families one after the other, each with a line of
/// help, its type, and its samples.
#pragma once

#include "State/Value.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace Monitor {

class MetricText {
public:
    static constexpr std::string_view contentType = "text/plain; version=0.0.4; charset=utf-8";

    enum class Kind { gauge, counter, histogram };
    using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

    /// The samples that follow are its own.  A family without samples is left out.
    void family(std::string_view name, Kind kind, std::string_view help);
    /// `value`: a number or a truth; nothing is written for anything else.  `factor` turns it into the
    /// family's unit.
    void sample(Labels labels, const State::Value& value, double factor = 1.0);
    /// All samples of a histogram, of what a record tells of delays.
    void delays(const State::Value& delays);

    [[nodiscard]] std::string take() { return std::move(text_); }

private:
    void line(std::string_view suffix, Labels labels, const std::string& number);

    std::string text_;
    std::string name_;
    std::string head_;  ///< what is still to be said before the family's first sample
};

}  // namespace Monitor
