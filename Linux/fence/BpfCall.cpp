#include "Linux/fence/BpfCall.h"

#include "Runtime/Text.h"

#include <cerrno>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace Linux {

long bpfCall(bpf_cmd command, bpf_attr& attributes) {
    return syscall(SYS_bpf, command, &attributes, sizeof attributes);
}

std::string bpfProblem(std::string_view what, int error) {
    return Runtime::concat(what, ": ", std::generic_category().message(error),
                           error == EPERM ? " (run as root or with CAP_BPF)" : "");
}

}  // namespace Linux
