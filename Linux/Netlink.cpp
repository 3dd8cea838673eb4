#include "Linux/Netlink.h"

#include "Linux/NetlinkAttributes.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
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
/// A table that changes faster than this many dumps is left until its next notification.
constexpr int dumpAttempts = 5;

std::string failed(std::string_view what, int error) {
    return Runtime::concat(what, ": ", std::generic_category().message(error));
}

/// What one receive gave.
struct Datagram {
    std::span<const std::byte> bytes;  ///< empty when there was none that counts
    int error = 0;
};

Datagram receive(const FileDescriptor& fd, std::vector<std::byte>& buffer, int flags) {
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

}  // namespace

DumpReader::State DumpReader::read(std::span<const std::byte> datagram, const NetlinkHandler& each) {
    State state = State::more;
    eachMessage(datagram, [&](const nlmsghdr& message) {
        if (message.nlmsg_seq != sequence_) return true;
        if ((message.nlmsg_flags & NLM_F_DUMP_INTR) != 0) interrupted_ = true;
        if (message.nlmsg_type == NLMSG_DONE) {
            state = end(message, sizeof(int));
        } else if (message.nlmsg_type == NLMSG_ERROR) {
            state = end(message, sizeof(nlmsgerr));
        } else if (message.nlmsg_type >= NLMSG_MIN_TYPE && !interrupted_) {
            each(message);
        }
        return state == State::more;
    });
    return state;
}

DumpReader::State DumpReader::end(const nlmsghdr& message, std::size_t textOffset) {
    // DONE and ERROR both begin with an error number: a dump may also be refused at its end.
    int error = 0;
    if (mnl_nlmsg_get_payload_len(&message) >= sizeof error) {
        const auto* payload = static_cast<const std::byte*>(mnl_nlmsg_get_payload(&message));
        std::copy_n(payload, sizeof error, reinterpret_cast<std::byte*>(&error));
    }
    if (error < 0) {
        const std::string_view text = explanation(message, textOffset);
        problem_ = std::generic_category().message(-error);
        if (!text.empty()) problem_ += Runtime::concat(" (", text, ')');
        return State::refused;
    }
    return interrupted_ ? State::interrupted : State::complete;
}

std::string NetlinkRequests::open() {
    fd_ = FileDescriptor{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
    if (!fd_) return failed("cannot open a netlink socket", errno);
    // Short errors (the request not repeated in them) with explanations.
    for (const int option : {NETLINK_CAP_ACK, NETLINK_EXT_ACK}) {
        const int on = 1;
        setsockopt(fd_.get(), SOL_NETLINK, option, &on, sizeof on);
    }
    // The kernel answers at once; the limit only keeps a surprise from holding the loop for ever.
    const timeval limit{2, 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    buffer_.resize(bufferSize);
    return {};
}

std::string NetlinkRequests::dump(std::uint16_t request, std::span<const std::byte> body,
                                  const std::function<void()>& begin, const NetlinkHandler& each) {
    std::vector<std::byte> message(sizeof(nlmsghdr) + body.size());
    auto* header = reinterpret_cast<nlmsghdr*>(message.data());
    header->nlmsg_len = static_cast<std::uint32_t>(message.size());
    header->nlmsg_type = request;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    std::ranges::copy(body, message.begin() + sizeof(nlmsghdr));
    std::string problem;
    for (int attempt = 0; attempt < dumpAttempts; ++attempt) {
        header->nlmsg_seq = ++sequence_;
        begin();
        if (dumpOnce(message, sequence_, each, problem) != DumpReader::State::interrupted) return problem;
    }
    return "the kernel's table changes too fast to be read";
}

DumpReader::State NetlinkRequests::dumpOnce(std::span<const std::byte> request, std::uint32_t sequence,
                                            const NetlinkHandler& each, std::string& problem) {
    if (send(fd_.get(), request.data(), request.size(), 0) < 0) {
        problem = failed("cannot ask the kernel", errno);
        return DumpReader::State::refused;
    }
    DumpReader reader{sequence};
    auto state = DumpReader::State::more;
    while (state == DumpReader::State::more) {
        const Datagram datagram = receive(fd_, buffer_, 0);
        if (datagram.error == EINTR) continue;
        if (datagram.error != 0) {
            problem = failed("no answer from the kernel", datagram.error);
            return DumpReader::State::refused;
        }
        state = reader.read(datagram.bytes, each);
    }
    problem = reader.problem();
    return state;
}

NetlinkNotices::NetlinkNotices(Runtime::FdLoop& loop, NetlinkHandler each, std::function<void()> lost)
    : loop_{loop}, each_{std::move(each)}, lost_{std::move(lost)} {}

std::string NetlinkNotices::open(std::initializer_list<unsigned> groups, int bufferBytes) {
    fd_ = FileDescriptor{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)};
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
    watch_ = loop_.watch(fd_.get(), Runtime::FdLoop::Ready::readable, [this] { read(); });
    return {};
}

void NetlinkNotices::discard() {
    // As many as fit into any buffer; a kernel that keeps talking must not hold us.
    for (int i = 0; i < 100'000; ++i) {
        const int error = receive(fd_, buffer_, MSG_DONTWAIT).error;
        if (error == EAGAIN) return;
    }
}

void NetlinkNotices::read() {
    for (int i = 0; i < noticesPerTurn; ++i) {
        const Datagram datagram = receive(fd_, buffer_, MSG_DONTWAIT);
        if (datagram.error == ENOBUFS) {
            lost_();
            return;
        }
        if (datagram.error != 0) return;
        eachMessage(datagram.bytes, [this](const nlmsghdr& message) {
            each_(message);
            return true;
        });
    }
}

}  // namespace Linux
