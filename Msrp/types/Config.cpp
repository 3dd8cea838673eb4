#include "Msrp/types/Config.h"

std::optional<Msrp::ClassLatency> State::Codec<Msrp::ClassLatency>::decode(const Value& v) {
    if (v.object() == nullptr) return std::nullopt;
    Msrp::ClassLatency latency;
    for (const auto& [srClass, value] : *v.object()) {
        const auto nanoseconds = Codec<std::uint32_t>::decode(value);
        if (!nanoseconds || (srClass != "A" && srClass != "B")) return std::nullopt;
        (srClass == "A" ? latency.a : latency.b) = *nanoseconds;
    }
    return latency;
}

template class State::Record<Msrp::Config>;
template class State::Record<Msrp::CliConfig>;
