/// How ids, classes and states are written in messages.
#pragma once

#include "Msrp/types/Enums.h"
#include "Switch/EthAddr.h"

#include <ostream>
#include <string>
#include <string_view>

namespace Msrp {

/// True for 91:e0:f0:00:00:00 to 91:e0:f0:ff:ff:ff, the range from which stream destinations come.
bool isAvbEthAddr(const EthAddr& address);

/// A stream or bridge id in upper-case hexadecimal without leading zeros and without "0x".
std::string hexStr(U64 id);

/// The same as a piece of a message that is put into text only if the message is written.
struct HexId {
    U64 id;
    [[nodiscard]] std::string text() const { return hexStr(id); }
};

/// "SrClassA" for class A, "SrClassB" for anything else.
std::string_view srClassName(SrClassId srClass);

/// "NotSupported" for that state, "WaitingForPeer" for every other: asked only about ports that are not core
/// ports.
std::string_view srState(SrClassState state);

/// The declaration that goes on the wire; `Ignore` for a value that is no declaration.
ListenerState getEventFromState(ListenerState state);

std::ostream& operator<<(std::ostream& out, ListenerState v);
std::ostream& operator<<(std::ostream& out, SrClassId v);
std::ostream& operator<<(std::ostream& out, SrClassState v);
std::ostream& operator<<(std::ostream& out, TalkerFailureCode v);
std::ostream& operator<<(std::ostream& out, TalkerState v);

}  // namespace Msrp
