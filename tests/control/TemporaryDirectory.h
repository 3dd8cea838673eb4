/// A directory of one test, removed with all that is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "control-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() { std::filesystem::remove_all(path_); }

    [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream{file(name)} << content;
        return file(name);
    }
    /// A socket of that name, for its caller to close.
    [[nodiscard]] int boundSocket(const std::string& name, int kind) const {
        const int fd = ::socket(AF_UNIX, kind | SOCK_NONBLOCK, 0);
        sockaddr_un to{};
        to.sun_family = AF_UNIX;
        file(name).copy(to.sun_path, sizeof to.sun_path - 1);
        return ::bind(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0 ? fd : -1;
    }

private:
    std::string path_;
};
