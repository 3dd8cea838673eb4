#include "Linux/ports/PacketPorts.h"

#include "Linux/ports/PacketRecords.h"
#include "Runtime/Assert.h"
#include "Runtime/BigEndian.h"
#include "Runtime/FileDescriptor.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

template class State::Record<Linux::IntfPackets>;
template class State::Record<Linux::PacketStatus>;

namespace Linux {

namespace {

constexpr std::size_t headerLength = 14;
constexpr std::size_t minPayload = 46;
constexpr std::size_t maxPayload = 1500;
/// Frames that one port may deliver in one turn of the loop.
constexpr std::size_t framesPerRead = 16;
/// Holds what a peer with thousands of streams sends after a LeaveAll (some 1800 full frames).
constexpr int receiveBuffer = 4 << 20;
/// The kernel's priority for control traffic (TC_PRIO_CONTROL): the first band of its default queue.
constexpr int controlPriority = 7;

/// The line of a failed call, with its reason.
std::string failed(IntfId intf, std::string_view what) {
    const int error = errno;
    return Runtime::concat(intf, ": ", what, ": ", std::generic_category().message(error));
}

template <class T>
bool setOption(const Runtime::FileDescriptor& fd, int level, int name, const T& value) {
    return setsockopt(fd.get(), level, name, &value, sizeof value) == 0;
}

/// Accepts untagged frames of the protocol that others sent.
std::array<sock_filter, 12> frameFilter(const PacketProtocol& protocol) {
    const std::uint64_t group = protocol.group.number();
    constexpr auto ancillary = [](int field) { return static_cast<std::uint32_t>(SKF_AD_OFF + field); };
    constexpr auto statement = [](int code, std::uint32_t k) {
        return sock_filter{static_cast<std::uint16_t>(code), 0, 0, k};
    };
    // Goes on where the loaded value is k (or is not), else to the last statement, `rest` statements further
    // on.
    constexpr auto unless = [](std::uint32_t k, std::uint8_t rest) {
        return sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, rest, k};
    };
    constexpr auto when = [](std::uint32_t k, std::uint8_t rest) {
        return sock_filter{BPF_JMP | BPF_JEQ | BPF_K, rest, 0, k};
    };
    return {{
        statement(BPF_LD | BPF_H | BPF_ABS, 12),
        unless(protocol.etherType, 9),
        statement(BPF_LD | BPF_W | BPF_ABS, 0),
        unless(static_cast<std::uint32_t>(group >> 16), 7),
        statement(BPF_LD | BPF_H | BPF_ABS, 4),
        unless(static_cast<std::uint32_t>(group & 0xFFFF), 5),
        statement(BPF_LD | BPF_W | BPF_ABS, ancillary(SKF_AD_VLAN_TAG_PRESENT)),
        unless(0, 3),
        statement(BPF_LD | BPF_W | BPF_ABS, ancillary(SKF_AD_PKTTYPE)),
        when(PACKET_OUTGOING, 1),
        statement(BPF_RET | BPF_K, 0xFFFF),
        statement(BPF_RET | BPF_K, 0),
    }};
}

}  // namespace

/// Room for one batch of frames, and the kernel's description of it.
struct PacketPorts::Batch {
    using Frame = std::array<std::uint8_t, headerLength + maxPayload>;

    Batch() {
        for (std::size_t i = 0; i < framesPerRead; ++i) {
            pieces[i] = {frames[i].data(), frames[i].size()};
            messages[i].msg_hdr.msg_iov = &pieces[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
    }
    std::array<Frame, framesPerRead> frames{};
    std::array<iovec, framesPerRead> pieces{};
    std::array<mmsghdr, framesPerRead> messages{};
};

class PacketPorts::Port : public Mrp::PacketPort {
public:
    Port(PacketPorts& owner, IntfId intf, Receiver receiver)
        : owner_{owner},
          intf_{intf},
          counters_{owner.counters_[intf]},
          inbox_{std::make_shared<Inbox>(Inbox{std::move(receiver), true})} {
        owner_.ports_.push_back(this);
    }
    ~Port() override {
        inbox_->open = false;
        countOverflow();
        std::erase(owner_.ports_, this);
    }

    [[nodiscard]] std::size_t capacity() const override {
        return std::min<std::size_t>(place_.mtu, maxPayload);
    }
    bool send(std::span<const std::uint8_t> pdu) override;
    /// Opens, closes or moves the socket when the interface is elsewhere now.
    void placeIs(const Place& place);
    /// Takes over what the kernel counted of frames that found the socket's queue full.
    void countOverflow();

    [[nodiscard]] IntfId intf() const { return intf_; }

private:
    /// Outlives the port while a batch is being delivered, since a receiver may end its own port.
    struct Inbox {
        Receiver receiver;
        bool open;
    };

    /// Empty on success.
    std::string openSocket();
    [[nodiscard]] bool bound() const;
    void close();
    void read();
    void showSent(std::span<const iovec> pieces) const;
    void tooLong(std::size_t octets);

    PacketPorts& owner_;
    const IntfId intf_;
    PortCounters& counters_;
    std::shared_ptr<Inbox> inbox_;
    Place place_;
    bool saidTooLong_ = false;  ///< of the present MTU
    Runtime::FileDescriptor fd_;
    Runtime::FdLoop::Watch watch_;  ///< after `fd_`: ends before it closes
};

bool PacketPorts::Port::send(std::span<const std::uint8_t> pdu) {
    Runtime::require(pdu.size() <= maxPayload, "an MRPDU fits into a frame");
    if (!fd_ || (owner_.gate_ && !owner_.gate_())) {
        ++counters_.sendDropped;
        return false;
    }
    const auto& group = owner_.protocol_.group.octets();
    const std::uint16_t etherType = owner_.protocol_.etherType;
    // The header, and behind it the zeros that fill a short frame up.
    std::array<std::uint8_t, headerLength + minPayload> edges{};
    std::ranges::copy(group, edges.begin());
    std::ranges::copy(place_.mac.octets(), edges.begin() + 6);
    Runtime::bigEndianIs(std::span{edges}.subspan(12, 2), etherType);
    const std::size_t missing = pdu.size() < minPayload ? minPayload - pdu.size() : 0;
    // The kernel only reads what is to be sent; its interface has one form for both directions.
    std::array<iovec, 3> pieces{{{edges.data(), headerLength},
                                 {const_cast<std::uint8_t*>(pdu.data()), pdu.size()},
                                 {edges.data() + headerLength, missing}}};
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(etherType);
    to.sll_ifindex = static_cast<int>(place_.ifindex);
    to.sll_halen = ETH_ALEN;
    std::ranges::copy(group, to.sll_addr);
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    const bool sent = sendmsg(fd_.get(), &message, MSG_DONTWAIT) >= 0;
    if (!sent && errno == EMSGSIZE) tooLong(pdu.size());
    ++(sent ? counters_.sent : counters_.sendDropped);
    if (sent && owner_.tap_) showSent(pieces);
    return sent;
}

void PacketPorts::Port::showSent(std::span<const iovec> pieces) const {
    std::vector<std::uint8_t> frame;
    for (const iovec& piece : pieces) {
        const auto* octets = static_cast<const std::uint8_t*>(piece.iov_base);
        frame.insert(frame.end(), octets, octets + piece.iov_len);
    }
    owner_.tap_(intf_, Direction::sent, frame);
}

void PacketPorts::Port::tooLong(std::size_t octets) {
    if (std::exchange(saidTooLong_, true) || !owner_.complaint_) return;
    owner_.complaint_(Runtime::concat(intf_, ": an MRPDU of ", octets, " octets is lost, the MTU is ",
                                      place_.mtu, " and it cannot be divided"));
}

void PacketPorts::Port::placeIs(const Place& place) {
    const bool moved = place.ifindex != place_.ifindex;
    if (place.mtu != place_.mtu) saidTooLong_ = false;
    place_ = place;
    // An interface that was deleted and made again may even have its old index; the socket stays with the
    // deleted one.
    if (fd_ && (moved || !bound())) close();
    if (fd_ || place_.ifindex == 0) return;
    const std::string problem = openSocket();
    if (problem.empty()) return;
    close();
    // An interface that has vanished again is no trouble: that news is on its way.
    std::array<char, IF_NAMESIZE> name{};
    const bool exists = if_indextoname(place_.ifindex, name.data()) != nullptr;
    if (exists && owner_.complaint_) owner_.complaint_(problem);
}

std::string PacketPorts::Port::openSocket() {
    // Protocol 0: hears nothing until it is bound, so that the filter is there first.
    fd_ = Runtime::FileDescriptor{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!fd_) return failed(intf_, "cannot open a packet socket");

    auto filter = frameFilter(owner_.protocol_);
    const sock_fprog program{filter.size(), filter.data()};
    if (!setOption(fd_, SOL_SOCKET, SO_ATTACH_FILTER, program)) return failed(intf_, "cannot filter frames");
    // Frames on their way out would otherwise be copied for us, only to be filtered.
    if (!setOption(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1))
        return failed(intf_, "cannot skip outgoing frames");
    if (!setOption(fd_, SOL_SOCKET, SO_RCVBUFFORCE, receiveBuffer)) {
        // Not privileged enough: as much as everybody may have.
        setOption(fd_, SOL_SOCKET, SO_RCVBUF, receiveBuffer);
    }
    setOption(fd_, SOL_SOCKET, SO_PRIORITY, controlPriority);

    // Bound to all protocols: on its way to a socket of one protocol a frame has lost its VLAN tag, and with
    // it the only sign that it had one (the kernel clears it even of a mere priority tag).
    sockaddr_ll here{};
    here.sll_family = AF_PACKET;
    here.sll_protocol = htons(ETH_P_ALL);
    here.sll_ifindex = static_cast<int>(place_.ifindex);
    if (bind(fd_.get(), reinterpret_cast<const sockaddr*>(&here), sizeof here) != 0) {
        return failed(intf_, "cannot bind a packet socket");
    }
    packet_mreq membership{};
    membership.mr_ifindex = here.sll_ifindex;
    membership.mr_type = PACKET_MR_MULTICAST;
    membership.mr_alen = ETH_ALEN;
    std::ranges::copy(owner_.protocol_.group.octets(), membership.mr_address);
    if (!setOption(fd_, SOL_PACKET, PACKET_ADD_MEMBERSHIP, membership)) {
        return failed(intf_, "cannot receive the group address");
    }
    watch_ = owner_.loop_.watch(fd_.get(), Runtime::FdLoop::Ready::readable, [this] { read(); });
    return {};
}

bool PacketPorts::Port::bound() const {
    sockaddr_ll here{};
    socklen_t length = sizeof here;
    return getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&here), &length) == 0 &&
           here.sll_ifindex == static_cast<int>(place_.ifindex);
}

void PacketPorts::Port::close() {
    countOverflow();
    watch_ = {};
    fd_ = {};
}

void PacketPorts::Port::countOverflow() {
    tpacket_stats kernel{};
    socklen_t length = sizeof kernel;
    if (fd_ && getsockopt(fd_.get(), SOL_PACKET, PACKET_STATISTICS, &kernel, &length) == 0) {
        counters_.receiveDropped += kernel.tp_drops;  // reading it set it back to zero
    }
}

void PacketPorts::Port::read() {
    // Errors need no answer: the kernel reports once that the interface went down, and its return is told by
    // whoever follows the links.
    const int count =
        recvmmsg(fd_.get(), owner_.batch_->messages.data(), framesPerRead, MSG_DONTWAIT, nullptr);
    Batch& batch = *owner_.batch_;
    PortCounters& counters = counters_;
    const std::shared_ptr<Inbox> inbox = inbox_;
    for (std::size_t i = 0; std::cmp_less(i, count) && inbox->open; ++i) {
        const mmsghdr& message = batch.messages[i];
        if ((message.msg_hdr.msg_flags & MSG_TRUNC) != 0 || message.msg_len <= headerLength) {
            ++counters.receiveDropped;
            continue;
        }
        ++counters.received;
        const auto frame = std::span{batch.frames[i]}.first(message.msg_len);
        counters.lastSource = EthAddr::fromNumber(Runtime::bigEndian(frame.subspan(6, 6)));
        if (owner_.tap_) owner_.tap_(intf_, Direction::received, frame);
        inbox->receiver(frame.subspan(headerLength));
    }
}

PacketPorts::PacketPorts(Runtime::FdLoop& loop, PacketProtocol protocol, Complaint complaint)
    : loop_{loop}, protocol_{protocol}, complaint_{std::move(complaint)}, batch_{std::make_unique<Batch>()} {}

PacketPorts::~PacketPorts() { Runtime::require(ports_.empty(), "packet ports close before their provider"); }

std::unique_ptr<Mrp::PacketPort> PacketPorts::open(IntfId intf, Receiver receiver) {
    auto port = std::make_unique<Port>(*this, intf, std::move(receiver));
    if (const auto at = places_.find(intf); at != places_.end()) port->placeIs(at->second);
    return port;
}

void PacketPorts::interfaceIs(IntfId intf, const Place& place) {
    places_[intf] = place;
    for (Port* port : ports_) {
        if (port->intf() == intf) port->placeIs(place);
    }
}

PortCounters PacketPorts::counters(IntfId intf) {
    for (Port* port : ports_) {
        if (port->intf() == intf) port->countOverflow();
    }
    const auto at = counters_.find(intf);
    return at != counters_.end() ? at->second : PortCounters{};
}

void PacketPorts::countersClear() {
    for (Port* port : ports_) port->countOverflow();  // which sets the kernel's back to zero
    for (auto& [intf, counters] : counters_) counters = {.lastSource = counters.lastSource};
}

}  // namespace Linux
