/// A server at a Unix socket that says what the test tells it to: to each connection first a greeting, and
/// then an answer to each piece of octets that comes.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"
#include "tests/control/TemporaryDirectory.h"

#include <algorithm>
#include <cstddef>
#include <gtest/gtest.h>
#include <list>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <utility>
#include <vector>

struct Script {
    std::string greeting{};
    std::vector<std::string> answers{};  ///< the last one again and again
    bool closes = false;                 ///< after the greeting, or else after the last answer
};

class ScriptedServer {
public:
    ScriptedServer(Runtime::FdLoop& loop, const TemporaryDirectory& directory, const std::string& name,
                   Script script)
        : address{"unix:" + directory.file(name)},
          loop_{loop},
          script_{std::move(script)},
          listening_{directory.boundSocket(name, SOCK_STREAM | SOCK_CLOEXEC)} {
        EXPECT_EQ(::listen(listening_.get(), 8), 0);
        watch_ = loop.watch(listening_.get(), Runtime::FdLoop::Ready::readable, [this] { accept(); });
    }

    const std::string address;
    int accepted = 0;

private:
    struct Peer {
        Runtime::FileDescriptor fd{};
        std::size_t heard = 0;
        Runtime::FdLoop::Watch watch{};
    };

    void accept() {
        Peer& peer = peers_.emplace_back();
        peer.fd = Runtime::FileDescriptor{::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC)};
        ++accepted;
        say(peer, script_.greeting);
        if (script_.closes && script_.answers.empty()) return peer.fd.close();
        peer.watch =
            loop_.watch(peer.fd.get(), Runtime::FdLoop::Ready::readable, [this, &peer] { hear(peer); });
    }
    void hear(Peer& peer) {
        char piece[65536];
        const bool ended = ::recv(peer.fd.get(), piece, sizeof piece, MSG_DONTWAIT) <= 0;
        if (!ended && !script_.answers.empty()) {
            say(peer, script_.answers[std::min(peer.heard, script_.answers.size() - 1)]);
            ++peer.heard;
        }
        if (!ended && !(script_.closes && peer.heard >= script_.answers.size())) return;
        peer.watch = {};
        peer.fd.close();
    }
    static void say(const Peer& peer, std::string_view text) {
        ::send(peer.fd.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    Runtime::FdLoop& loop_;
    const Script script_;
    Runtime::FileDescriptor listening_;
    std::list<Peer> peers_;
    Runtime::FdLoop::Watch watch_;
};
