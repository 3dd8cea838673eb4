#include "Control/Peer.h"

#include "Runtime/Text.h"

#include <sys/socket.h>

namespace Control {

Peer Peer::at(const Runtime::FileDescriptor& socket) {
    ucred who{};
    socklen_t length = sizeof who;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &who, &length) != 0) return {};
    return {.process = who.pid, .user = who.uid};
}

std::string Peer::text() const {
    if (user == nobodyKnown) return "an unknown user";
    return Runtime::concat("user ", user, ", process ", process);
}

}  // namespace Control
