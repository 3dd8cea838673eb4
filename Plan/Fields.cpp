#include "Plan/Fields.h"

#include "Runtime/Text.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>

namespace Plan {

using Runtime::concat;

namespace {

/// The number at the beginning of the text, and what stands behind it; not a number where there is none.
double numberBefore(std::string_view text, std::string_view& rest) {
    double number = std::nan("");
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    rest = text.substr(static_cast<std::size_t>(end - text.data()));
    return error == std::errc{} ? number : std::nan("");
}

}  // namespace

std::optional<Runtime::Duration> parseDuration(std::string_view text) {
    struct Unit {
        std::string_view name;
        double nanoseconds;
    };
    constexpr auto units =
        std::to_array<Unit>({{"ns", 1}, {"us", 1e3}, {"ms", 1e6}, {"s", 1e9}, {"min", 60e9}});
    std::string_view rest;
    const double number = numberBefore(text, rest);
    if (!(number >= 0)) return std::nullopt;
    for (const Unit& unit : units) {
        const double span = number * unit.nanoseconds;
        if (rest == unit.name && span <= 1e15)
            return std::chrono::duration_cast<Runtime::Duration>(
                std::chrono::nanoseconds{std::llround(span)});
    }
    return std::nullopt;
}

std::optional<double> parseShare(std::string_view text) {
    std::string_view rest;
    double share = numberBefore(text, rest);
    if (rest == "%") share /= 100;
    if ((!rest.empty() && rest != "%") || !(share >= 0 && share <= 1)) return std::nullopt;
    return share;
}

std::vector<std::string> wordsOf(std::string_view text) {
    std::vector<std::string> words;
    constexpr std::string_view between = " \t\r\n,;";
    for (auto at = text.find_first_not_of(between); at != std::string_view::npos;) {
        const auto end = text.find_first_of(between, at);
        words.emplace_back(text.substr(at, end - at));
        at = text.find_first_not_of(between, end);
    }
    return words;
}

const Field* Fields::take(std::string_view name) {
    const auto at = fields_.find(name);
    if (at == fields_.end()) return nullptr;
    taken_[at->first] = true;
    return &at->second;
}

void Fields::number(std::string_view name, std::uint64_t min, std::uint64_t max,
                    const std::function<void(std::uint64_t)>& to) {
    const Field* field = take(name);
    if (field == nullptr) return;
    const auto found = State::parseDecimal(field->text, max);
    if (found && *found >= min) {
        to(*found);
    } else {
        bad(name, concat("is not a whole number from ", min, " to ", max));
    }
}

void Fields::address(std::string_view name, EthAddr& to) {
    const Field* field = take(name);
    if (field == nullptr) return;
    if (const auto found = EthAddr::parse(field->text)) {
        to = *found;
    } else {
        bad(name, "is not " + State::KeyText<EthAddr>::expected());
    }
}

void Fields::duration(std::string_view name, Runtime::Duration& to) {
    const Field* field = take(name);
    if (field == nullptr) return;
    const auto found = parseDuration(field->text);
    if (found && *found <= std::chrono::seconds{1000}) {
        to = *found;
    } else {
        bad(name, "is not a time like \"5us\", \"1.5ms\" or \"2s\", at most 1000 s");
    }
}

void Fields::share(std::string_view name, double& to) {
    const Field* field = take(name);
    if (field == nullptr) return;
    if (const auto found = parseShare(field->text)) {
        to = *found;
    } else {
        bad(name, "is not a share like \"0.01\" or \"1%\"");
    }
}

std::vector<std::string> Fields::words(std::string_view name) {
    const Field* field = take(name);
    return field == nullptr ? std::vector<std::string>{} : wordsOf(field->text);
}

void Fields::say(std::string_view name, const std::string& what, bool value) {
    const auto at = fields_.find(name);
    const bool there = at != fields_.end();
    problems_.push_back(concat(there ? at->second.place : place_, ": ", owner_, ": ", name, ": ",
                               there && value ? '"' + at->second.text + "\" " : std::string{}, what));
}

void Fields::wrong(const std::string& what) { problems_.push_back(concat(place_, ": ", owner_, ": ", what)); }

void Fields::restIs(const std::function<bool(const std::string& name, const Field& field)>& known) {
    for (const auto& [name, field] : fields_) {
        if (!taken_.contains(name) && !known(name, field))
            problems_.push_back(concat(field.place, ": ", owner_, ": ", name, ": is not known here"));
    }
}

}  // namespace Plan
