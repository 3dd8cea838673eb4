#include "Store/Files.h"

#include "Control/SystemProblem.h"
#include "Runtime/FileDescriptor.h"
#include "Runtime/Text.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>

namespace Store {

using Runtime::concat;

namespace {
constexpr std::size_t longestPassword = 4096;
}  // namespace

std::string notPlain(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return concat("file ", path, ": ", Control::systemProblem(errno));
    return S_ISREG(status.st_mode) ? "" : concat("file ", path, ": not a plain file");
}

std::string readPassword(const std::string& path, std::string& password) {
    if (std::string problem = notPlain(path); !problem.empty()) return problem;
    const Runtime::FileDescriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    if (!file) return concat("file ", path, ": ", Control::systemProblem(errno));
    std::string text(longestPassword + 2, '\0');
    const ssize_t count = ::read(file.get(), text.data(), text.size());
    if (count < 0) return concat("file ", path, ": ", Control::systemProblem(errno));
    text.resize(static_cast<std::size_t>(count));
    while (text.ends_with('\n') || text.ends_with('\r')) text.pop_back();
    if (text.empty()) return concat("file ", path, ": no password is in it");
    if (text.size() > longestPassword)
        return concat("file ", path, ": a password of more than ", longestPassword, " octets");
    password = std::move(text);
    return {};
}

std::string fileStamp(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return {};
    return concat(status.st_dev, ' ', status.st_ino, ' ', status.st_size, ' ', status.st_ctim.tv_sec, ' ',
                  status.st_ctim.tv_nsec);
}

}  // namespace Store
