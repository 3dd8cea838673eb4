/// A network of the benchmark's own, and processes at work in it.
#pragma once

#include "Runtime/FileDescriptor.h"

#include <functional>
#include <string>
#include <sys/types.h>

namespace Bench {

/// The process is in a fresh network namespace for as long as this lives.  The namespace vanishes when all
/// who were started in it have ended too.
class TestNetwork {
public:
    TestNetwork();
    TestNetwork(const TestNetwork&) = delete;
    TestNetwork& operator=(const TestNetwork&) = delete;
    ~TestNetwork();

    /// False when the process may not make one.
    [[nodiscard]] bool made() const { return made_; }
    /// Makes a cable with these two ends and sets it up; false when that fails.
    [[nodiscard]] static bool cable(const std::string& a, const std::string& b);

private:
    Runtime::FileDescriptor before_;
    bool made_ = false;
};

/// A child process that runs `work` and is killed with the end of this, or of its parent.
class Child {
public:
    explicit Child(const std::function<void()>& work);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

private:
    pid_t pid_;
};

/// A packet socket that hears and sends one EtherType on one interface.
class RawSocket {
public:
    RawSocket(const std::string& interface, std::uint16_t etherType);
    [[nodiscard]] int get() const { return fd_.get(); }

private:
    Runtime::FileDescriptor fd_;
};

}  // namespace Bench
