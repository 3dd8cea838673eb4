/// Finds out what the kernel can do and the process may do, without touching anything that is in use.
#pragma once

#include "Linux/records/CapabilityStatus.h"
#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Linux {

/// Tries everything in a network namespace of a child process, which vanishes with it.  Kernel modules that
/// are needed get loaded.  Takes some milliseconds.  All is unknown where this process may not make a
/// namespace, not even one that belongs to a user namespace: then the first real request tells.
Abilities probeAbilities();

/// The same while a loop runs, which it does not hold up.
class AbilityProbe {
public:
    /// `found` gets the result from the loop, which must outlive the probe.
    AbilityProbe(Runtime::FdLoop& loop, std::function<void(const Abilities& abilities)> found);
    AbilityProbe(const AbilityProbe&) = delete;
    AbilityProbe& operator=(const AbilityProbe&) = delete;
    ~AbilityProbe();

    /// Nothing while one is under way.
    void start();

private:
    void hear();

    Runtime::FdLoop& loop_;
    const std::function<void(const Abilities&)> found_;
    pid_t child_ = 0;  ///< 0: none is under way
    Runtime::FileDescriptor answer_;
    Abilities abilities_;
    Runtime::FdLoop::Watch watch_;
};

/// What is not possible on this machine, a line for each ability that is absent.
std::vector<std::string> limitations(const Abilities& abilities);

/// Empty when packet sockets can be opened, else a line that says why not and what would help.
std::string packetSocketProblem();
/// The same for changes of bridges and queues.
std::string netAdminProblem();

}  // namespace Linux
