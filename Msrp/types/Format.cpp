#include "Msrp/types/Format.h"

#include <cstdio>

namespace Msrp {

bool isAvbEthAddr(const EthAddr& address) { return address.number() >> 24 == 0x91e0f0; }

std::string hexStr(U64 id) {
    char digits[17];
    std::snprintf(digits, sizeof digits, "%llX", static_cast<unsigned long long>(id));
    return digits;
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
