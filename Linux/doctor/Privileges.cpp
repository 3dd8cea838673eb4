#include "Linux/doctor/Privileges.h"

#include "Linux/groups/GroupMessage.h"
#include "Linux/kernel/Netlink.h"
#include "Runtime/FileDescriptor.h"

#include <cerrno>
#include <sys/socket.h>
#include <system_error>

namespace Linux {

std::string packetSocketProblem() {
    const Runtime::FileDescriptor probe{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};
    if (probe) return {};
    const int error = errno;
    std::string text = "cannot open packet sockets: " + std::generic_category().message(error);
    if (error == EPERM) text += " (run as root or with CAP_NET_RAW and CAP_NET_ADMIN)";
    if (error == EAFNOSUPPORT) text += " (the kernel lacks CONFIG_PACKET)";
    return text;
}

std::string netAdminProblem() {
    NetlinkRequests kernel;
    std::string problem = kernel.open();
    if (!problem.empty()) return problem;
    // Of no bridge: whoever may ask at all is told so.
    const NetlinkAnswer answer = kernel.carryOut(groupDelete(0, {}));
    if (answer.error != EPERM) return {};
    return "cannot change the bridge: " + answer.problem() + " (run as root or with CAP_NET_ADMIN)";
}

}  // namespace Linux
