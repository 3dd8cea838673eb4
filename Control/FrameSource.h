/// Where captures get their frames from: whoever moves frames passes each of them through here, as long as
/// somebody wants them.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Control {

enum class Direction { received, sent };

class FrameSource {
public:
    /// Tells whether there is a port of that name.
    using Known = std::function<bool(std::string_view port)>;
    /// Told when the first subscription begins (true) and when the last one has ended (false).
    using Wanted = std::function<void(bool wanted)>;
    /// Takes one whole frame, addresses and padding included; the octets are valid during the call only. Must
    /// neither begin nor end a subscription.
    using Receiver = std::function<void(Direction direction, std::span<const std::uint8_t> frame)>;

    /// Hears the frames of one port as long as it lives.  The source must outlive it.
    class Subscription {
    public:
        Subscription(FrameSource& source, std::string port, Receiver receiver);
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;
        ~Subscription();

        [[nodiscard]] const std::string& port() const { return port_; }

    private:
        friend class FrameSource;
        FrameSource& source_;
        const std::string port_;
        const Receiver receiver_;
    };

    FrameSource(Known known, Wanted wanted);

    [[nodiscard]] bool knows(std::string_view port) const { return known_(port); }
    /// Hands a frame to the subscribers of its port.  To be called only while frames are wanted; it does no
    /// harm at other times.
    void pass(std::string_view port, Direction direction, std::span<const std::uint8_t> frame) const;

private:
    const Known known_;
    const Wanted wanted_;
    std::vector<const Subscription*> subscriptions_;
};

}  // namespace Control
