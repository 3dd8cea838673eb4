#include "Msrp/types/Format.h"

#include <cstddef>

namespace Msrp {

bool isAvbEthAddr(const EthAddr& address) { return address.number() >> 24 == 0x91e0f0; }

std::string hexStr(U64 id) {
    char digits[16];
    std::size_t first = sizeof digits;
    do {
        digits[--first] = "0123456789ABCDEF"[id & 0xfU];
        id >>= 4U;
    } while (id != 0);
    return {digits + first, sizeof digits - first};
}

std::string_view srClassName(SrClassId srClass) {
    return srClass == SrClassId::SrClassA ? "SrClassA" : "SrClassB";
}

std::string_view srState(SrClassState state) {
    return state == SrClassState::NotSupported ? "NotSupported" : "WaitingForPeer";
}

ListenerState getEventFromState(ListenerState state) {
    return state <= ListenerState::ReadyFailed ? state : ListenerState::Ignore;
}

std::ostream& operator<<(std::ostream& out, ListenerState v) { return out << State::enumText(v); }
std::ostream& operator<<(std::ostream& out, SrClassId v) { return out << State::enumText(v); }
std::ostream& operator<<(std::ostream& out, SrClassState v) { return out << State::enumText(v); }
std::ostream& operator<<(std::ostream& out, TalkerFailureCode v) { return out << State::enumText(v); }
std::ostream& operator<<(std::ostream& out, TalkerState v) { return out << State::enumText(v); }

}  // namespace Msrp
