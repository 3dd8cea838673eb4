/// What one attribute costs on its way out of and into an MRPDU.  Each PDU is as full as it gets.
#include "Mrp/Decoder.h"
#include "Mrp/PduWriter.h"
#include "Msrp/types/Attributes.h"
#include "bench/Streams.h"

#include <string>

namespace {

using Bench::Spacing;

/// The values that one PDU holds.
std::vector<Mrp::AttributeValue> onePdu(std::uint8_t type, Spacing spacing) {
    const std::size_t most = type == Msrp::typeDomain ? Bench::domains : Mrp::maxPduLength * 3;
    std::vector<Mrp::AttributeValue> values;
    Mrp::PduWriter writer{Msrp::application(), false};
    while (values.size() < most) {
        values.push_back(Bench::value(type, values.size(), spacing));
        if (writer.add(static_cast<std::uint8_t>(type - 1), Mrp::Event::JoinIn, values.back())) continue;
        values.pop_back();
        break;
    }
    return values;
}

void encode(benchmark::State& state, std::uint8_t type, Spacing spacing) {
    const auto values = onePdu(type, spacing);
    for ([[maybe_unused]] auto turn : state) {
        Mrp::PduWriter writer{Msrp::application(), false};
        for (const Mrp::AttributeValue& value : values)
            writer.add(static_cast<std::uint8_t>(type - 1), Mrp::Event::JoinIn, value);
        benchmark::DoNotOptimize(writer.finish().data());
    }
    state.counters["perPdu"] = static_cast<double>(values.size());
    state.counters["perAttribute"] = Bench::timeEach(values.size());
}

void decode(benchmark::State& state, std::uint8_t type, Spacing spacing) {
    const std::size_t count = onePdu(type, spacing).size();
    const auto pdus = Bench::join(type, 0, count, spacing);
    Mrp::DecodedPdu out;
    for ([[maybe_unused]] auto turn : state) {
        Mrp::decode(pdus.front(), Msrp::application(), out);
        for (const Mrp::DecodedEvent& event : out.events) benchmark::DoNotOptimize(event.value.octets.data());
    }
    if (pdus.size() != 1 || out.events.size() != count || !out.flaws.empty())
        state.SkipWithError("the PDU is not read as it was written");
    state.counters["perPdu"] = static_cast<double>(count);
    state.counters["perAttribute"] = Bench::timeEach(count);
}

[[maybe_unused]] const bool codecBenches = [] {
    struct Named {
        const char* name;
        std::uint8_t type;
    };
    for (const Named& kind :
         {Named{"TalkerAdvertise", Msrp::typeTalkerAdvertise}, Named{"TalkerFailed", Msrp::typeTalkerFailed},
          Named{"Listener", Msrp::typeListener}, Named{"Domain", Msrp::typeDomain}}) {
        for (const Spacing spacing : {Spacing::consecutive, Spacing::scattered}) {
            const std::string name =
                std::string{"/"} + kind.name + (spacing == Spacing::consecutive ? "/packed" : "/scattered");
            benchmark::RegisterBenchmark(("Decode" + name).c_str(), decode, kind.type, spacing);
            benchmark::RegisterBenchmark(("Encode" + name).c_str(), encode, kind.type, spacing);
        }
    }
    return true;
}();

}  // namespace
