#include "Linux/Privileges.h"

#include "Linux/FileDescriptor.h"

#include <cerrno>
#include <sys/socket.h>
#include <system_error>

namespace Linux {

std::string packetSocketProblem() {
    const FileDescriptor probe{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};
    if (probe) return {};
    const int error = errno;
    std::string text = "cannot open packet sockets: " + std::generic_category().message(error);
    if (error == EPERM) text += " (run as root or with CAP_NET_RAW and CAP_NET_ADMIN)";
    if (error == EAFNOSUPPORT) text += " (the kernel lacks CONFIG_PACKET)";
    return text;
}

}  // namespace Linux
