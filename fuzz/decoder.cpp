/// Any octets into the decoder: what comes out is what an MRPDU can say, and survives being written again.
#include "Mrp/Decoder.h"

#include "Sim/Peer.h"
#include "fuzz/Check.h"
#include "fuzz/Sent.h"

#include <algorithm>
#include <vector>

namespace Fuzz {
namespace {

using Octets = std::span<const std::uint8_t>;

Mrp::DecodedPdu decoded(Octets pdu) {
    Mrp::DecodedPdu out;
    Mrp::decode(pdu, Msrp::application(), out);
    return out;
}

/// Events inside their types, flaws inside the PDU, and no more work than the octets account for.
void checkRanges(Octets pdu, const Mrp::DecodedPdu& out) {
    const auto types = Msrp::application().types;
    check(out.events.size() <= 3 * pdu.size(), out.events.size(), " events in ", pdu.size(), " octets");
    for (const Mrp::DecodedEvent& event : out.events) {
        check(event.typeIndex < types.size(), "an event of no type");
        const Mrp::AttributeType& type = types[event.typeIndex];
        check(event.event <= Mrp::Event::Lv, "an event that no PDU can carry");
        check(event.value.declaration <= (type.fourPacked ? 3 : 0), "a declaration out of range");
        check(std::all_of(event.value.octets.begin() + type.valueLength, event.value.octets.end(),
                          [](std::uint8_t octet) { return octet == 0; }),
              "a value longer than its type's");
    }
    check((out.leaveAll >> types.size()).none(), "a LeaveAll of no type");
    for (const Mrp::Flaw& flaw : out.flaws)
        check(flaw.offset <= pdu.size(), "a flaw at octet ", flaw.offset, " of ", pdu.size());
}

/// An error undoes nothing of what came before it: the events of a cut PDU are the first ones of the whole.
void checkCut(Octets pdu, const Mrp::DecodedPdu& whole) {
    if (pdu.empty()) return;
    const std::size_t length = pdu[pdu.size() / 2] * std::size_t{31} % pdu.size();
    // A copy of just its size: reading past its end is then seen.
    const std::vector<std::uint8_t> cut{pdu.begin(), pdu.begin() + static_cast<std::ptrdiff_t>(length)};
    const Mrp::DecodedPdu part = decoded(cut);
    checkRanges(cut, part);
    check(part.events.size() <= whole.events.size() &&
              std::equal(part.events.begin(), part.events.end(), whole.events.begin()),
          "a PDU cut to ", length, " octets says something else");
    check((part.leaveAll & ~whole.leaveAll).none(), "a PDU cut to ", length, " octets has more LeaveAlls");
}

/// Writing what was read and reading it again gives the same.
void checkWritten(const Mrp::DecodedPdu& read) {
    const bool leaveAll = read.leaveAll.any();
    if (read.events.empty() && !leaveAll) return;
    std::vector<Mrp::DecodedEvent> events{read.events.begin(), read.events.end()};
    std::ranges::stable_sort(events, {}, &Mrp::DecodedEvent::typeIndex);
    std::vector<Sim::Say> said;
    for (const auto& [typeIndex, event, value] : events) {
        const Mrp::AttributeType& type = Msrp::application().types[typeIndex];
        const auto octets = std::span{value.octets}.first(type.valueLength);
        said.push_back({event, type.type, {octets.begin(), octets.end()}, value.declaration});
    }
    const auto pdus = Sim::pdusOf(said, leaveAll);
    std::vector<Mrp::DecodedEvent> again;
    for (std::size_t i = 0; i < pdus.size(); ++i) {
        const Mrp::DecodedPdu part = checkSent(pdus[i]);
        const std::size_t leaveAlls = leaveAll && i == 0 ? Msrp::application().types.size() : 0;
        check(part.leaveAll.count() == leaveAlls, "a LeaveAll was lost or invented");
        again.insert(again.end(), part.events.begin(), part.events.end());
    }
    check(again == events, "events changed when they were written and read");
}

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Fuzz;
    const Octets pdu{data, size};
    const Mrp::DecodedPdu out = decoded(pdu);
    checkRanges(pdu, out);
    checkCut(pdu, out);
    checkWritten(out);
    return 0;
}
