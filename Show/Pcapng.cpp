#include "Show/Pcapng.h"

#include <cstddef>
#include <utility>

namespace Pcapng {

namespace {

/// Times count in 10 to the power of minus this.
constexpr std::uint8_t nanoseconds = 9;

/// Everything in a block is aligned to this.
constexpr std::size_t alignment = 4;

class Block {
public:
    explicit Block(std::uint32_t type) {
        put<std::uint32_t>(type);
        put<std::uint32_t>(0);  // the length, once it is known
    }

    template <class T>
    Block& put(T value) {
        for (std::size_t i = 0; i < sizeof(T); ++i)
            octets_.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i)));
        return *this;
    }
    Block& padded(std::span<const std::uint8_t> octets) {
        octets_.insert(octets_.end(), octets.begin(), octets.end());
        while (octets_.size() % alignment != 0) octets_.push_back(0);
        return *this;
    }
    Block& option(std::uint16_t code, std::span<const std::uint8_t> value) {
        return put(code).put(static_cast<std::uint16_t>(value.size())).padded(value);
    }
    template <class T>
    Block& number(std::uint16_t code, T value) {
        return put(code).put(static_cast<std::uint16_t>(sizeof(T))).put(value).padded({});
    }
    /// Ends the options, if there are any, and the block.
    Octets end(bool options) {
        if (options) put<std::uint32_t>(0);
        const auto length = static_cast<std::uint32_t>(octets_.size() + sizeof(std::uint32_t));
        put(length);
        for (std::size_t i = 0; i < sizeof length; ++i)
            octets_[4 + i] = static_cast<std::uint8_t>(length >> (8 * i));
        return std::move(octets_);
    }

private:
    Octets octets_;
};

}  // namespace

Octets sectionHeader() {
    return Block{sectionBlock}
        .put(orderMark)         // tells the order of octets
        .put<std::uint16_t>(1)  // version 1.0
        .put<std::uint16_t>(0)
        .put<std::int64_t>(-1)  // a section that goes on as long as it does
        .end(false);
}

Octets interfaceDescription(std::string_view name) {
    return Block{interfaceBlock}
        .put<std::uint16_t>(linkTypeEthernet)
        .put<std::uint16_t>(0)
        .put<std::uint32_t>(0)  // frames are never cut short
        .option(ifName, Octets(name.begin(), name.end()))
        .number(ifTsresol, nanoseconds)
        .end(true);
}

Octets enhancedPacket(const Packet& packet) {
    const auto time = static_cast<std::uint64_t>(packet.time.time_since_epoch().count());
    const auto length = static_cast<std::uint32_t>(packet.frame.size());
    Block block{packetBlock};
    block.put(packet.interface)
        .put(static_cast<std::uint32_t>(time >> 32U))
        .put(static_cast<std::uint32_t>(time))
        .put(length)
        .put(packet.onWire == 0 ? length : static_cast<std::uint32_t>(packet.onWire))
        .padded(packet.frame);
    if (!packet.comment.empty()) {
        const std::string_view text = packet.comment.substr(0, UINT16_MAX);
        block.option(comment, Octets(text.begin(), text.end()));
    }
    if (packet.direction != Direction::unknown)
        block.number(epbFlags, static_cast<std::uint32_t>(packet.direction));
    if (packet.dropped > 0) block.number(epbDropcount, packet.dropped);
    const bool options =
        !packet.comment.empty() || packet.direction != Direction::unknown || packet.dropped > 0;
    return block.end(options);
}

}  // namespace Pcapng
