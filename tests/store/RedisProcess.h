/// A real server of Redis or Sentinel for one test; it ends with this object, and also if the test crashes.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "tests/control/TemporaryDirectory.h"

#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

class RedisProcess {
public:
    /// Returns when it has written `ready`.
    explicit RedisProcess(std::vector<std::string> command, std::string_view ready = "eady to accept") {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        output_ = Runtime::FileDescriptor{ends[0]};
        Runtime::FileDescriptor input{ends[1]};
        std::vector<char*> words;
        for (std::string& word : command) words.push_back(word.data());
        words.push_back(nullptr);
        process_ = ::fork();
        if (process_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(input.get(), STDOUT_FILENO);
            ::dup2(input.get(), STDERR_FILENO);
            ::execvp(words[0], words.data());
            ::_exit(127);
        }
        input.close();
        await(ready);
    }
    RedisProcess(const RedisProcess&) = delete;
    RedisProcess& operator=(const RedisProcess&) = delete;
    ~RedisProcess() { kill(); }

    void signal(int number) const { ::kill(process_, number); }
    void kill() {
        if (process_ <= 0) return;
        signal(SIGKILL);
        ::waitpid(process_, nullptr, 0);
        process_ = -1;
    }
    /// Until it has written that.
    void await(std::string_view words) {
        while (written_.find(words) == std::string::npos) {
            pollfd ready{output_.get(), POLLIN, 0};
            char piece[4096];
            const ssize_t count =
                ::poll(&ready, 1, 20'000) == 1 ? ::read(output_.get(), piece, sizeof piece) : 0;
            ASSERT_GT(count, 0) << "no \"" << words << "\" in " << written_;
            written_.append(piece, static_cast<std::size_t>(count));
        }
    }

private:
    Runtime::FileDescriptor output_;
    std::string written_;
    pid_t process_ = -1;
};

/// A server that keeps nothing on the disk but what replicas need, in that directory.
inline std::vector<std::string> redisServer(const TemporaryDirectory& directory,
                                            const std::vector<std::string>& options) {
    std::vector<std::string> command{"redis-server", "--save",          "", "--appendonly", "no",
                                     "--dir",        directory.file("")};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

/// Of 127.0.0.1, free a moment ago.
inline std::string freePort() {
    const Runtime::FileDescriptor fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof at;
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&at), length), 0);
    EXPECT_EQ(::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&at), &length), 0);
    return std::to_string(ntohs(at.sin_port));
}
