/// What must hold of every MRPDU that is sent.
#pragma once

#include "Mrp/Decoder.h"
#include "Mrp/PduWriter.h"
#include "Msrp/types/Attributes.h"
#include "fuzz/Check.h"

#include <span>

namespace Fuzz {

/// The PDU fits into a frame and says something, in a form that has no flaw and that ends with its EndMark;
/// what it says is returned.
inline Mrp::DecodedPdu checkSent(std::span<const std::uint8_t> pdu) {
    check(pdu.size() <= Mrp::maxPduLength, "a PDU of ", pdu.size(), " octets was sent");
    check(pdu.size() > 3 && pdu.front() == Msrp::application().protocolVersion, "no PDU of ours was sent");
    check(pdu.back() == 0 && pdu[pdu.size() - 2] == 0, "a PDU without an EndMark was sent");
    Mrp::DecodedPdu decoded;
    Mrp::decode(pdu, Msrp::application(), decoded);
    for (const Mrp::Flaw& flaw : decoded.flaws)
        check(false, "a PDU was sent with a flaw: ", Mrp::describe(flaw.reason), " at octet ", flaw.offset);
    check(decoded.leaveAll.any() || !decoded.events.empty(), "a PDU that says nothing was sent");
    return decoded;
}

}  // namespace Fuzz
