/// The system call behind programs and tables in the kernel, for which the C library has no function.
#pragma once

#include <cstdint>
#include <cstring>
#include <linux/bpf.h>
#include <string>
#include <string_view>

namespace Linux {

/// With all octets zero, as the kernel demands of those that a command does not use.
inline bpf_attr bpfAttributes() {
    bpf_attr attributes;
    std::memset(&attributes, 0, sizeof attributes);
    return attributes;
}
inline std::uint64_t bpfAddress(const void* pointer) { return reinterpret_cast<std::uintptr_t>(pointer); }

/// Below 0 on an error, which `errno` tells.
long bpfCall(bpf_cmd command, bpf_attr& attributes);
/// "WHAT: Operation not permitted (run as root or with CAP_BPF)"
std::string bpfProblem(std::string_view what, int error);

}  // namespace Linux
