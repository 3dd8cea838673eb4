#include "Linux/time/TimeAgent.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Linux {

namespace {

/// Messages that are read in one turn of the loop; a bridge has some thousand ports at most, and asks three
/// things of each.
constexpr int messagesAtOnce = 64;
constexpr std::size_t mostPorts = 4096;
/// Rounds after which the notices are ordered anew, and the seconds for which they are ordered.
constexpr unsigned roundsPerOrder = 30;
constexpr std::uint16_t orderSeconds = 90;

std::optional<sockaddr_un> unixAddress(const std::string& path) {
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof to.sun_path) return std::nullopt;
    path.copy(to.sun_path, path.size());
    return to;
}

/// Who sent it, as the kernel says; nothing where it does not.
std::optional<uid_t> senderOf(msghdr& message) {
    const cmsghdr* first = CMSG_FIRSTHDR(&message);
    if (first == nullptr || first->cmsg_level != SOL_SOCKET || first->cmsg_type != SCM_CREDENTIALS)
        return std::nullopt;
    ucred sender{};
    std::memcpy(&sender, CMSG_DATA(first), sizeof sender);
    return sender.uid;
}

/// A socket that an earlier life has left.
void removeSocket(const std::string& path) {
    struct stat about {};
    if (::lstat(path.c_str(), &about) == 0 && S_ISSOCK(about.st_mode)) ::unlink(path.c_str());
}

}  // namespace

TimeAgent::TimeAgent(Runtime::FdLoop& loop, std::shared_ptr<Switch::TimeStatus> status, Said said,
                     std::string own)
    : loop_{loop},
      status_{std::move(status)},
      said_{std::move(said)},
      own_{std::move(own)},
      next_{loop, [this] { ask(); }} {}

TimeAgent::~TimeAgent() {
    watch_ = {};
    if (fd_ && !own_.empty()) removeSocket(own_);
}

std::string TimeAgent::start(const std::string& server, Pace pace) {
    pace_ = pace;
    status_->askedIs(true);
    server_ = server;
    serverName_ = server;
    asker_.number = static_cast<std::uint16_t>(::getpid());
    const auto here = own_.empty() ? sockaddr_un{AF_UNIX, {}} : unixAddress(own_);
    if (!here || !unixAddress(server))
        return Runtime::concat(here ? server : own_, ": the path is empty or too long for a socket");
    const socklen_t length = own_.empty() ? sizeof here->sun_family : sizeof *here;
    fd_ = Runtime::FileDescriptor{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!own_.empty()) removeSocket(own_);
    if (!fd_ || ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&*here), length) != 0) {
        const int error = errno;
        fd_ = {};
        return Runtime::concat(own_, ": ", std::generic_category().message(error));
    }
    // Whoever runs ptp4l must be able to answer; who else writes is not listened to.
    if (!own_.empty()) ::chmod(own_.c_str(), 0666);
    constexpr int wanted = 1;
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_PASSCRED, &wanted, sizeof wanted);
    watch_ = loop_.watch(fd_.get(), Runtime::FdLoop::Ready::readable, [this] { hear(); });
    heard_ = loop_.now();
    ask();
    return {};
}

bool TimeAgent::send(const std::vector<std::uint8_t>& message) {
    const auto to = unixAddress(server_);
    return ::sendto(fd_.get(), message.data(), message.size(), MSG_DONTWAIT,
                    reinterpret_cast<const sockaddr*>(&*to), sizeof *to) >= 0;
}

void TimeAgent::ask() {
    next_.armIn(pace_.period);
    // Who is marked otherwise does not answer at all.
    if (!answers_.value_or(false) && rounds_ % 2 == 1) asker_.transport ^= 1;
    if (rounds_ % roundsPerOrder == 0 || !answers_.value_or(false))
        send(ptpSubscribe(asker_, ++sequence_, orderSeconds));
    ++rounds_;
    for (const PtpData what : {PtpData::interface, PtpData::portState, PtpData::capable})
        send(ptpGet(what, asker_, ++sequence_));
    publish();
}

void TimeAgent::hear() {
    std::array<std::uint8_t, 1024> message{};
    for (int i = 0; i < messagesAtOnce; ++i) {
        sockaddr_un from{};
        iovec part{message.data(), message.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> beside{};
        msghdr received{};
        received.msg_name = &from;
        received.msg_namelen = sizeof from;
        received.msg_iov = &part;
        received.msg_iovlen = 1;
        received.msg_control = beside.data();
        received.msg_controllen = beside.size();
        const ssize_t octets = ::recvmsg(fd_.get(), &received, MSG_CMSG_CLOEXEC);
        if (octets < 0) break;
        from.sun_path[sizeof from.sun_path - 1] = '\0';
        if (!isServer(senderOf(received), from.sun_path)) continue;
        if (const auto answer = decodePtp(std::span{message}.first(static_cast<std::size_t>(octets))))
            take(*answer);
    }
    publish();
}

bool TimeAgent::isServer(std::optional<uid_t> user, const std::string& path) {
    struct stat asked {};
    if (!user || ::stat(server_.c_str(), &asked) != 0) return false;
    // A name alone proves nothing: anybody can make a link to the socket that is asked.
    if (*user != 0 && *user != asked.st_uid) return false;
    if (path == serverName_) return true;
    // It may have bound the same socket by another name: /run for /var/run.
    struct stat named {};
    if (::stat(path.c_str(), &named) != 0 || named.st_dev != asked.st_dev || named.st_ino != asked.st_ino)
        return false;
    serverName_ = path;
    return true;
}

void TimeAgent::take(const PtpAnswer& answer) {
    heard_ = loop_.now();
    if (ports_.size() == mostPorts && !ports_.contains(answer.port)) return;
    Port& port = ports_[answer.port];
    if (answer.interface && port.interface != *answer.interface) {
        // It was started anew, with other ports: each interface has one number.
        std::erase_if(ports_, [&](const auto& held) {
            return held.first != answer.port && held.second.interface == *answer.interface;
        });
        port = {};
        port.interface = *answer.interface;
    }
    if (answer.state) port.state = answer.state;
    if (!answer.capable) return;
    port.capable = answer.capable;
    port.heard = heard_;
}

void TimeAgent::publish() {
    const Runtime::Time now = loop_.now();
    const bool answers = !ports_.empty() && now - heard_ < pace_.believed;
    const bool silent = now - heard_ >= pace_.believed;
    if ((answers || silent) && answers_ != answers) {
        answers_ = answers;
        said_(answers, Runtime::concat("the ptp4l at ", server_,
                                       answers ? " tells the time state of ports"
                                               : " does not answer, so no port is capable of common time"));
    }
    if (silent) ports_.clear();
    std::set<IntfId> there;
    for (const auto& [number, port] : ports_) {
        if (!IntfId::validName(port.interface) || !port.capable || !port.state) continue;
        const IntfId intf{port.interface};
        there.insert(intf);
        const bool runs = ptpStateRuns(*port.state);
        const bool fresh = now - port.heard < pace_.believed;
        const std::string state = fresh && runs && !*port.capable ? "not capable"
                                  : fresh                         ? ptpStateName(*port.state)
                                                                  : "silent";
        status_->portIs(intf, fresh && runs && *port.capable, state);
    }
    const auto& known = status_->port();
    for (auto intf = known.firstKey(); intf; intf = known.nextKey(*intf)) {
        if (!there.contains(*intf)) status_->portDel(*intf);
    }
}

}  // namespace Linux
