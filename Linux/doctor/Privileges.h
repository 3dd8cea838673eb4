/// What the process may do on this machine.
#pragma once

#include <string>

namespace Linux {

/// Empty when packet sockets can be opened, else a line that says why not and what would help.
std::string packetSocketProblem();
/// The same for changes of bridges and queues.
std::string netAdminProblem();

}  // namespace Linux
