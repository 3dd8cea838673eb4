/// MRPDUs made of a fuzz input: octets as they come, well-formed ones about a few streams, and broken ones.
#pragma once

#include "Sim/Peer.h"
#include "fuzz/Input.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace Fuzz {

/// A stream: nearly always one of a few, so that what is said about them meets.
inline std::uint64_t streamId(Input& in) {
    const std::uint8_t number = in.u8();
    if (number < 0xf0) return number % 32U;
    // The ends of the range and where the unique id wraps.
    constexpr std::uint64_t odd[] = {0xffff, 0xffff'ffff'ffff'fffe, 0xffff'ffff'ffff'ffff,
                                     0x0200'0000'0001'fffe};
    return odd[number % 4];
}

/// A talker as its stream's number makes it; one octet may have it stray.
inline Sim::Talker talker(Input& in) {
    Sim::Talker t{.id = streamId(in)};
    t.macDa = 0x91e0f0000000 + (t.id & 0xffff);
    if (t.id % 4 == 0) t.priority = 2;
    const std::size_t stray = in.pick(24);
    if (stray == 1) t.macDa = 0x91e0f0000000 + in.u8();
    if (stray == 2) t.macDa = 0x0200'0000'0001;  // no multicast address
    if (stray == 3) t.macDa = 0x91e0'f100'0000;  // not for streams
    if (stray == 4) t.vlan = in.u16();
    if (stray == 5) t.maxFrameSize = in.u16();
    if (stray == 6) t.frames = in.u16();
    if (stray == 7) t.priority = in.u8();
    if (stray == 8) t.rank = 0;
    if (stray == 9) t.latency = in.u8();
    if (stray == 10) t.maxFrameSize = 1500, t.frames = 5;  // fills a port with a few of them
    return t;
}

/// One event about one attribute.
inline Sim::Say say(Input& in) {
    const std::uint8_t what = in.u8();
    const auto event = static_cast<Mrp::Event>(what / 4 % 6);
    if (what % 4 == 0) return Sim::advertise(talker(in), event);
    if (what % 4 == 2)
        return Sim::listener(streamId(in), static_cast<Msrp::ListenerState>(what / 24 % 4), event);
    if (what % 4 == 1) {
        const std::uint8_t code = in.u8();
        return Sim::failed(talker(in), code, 0x8000'0200'0000'0090 + code % 4U, event);
    }
    const std::uint8_t number = in.u8();
    const auto srClass = static_cast<Msrp::SrClassId>(number < 64 ? 6 : number < 128 ? 5 : number);
    const std::uint8_t priority = in.u8();
    const int usual = srClass == Msrp::SrClassId::SrClassA ? 3 : 2;
    return Sim::domain(srClass, static_cast<std::uint8_t>(priority < 128 ? usual : priority % 8), event);
}

/// A PDU as a correct sender writes it.
inline Sim::Pdu saidFrame(Input& in) {
    const std::uint8_t header = in.u8();
    std::vector<Sim::Say> events;
    for (int left = header % 16; left >= 0; --left) events.push_back(say(in));
    return Sim::pdusOf(std::move(events), header >= 192).front();
}

/// One message whose lengths and numbers may be those of another; long vectors take few octets of input.
inline void craftMessage(Input& in, Sim::Pdu& out) {
    const auto put16 = [&out](std::size_t at, std::size_t value) {
        out.resize(std::max(out.size(), at + 2));
        out[at] = static_cast<std::uint8_t>(value >> 8);
        out[at + 1] = static_cast<std::uint8_t>(value);
    };
    const Sim::Say first = say(in);
    const std::uint8_t twist = in.u8();
    out.push_back(twist == 1 ? in.u8() : first.type);
    out.push_back(twist == 2 ? in.u8() : static_cast<std::uint8_t>(first.value.size()));
    const std::size_t list = out.size() + 2;
    const std::size_t values = in.pick(64);
    const std::size_t leaveAll = twist < 64 ? 0 : twist < 192 ? 1 : twist % 8;
    put16(list, (twist == 3 ? in.u16() : values) + 8192 * leaveAll);
    if (values > 0 || twist != 4) out.insert(out.end(), first.value.begin(), first.value.end());
    const std::uint8_t events = in.u8();
    for (std::size_t i = 0; i < (values + 2) / 3; ++i)
        out.push_back(events < 216 ? events : in.u8());  // the same three again and again, or each its own
    if (first.type == Msrp::typeListener) out.insert(out.end(), (values + 3) / 4, in.u8());
    if (twist != 5) put16(out.size(), 0);
    put16(list - 2, twist == 6 ? in.u16() : out.size() - list);
}

inline Sim::Pdu craftedFrame(Input& in) {
    Sim::Pdu out{0};
    const std::uint8_t header = in.u8();
    if (header >= 0xf0) out[0] = in.u8();
    for (int left = header % 4; left >= 0; --left) craftMessage(in, out);
    if (header % 8 < 6) out.insert(out.end(), 2, std::uint8_t{0});
    return out;
}

/// Changes some octets, takes some out or puts some in.
inline void breakFrame(Input& in, Sim::Pdu& pdu) {
    for (std::size_t left = in.pick(4); left > 0 && !pdu.empty(); --left) {
        const auto at = pdu.begin() + static_cast<std::ptrdiff_t>(in.u16() % pdu.size());
        const std::size_t how = in.pick(4);
        if (how == 0) *at = in.u8();
        if (how == 1) *at = static_cast<std::uint8_t>(*at ^ 1U << in.pick(8));
        if (how == 2) pdu.erase(at, at + std::min<std::ptrdiff_t>(pdu.end() - at, 1 + in.u8() % 64));
        if (how == 3) pdu.insert(at, 1 + in.pick(64), in.u8());
    }
}

/// Any PDU; seldom more than some hundred octets, which is what keeps the work for one input small.
inline Sim::Pdu frame(Input& in) {
    const std::uint8_t kind = in.u8();
    const auto octets = in.bytes(kind % 4 == 0 ? in.u8() : 0);
    Sim::Pdu pdu{octets.begin(), octets.end()};
    if (kind % 4 == 1) pdu = craftedFrame(in);
    if (kind % 4 > 1) pdu = saidFrame(in);
    if (kind >= 128) breakFrame(in, pdu);
    if (pdu.size() > Mrp::maxPduLength) pdu.resize(Mrp::maxPduLength);
    return pdu;
}

}  // namespace Fuzz
