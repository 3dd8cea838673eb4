/// What is to be known of a bridge before it is trusted with streams.
#pragma once

#include "Linux/bridge/VlanMessage.h"
#include "Linux/links/Device.h"
#include "Linux/records/CapabilityStatus.h"
#include "Linux/records/Config.h"
#include "Switch/Time.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Linux {

struct DoctorFacts {
    struct Port {
        Device device;
        /// It stops sending when the peer asks for a pause, or asks for one itself.
        bool flowControl = false;
        bool router = false;  ///< the kernel takes a multicast router to be behind it
        PortVlans vlans;      ///< only where the bridge filters VLANs
        /// Kind and major number of the root queueing discipline; empty and 0 for what the kernel put there.
        std::string queueKind;
        std::uint16_t queueHandle = 0;
    };

    std::string bridge;            ///< the name of the one that is looked at
    std::optional<Device> device;  ///< what bears that name; it has settings if it is a bridge
    std::vector<Port> ports;
    std::size_t groups = 0;        ///< places of its multicast table that are taken
    std::size_t notOffloaded = 0;  ///< entries that its switch chip has not, while it has others
    VlanId srVlan{2};              ///< of the streams
    std::uint16_t ownQueueHandle = Config{}.queueHandle();
    Abilities abilities;
    std::shared_ptr<const Switch::TimeStatus> time;  ///< null: no ptp4l answers
    /// Why nothing is known of `time` though a ptp4l has its socket there.
    std::string clockProblem;
};

/// Looks at the kernel, and asks the ptp4l with that socket.  `bridge` may be empty where there is exactly
/// one. Empty on success.
std::string examine(const std::string& bridge, VlanId srVlan, const std::string& ptp4l, DoctorFacts& facts);

}  // namespace Linux
