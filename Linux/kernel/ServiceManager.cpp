#include "Linux/kernel/ServiceManager.h"

#include "Runtime/Text.h"
#include "State/Codec.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace Linux {

namespace {

constexpr std::string_view statusHead = "STATUS=";

std::string environmentText(const char* name) {
    const char* text = ::secure_getenv(name);
    return text != nullptr ? text : "";
}

}  // namespace

ServiceManager::Wishes ServiceManager::Wishes::fromEnvironment() {
    Wishes wishes{.socket = environmentText("NOTIFY_SOCKET")};
    const std::string process = environmentText("WATCHDOG_PID");
    constexpr auto longest =
        static_cast<std::uint64_t>(std::chrono::microseconds{std::chrono::hours{24}}.count());
    const auto microseconds = State::parseDecimal(environmentText("WATCHDOG_USEC"), longest);
    if (microseconds && (process.empty() || process == std::to_string(::getpid())))
        wishes.alive = std::chrono::microseconds{*microseconds};
    return wishes;
}

ServiceManager::ServiceManager(Runtime::FdLoop& loop, Wishes wishes)
    : loop_{loop}, wishes_{std::move(wishes)}, again_{loop, [this] { send(); }}, sign_{loop, [this] {
                                                                                           sendSign();
                                                                                       }} {
    if (wishes_.socket.empty()) return;
    socket_ = Runtime::FileDescriptor{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (wishes_.alive > Runtime::Duration{0}) sendSign();
}

void ServiceManager::ready() { tell("READY=1"); }

void ServiceManager::reloading() {
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(loop_.now().time_since_epoch());
    tell(Runtime::concat("RELOADING=1\nMONOTONIC_USEC=", now.count()));
}

void ServiceManager::stopping() { tell("STOPPING=1"); }

void ServiceManager::statusIs(const std::string& line) {
    if (line == status_) return;
    status_ = line;
    // An older one that waits is not worth its place.
    std::erase_if(unsent_, [](const std::string& message) { return message.starts_with(statusHead); });
    tell(Runtime::concat(statusHead, line));
}

void ServiceManager::tell(std::string message) {
    if (!socket_) return;
    if (unsent_.size() == mostUnsent) unsent_.pop_front();
    unsent_.push_back(std::move(message));
    send();
}

void ServiceManager::send() {
    while (!unsent_.empty() && sent(unsent_.front())) unsent_.pop_front();
    if (!unsent_.empty()) again_.armIn(again);
}

void ServiceManager::sendSign() {
    // One that is lost must not wait for the next one's time, which is past the limit.
    sign_.armIn(sent("WATCHDOG=1") ? wishes_.alive / 2 : std::min(again, wishes_.alive / 2));
}

bool ServiceManager::sent(std::string_view message) const {
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    if (wishes_.socket.size() >= sizeof to.sun_path) return true;
    std::memcpy(to.sun_path, wishes_.socket.data(), wishes_.socket.size());
    if (to.sun_path[0] == '@') to.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + wishes_.socket.size());
    const ssize_t count = ::sendto(socket_.get(), message.data(), message.size(), MSG_NOSIGNAL,
                                   reinterpret_cast<const sockaddr*>(&to), size);
    // Whoever is not there, or does not want it, will not want it later.
    return count >= 0 || (errno != EAGAIN && errno != ENOBUFS && errno != EINTR);
}

}  // namespace Linux
