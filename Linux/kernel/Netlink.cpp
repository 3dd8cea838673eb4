#include "Linux/kernel/Netlink.h"

#include "Linux/kernel/NetlinkAttributes.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>

namespace Linux {

namespace {

/// More than the kernel puts into one datagram (32 KiB).
constexpr std::size_t bufferSize = 64 << 10;
/// Notifications that are taken in one turn of the loop.
constexpr int noticesPerTurn = 64;
/// The same for somebody who needs to know them all before acting; a few milliseconds' worth.
constexpr int noticesPerDrain = 2000;
/// A table that changes faster than this many dumps is left until its next notification.
constexpr int dumpAttempts = 5;
/// Requests that are sent at once; their answers must fit into the socket.
constexpr std::size_t requestsPerDatagram = 128;

std::string failed(std::string_view what, int error) {
    return Runtime::concat(what, ": ", std::generic_category().message(error));
}

/// What one receive gave.
struct Datagram {
    std::span<const std::byte> bytes;  ///< empty when there was none that counts
    int error = 0;
};

Datagram receive(const Runtime::FileDescriptor& fd, std::vector<std::byte>& buffer, int flags) {
    sockaddr_nl from{};
    iovec piece{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    const ssize_t length = recvmsg(fd.get(), &message, flags);
    if (length < 0) return {{}, errno};
    if ((message.msg_flags & MSG_TRUNC) != 0) return {{}, ENOBUFS};
    if (from.nl_pid != 0) return {};  // another process, not the kernel
    return {std::span{buffer}.first(static_cast<std::size_t>(length)), 0};
}

/// Calls `each` for the messages of a datagram until it returns false.
template <class F>
void eachMessage(std::span<const std::byte> datagram, F&& each) {
    int left = static_cast<int>(datagram.size());
    const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
    while (mnl_nlmsg_ok(message, left) && each(*message)) message = mnl_nlmsg_next(message, &left);
}

/// The kernel's explanation, which stands in attributes from `offset` of the payload on.
std::string_view explanation(const nlmsghdr& message, std::size_t offset) {
    if ((message.nlmsg_flags & NLM_F_ACK_TLVS) == 0) return {};
    std::string_view text;
    eachAttribute(message, offset, [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == NLMSGERR_ATTR_MSG &&
            mnl_attr_validate(&attribute, MNL_TYPE_NUL_STRING) >= 0) {
            text = mnl_attr_get_str(&attribute);
        }
    });
    return text;
}

/// The error that a DONE or ERROR message carries.
NetlinkAnswer verdict(const nlmsghdr& message) {
    int error = 0;
    if (mnl_nlmsg_get_payload_len(&message) >= sizeof error)
        std::memcpy(&error, mnl_nlmsg_get_payload(&message), sizeof error);
    const std::size_t fixedPart = message.nlmsg_type == NLMSG_DONE ? sizeof(int) : sizeof(nlmsgerr);
    return {error < 0 ? -error : 0, std::string{explanation(message, fixedPart)}};
}

}  // namespace

std::string NetlinkAnswer::problem() const {
    if (error == 0) return {};
    std::string problem = std::generic_category().message(error);
    if (!text.empty()) problem += Runtime::concat(" (", text, ')');
    return problem;
}

DumpReader::State DumpReader::read(std::span<const std::byte> datagram, const NetlinkHandler& each) {
    State state = State::more;
    eachMessage(datagram, [&](const nlmsghdr& message) {
        if (message.nlmsg_seq != sequence_) return true;
        if ((message.nlmsg_flags & NLM_F_DUMP_INTR) != 0) interrupted_ = true;
        if (message.nlmsg_type == NLMSG_DONE || message.nlmsg_type == NLMSG_ERROR) {
            // A dump may also be refused at its end.
            state = end(verdict(message));
        } else if (message.nlmsg_type >= NLMSG_MIN_TYPE && !interrupted_) {
            each(message);
        }
        return state == State::more;
    });
    return state;
}

DumpReader::State DumpReader::end(NetlinkAnswer answer) {
    if (!answer) {
        answer_ = std::move(answer);
        return State::refused;
    }
    return interrupted_ ? State::interrupted : State::complete;
}

NetlinkAnswer NetlinkChannel::carryOut(NetlinkMessage request) {
    return carryOut(std::span{&request, 1}).front();
}

std::string NetlinkRequests::open(int family) {
    fd_ = Runtime::FileDescriptor{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, family)};
    if (!fd_) return failed("cannot open a netlink socket", errno);
    // Short errors (the request not repeated in them) with explanations.
    for (const int option : {NETLINK_CAP_ACK, NETLINK_EXT_ACK}) {
        const int on = 1;
        setsockopt(fd_.get(), SOL_NETLINK, option, &on, sizeof on);
    }
    // The kernel answers at once; the limit only keeps a surprise from holding the loop for ever.
    const timeval limit{2, 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    // Answers of a whole batch wait here, each with the kernel's own overhead.
    const int answers = 1 << 20;
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &answers, sizeof answers);
    buffer_.resize(bufferSize);
    return {};
}

NetlinkAnswer NetlinkRequests::dump(std::uint16_t request, std::span<const std::byte> body,
                                    const std::function<void()>& begin, const NetlinkHandler& each) {
    NetlinkMessage message{request, NLM_F_REQUEST | NLM_F_DUMP};
    message.raw(body);
    NetlinkAnswer answer;
    for (int attempt = 0; attempt < dumpAttempts; ++attempt) {
        message.sequenceIs(++sequence_);
        begin();
        if (dumpOnce(message.bytes(), sequence_, each, answer) != DumpReader::State::interrupted)
            return answer;
    }
    return {EINTR, "the kernel's table changes too fast to be read"};
}

DumpReader::State NetlinkRequests::dumpOnce(std::span<const std::byte> request, std::uint32_t sequence,
                                            const NetlinkHandler& each, NetlinkAnswer& answer) {
    if (send(fd_.get(), request.data(), request.size(), 0) < 0) {
        answer = {errno, "cannot ask the kernel"};
        return DumpReader::State::refused;
    }
    DumpReader reader{sequence};
    auto state = DumpReader::State::more;
    while (state == DumpReader::State::more) {
        const Datagram datagram = receive(fd_, buffer_, 0);
        if (datagram.error == EINTR) continue;
        if (datagram.error != 0) {
            answer = {datagram.error, "no answer from the kernel"};
            return DumpReader::State::refused;
        }
        state = reader.read(datagram.bytes, each);
    }
    answer = reader.answer();
    return state;
}

std::vector<NetlinkAnswer> NetlinkRequests::carryOut(std::span<NetlinkMessage> requests) {
    std::vector<NetlinkAnswer> answers(requests.size());
    std::vector<std::byte> datagram;
    for (std::size_t done = 0; done < requests.size();) {
        const std::uint32_t first = sequence_ + 1;
        std::size_t count = 0;
        datagram.clear();
        for (; done + count < requests.size() && count < requestsPerDatagram; ++count) {
            NetlinkMessage& request = requests[done + count];
            if (count > 0 && datagram.size() + request.bytes().size() > bufferSize / 2) break;
            request.sequenceIs(++sequence_);
            datagram.insert(datagram.end(), request.bytes().begin(), request.bytes().end());
        }
        exchange(datagram, first, std::span{answers}.subspan(done, count), {});
        done += count;
    }
    return answers;
}

NetlinkAnswer NetlinkRequests::ask(NetlinkMessage request, const NetlinkHandler& each) {
    request.sequenceIs(++sequence_);
    NetlinkAnswer answer;
    exchange(request.bytes(), sequence_, std::span{&answer, 1}, each);
    return answer;
}

void NetlinkRequests::exchange(std::span<const std::byte> datagram, std::uint32_t first,
                               std::span<NetlinkAnswer> answers, const NetlinkHandler& each) {
    if (send(fd_.get(), datagram.data(), datagram.size(), 0) < 0) {
        std::ranges::fill(answers, NetlinkAnswer{errno, "cannot ask the kernel"});
        return;
    }
    // Answers come in the order of the requests; those of a request that was given up earlier are passed
    // over.
    for (std::size_t answered = 0; answered < answers.size();) {
        const Datagram received = receive(fd_, buffer_, 0);
        if (received.error == EINTR) continue;
        if (received.error != 0) {
            std::ranges::fill(answers.subspan(answered),
                              NetlinkAnswer{received.error, "no answer from the kernel"});
            return;
        }
        eachMessage(received.bytes, [&](const nlmsghdr& message) {
            if (message.nlmsg_seq - first >= answers.size()) return true;
            if (message.nlmsg_type == NLMSG_ERROR) {
                answers[message.nlmsg_seq - first] = verdict(message);
                ++answered;
            } else if (message.nlmsg_type >= NLMSG_MIN_TYPE && each) {
                each(message);
            }
            return true;
        });
    }
}

NetlinkNotices::NetlinkNotices(Runtime::FdLoop& loop, NetlinkHandler each, std::function<void()> lost)
    : loop_{loop}, each_{std::move(each)}, lost_{std::move(lost)} {}

std::string NetlinkNotices::open(std::initializer_list<unsigned> groups, int bufferBytes, int family) {
    fd_ = Runtime::FileDescriptor{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, family)};
    if (!fd_) return failed("cannot open a netlink socket", errno);
    if (setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bufferBytes, sizeof bufferBytes) != 0) {
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof bufferBytes);
    }
    // Without an address of its own a socket hears nothing of what the kernel sends to groups.
    sockaddr_nl here{};
    here.nl_family = AF_NETLINK;
    if (bind(fd_.get(), reinterpret_cast<const sockaddr*>(&here), sizeof here) != 0) {
        return failed("cannot bind a netlink socket", errno);
    }
    for (const unsigned group : groups) {
        if (setsockopt(fd_.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
            return failed("cannot follow the kernel's notifications", errno);
        }
    }
    buffer_.resize(bufferSize);
    watch_ = loop_.watch(fd_.get(), Runtime::FdLoop::Ready::readable, [this] { read(noticesPerTurn); });
    return {};
}

void NetlinkNotices::discard() {
    // As many as fit into any buffer; a kernel that keeps talking must not hold us.
    for (int i = 0; i < 100'000; ++i) {
        const int error = receive(fd_, buffer_, MSG_DONTWAIT).error;
        if (error == EAGAIN) return;
    }
}

bool NetlinkNotices::drain() { return read(noticesPerDrain); }

bool NetlinkNotices::read(int limit) {
    for (int i = 0; i < limit; ++i) {
        const Datagram datagram = receive(fd_, buffer_, MSG_DONTWAIT);
        if (datagram.error == ENOBUFS) {
            lost_();
            return false;
        }
        if (datagram.error != 0) return true;
        eachMessage(datagram.bytes, [this](const nlmsghdr& message) {
            each_(message);
            return true;
        });
    }
    return false;
}

}  // namespace Linux
