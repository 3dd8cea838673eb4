/// The MSRP frames of one bridge, out of captures at its ports: which came in, and which the bridge sent.
#pragma once

#include "Plan/replay/CaptureFile.h"
#include "Runtime/Time.h"
#include "Switch/EthAddr.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace Plan {

/// Octets of all captures together; a bridge that says more needs a capture of MSRP alone.
inline constexpr std::size_t mostCaptureOctets = std::size_t{128} << 20;
inline constexpr std::size_t mostReplayPorts = 256;

/// Frames farther apart than this are taken to be this far apart: nothing happens any more by then.
inline constexpr Runtime::Duration longestSilence = std::chrono::seconds{60};

struct TrafficFrame {
    Pcapng::WallTime time{};
    Runtime::Duration elapsed{};  ///< since the first one, with long silences shortened
    std::size_t port = 0;         ///< place in the traffic's ports
    bool sent = false;            ///< by the bridge
    std::size_t onWire = 0;
    std::span<const std::uint8_t> octets{};  ///< of the file
    std::span<const std::uint8_t> pdu{};     ///< what follows the EtherType
};

/// One file, or what was left of it.
struct TrafficFile {
    std::string name{};
    std::size_t octets = 0;
    Capture capture{};
};

struct Traffic {
    std::vector<TrafficFile> files{};
    std::vector<std::string> ports{};
    std::vector<TrafficFrame> frames{};  ///< in the order of time
    std::size_t others = 0;              ///< frames of other protocols
    std::size_t tagged = 0;              ///< MSRP frames with a VLAN tag, which they should not have
    std::size_t cut = 0;                 ///< MSRP frames of which the file has only a part
    std::uint64_t missing = 0;           ///< frames that the captures say to have lost
    std::size_t shortened = 0;           ///< silences
    std::vector<std::string> notes{};    ///< what was assumed
};

class TrafficReader {
public:
    /// Whose name an interface has here, by its own name in the capture, or its number from 0 on.
    using PortNames = std::map<std::string, std::string, std::less<>>;
    explicit TrafficReader(PortNames names) : names_{std::move(names)} {}

    /// Everything up to where the file is broken.  The octets must outlive the traffic.
    void read(const std::string& name, std::span<const std::uint8_t> file);
    /// What was read.  Frames whose direction no capture tells are the bridge's when it has their source
    /// address: one of `bridge`; or, where an interface has none of these, one whose first five octets are
    /// those of one.  Where that cannot tell, `problem` says so in one line.
    Traffic traffic(const std::set<EthAddr>& bridge, std::string& problem);

private:
    struct Found {
        TrafficFrame frame;
        Pcapng::Direction direction;
        EthAddr source;
    };
    void take(const Capture& capture, const CapturedFrame& frame);
    [[nodiscard]] std::size_t portOf(const Capture& capture, std::size_t interface);

    PortNames names_;
    Traffic out_;
    std::string problem_;
    std::vector<Found> found_;
    std::size_t before_ = 0;                  ///< interfaces of the files before this one
    std::vector<std::size_t> portOf_;         ///< by interface of this file, where it is known
    std::vector<std::set<EthAddr>> sources_;  ///< of frames without a direction, by port
};

}  // namespace Plan
