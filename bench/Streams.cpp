#include "bench/Streams.h"

#include "Mrp/PduWriter.h"
#include "Msrp/types/Attributes.h"

#include <algorithm>

namespace Bench {

namespace {

// Odd numbers: multiples of them meet no other one before all numbers of their width have been.
constexpr std::uint64_t idStride = 0x9E37'79B9'7F4A'7C15;
constexpr std::uint64_t addressStride = 0x9E'3779;

constexpr std::uint64_t firstId = 0x0200'0000'0001'0000;
constexpr std::uint64_t firstAddress = 0x91'E0'F0'00'00'00;
constexpr std::uint64_t addresses = 0x100'0000;

EthAddr address(std::size_t number, Spacing spacing) {
    const std::uint64_t offset = spacing == Spacing::consecutive ? number : number * addressStride;
    return EthAddr::fromNumber(firstAddress + offset % addresses);
}

Msrp::MsrpTalkerAdvertiseAttribute advertise(std::size_t number, Spacing spacing) {
    Msrp::MsrpTalkerAdvertiseAttribute attribute;
    attribute.streamIdIs(streamId(number, spacing));
    attribute.macDaIs(address(number, spacing));
    attribute.vlanIdIs(2);
    attribute.maxFrameSizeIs(64);
    attribute.maxIntervalFramesIs(1);
    attribute.priorityAndRankIs(Msrp::PriorityAndRank::create(3, 1));
    return attribute;
}

template <class Attribute>
Mrp::AttributeValue wire(const Attribute& attribute) {
    Mrp::AttributeValue out;
    std::ranges::copy(attribute.octets(), out.octets.begin());
    return out;
}

}  // namespace

std::uint64_t streamId(std::size_t number, Spacing spacing) {
    return spacing == Spacing::consecutive ? firstId + number : firstId + number * idStride;
}

Mrp::AttributeValue value(std::uint8_t type, std::size_t number, Spacing spacing) {
    switch (type) {
        case Msrp::typeTalkerAdvertise:
            return wire(advertise(number, spacing));
        case Msrp::typeTalkerFailed:
            return wire(Msrp::MsrpTalkerFailedAttribute{advertise(number, spacing), 0x8000'0200'0000'0099,
                                                        Msrp::TalkerFailureCode::insufficientBandwidth});
        case Msrp::typeListener: {
            auto out =
                wire(Msrp::MsrpListenerAttribute{streamId(number, spacing), Msrp::ListenerState::Ready});
            out.declaration = static_cast<std::uint8_t>(Msrp::ListenerState::Ready);
            return out;
        }
        default: {
            const auto low = static_cast<std::uint8_t>(number);
            const auto srClass = static_cast<std::uint8_t>(low + 5);
            const auto priority =
                static_cast<std::uint8_t>(spacing == Spacing::consecutive ? low + 2 : 255 - low);
            return wire(Msrp::MsrpDomainAttribute{Msrp::SrClassId{srClass}, priority, 2});
        }
    }
}

std::size_t leastFrames(std::uint8_t type, std::size_t count, Spacing spacing) {
    const Mrp::AttributeType& t = Msrp::application().types[type - 1U];
    // Version, message header, two end marks; and a vector's header and first value.
    constexpr std::size_t room = Mrp::maxPduLength - 1 - 4 - 2 - 2;
    const std::size_t vector = 2U + t.valueLength;
    std::size_t values = 0;
    if (spacing == Spacing::scattered) {
        values = room / (vector + 1 + (t.fourPacked ? 1 : 0));
    } else {
        const auto octets = [&](std::size_t n) {
            return vector + (n + 2) / 3 + (t.fourPacked ? (n + 3) / 4 : 0);
        };
        while (octets(values + 1) <= room) ++values;
    }
    return (count + values - 1) / values;
}

std::vector<Sim::Pdu> events(std::uint8_t type, Mrp::Event event, std::size_t first, std::size_t count,
                             Spacing spacing) {
    const auto typeIndex = static_cast<std::uint8_t>(type - 1);
    std::vector<Sim::Pdu> pdus;
    Mrp::PduWriter writer{Msrp::application(), false};
    const auto finish = [&] {
        const auto octets = writer.finish();
        pdus.emplace_back(octets.begin(), octets.end());
    };
    for (std::size_t number = first; number < first + count; ++number) {
        const Mrp::AttributeValue next = value(type, number, spacing);
        if (writer.add(typeIndex, event, next)) continue;
        finish();
        writer = Mrp::PduWriter{Msrp::application(), false};
        writer.add(typeIndex, event, next);
    }
    if (!writer.empty()) finish();
    return pdus;
}

}  // namespace Bench
