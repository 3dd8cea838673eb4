#include "Monitor/MetricText.h"

#include "Show/Snapshot.h"
#include "State/Codec.h"

#include <cstdio>

namespace Monitor {

using State::Value;

namespace {

void appendEscaped(std::string& out, std::string_view text, bool quotes) {
    for (const char c : text) {
        if (c == '\n') {
            out += "\\n";
        } else {
            if (c == '\\' || (quotes && c == '"')) out += '\\';
            out += c;
        }
    }
}

/// Whole numbers keep all their digits.  Empty for what is no number.
std::string numberText(const Value& value, double factor) {
    if (const auto* flag = std::get_if<bool>(&value.data)) return *flag ? "1" : "0";
    if (const auto* whole = std::get_if<std::uint64_t>(&value.data); whole != nullptr && factor == 1.0)
        return std::to_string(*whole);
    const auto number = State::Codec<double>::decode(value);
    if (!number) return {};
    char text[40];
    std::snprintf(text, sizeof text, "%.15g", *number * factor);
    return text;
}

std::string_view kindName(MetricText::Kind kind) {
    switch (kind) {
        case MetricText::Kind::gauge:
            return "gauge";
        case MetricText::Kind::counter:
            return "counter";
        case MetricText::Kind::histogram:
            return "histogram";
    }
    return "untyped";
}

}  // namespace

void MetricText::family(std::string_view name, Kind kind, std::string_view help) {
    name_ = name;
    head_ = "# HELP ";
    head_.append(name).append(" ");
    appendEscaped(head_, help, false);
    head_.append("\n# TYPE ").append(name).append(" ").append(kindName(kind)).append("\n");
}

void MetricText::sample(Labels labels, const Value& value, double factor) {
    if (const std::string number = numberText(value, factor); !number.empty()) line("", labels, number);
}

void MetricText::delays(const Value& delays) {
    const Value& count = Show::at(delays, {"count"});
    if (count.isNull()) return;
    for (const auto& [bound, within] : Show::membersOf(Show::at(delays, {"within"})))
        line("_bucket", {{"le", bound}}, numberText(within, 1.0));
    line("_bucket", {{"le", "+Inf"}}, numberText(count, 1.0));
    line("_sum", {}, numberText(Show::at(delays, {"sum"}), 1.0));
    line("_count", {}, numberText(count, 1.0));
}

void MetricText::line(std::string_view suffix, Labels labels, const std::string& number) {
    text_ += head_;
    head_.clear();
    text_.append(name_).append(suffix);
    char before = '{';
    for (const auto& [name, value] : labels) {
        text_ += before;
        text_.append(name).append("=\"");
        appendEscaped(text_, value, true);
        text_ += '"';
        before = ',';
    }
    if (labels.size() > 0) text_ += '}';
    text_.append(" ").append(number).append("\n");
}

}  // namespace Monitor
