#include "Runtime/Delays.h"

#include "State/Codec.h"

#include <cstdio>
#include <utility>

namespace Runtime {

namespace {
double inSeconds(Duration span) { return std::chrono::duration<double>(span).count(); }
}  // namespace

State::Value Delays::value() const {
    State::Object within;
    std::uint64_t so = 0;
    for (std::size_t i = 0; i < bounds.size(); ++i) {
        char bound[32];
        std::snprintf(bound, sizeof bound, "%g", inSeconds(bounds[i]));
        within.emplace_back(bound, State::Value{so += counts_[i]});
    }
    return State::Object{{"count", State::Value{so + counts_.back()}},
                         {"sum", State::Value{inSeconds(sum_)}},
                         {"longest", State::Value{inSeconds(longest_)}},
                         {"within", State::Value{std::move(within)}}};
}

State::Schema Delays::schema() {
    const State::Schema number = State::Codec<std::uint64_t>::schema();
    const State::Schema seconds = State::Codec<double>::schema();
    return State::objectOf({{"count", number},
                            {"sum", seconds},
                            {"longest", seconds},
                            {"within", State::mapOf({.type = "string"}, number)}});
}

}  // namespace Runtime
