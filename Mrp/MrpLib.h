/// The base of an MRP application: the requests that it can make of the engine, the indications that it gets,
/// and the slots through which attribute values pass.
///
/// A request: the application writes the value into the outgoing slot of its type, calls
/// `mrpOutIntfQueueEnq(port)` and `mrpSendAttribute`.  Requests change state and ask for a transmit
/// opportunity; they never transmit inline. An indication: the engine writes the value into the incoming slot
/// and calls `mrpJoinIndication` or `mrpLeaveIndication`, which may make requests of any kind.
#pragma once

#include "Mrp/Application.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <array>
#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <typeinfo>

namespace Mrp {

class MrpSm;
class PeriodicSm;

/// Request kinds.
inline constexpr std::uint8_t requestNew = 1;            ///< New!
inline constexpr std::uint8_t requestDeclare = 3;        ///< Join!
inline constexpr std::uint8_t requestWithdraw = 5;       ///< Lv!
inline constexpr std::uint8_t requestInternalLeave = 7;  ///< forget declaration and registration, silently
inline constexpr std::uint8_t requestSeed = 9;           ///< take over a registration of an earlier life
inline constexpr std::uint8_t requestResume = 11;  ///< Join! of what the peer knows from an earlier life

/// One indication or request.
struct MrpParameters {
    IntfId intf;
    std::uint8_t attributeType = 0;
    std::uint8_t request = 0;   ///< requests only
    std::uint8_t reserved = 0;  ///< always 0
};

/// An attribute value and, for four-packed types, its declaration (0 to 3).
struct AttributeSlot {
    std::array<std::uint8_t, maxValueLength> value{};
    std::uint32_t declaration = 0;
    bool isNew = false;  ///< of an indication: the peer said New, and the type tells it
};

class MrpLib {
public:
    explicit MrpLib(const ApplicationInfo& application) : application_{application} {}
    MrpLib(const MrpLib&) = delete;
    MrpLib& operator=(const MrpLib&) = delete;
    virtual ~MrpLib() = default;

    [[nodiscard]] const ApplicationInfo& application() const { return application_; }

    /// Describes the module that handles the attributes, for diagnostics.
    [[nodiscard]] virtual const std::type_info& fwkType() const = 0;
    /// An attribute was registered, repeated after a LeaveAll, or changed its value.  0 accepts it; anything
    /// else refuses it.
    virtual std::uint8_t mrpJoinIndication(const MrpParameters& params) = 0;
    virtual void mrpLeaveIndication(const MrpParameters& params) = 0;

    /// Declares, withdraws or forgets (by `params.request`) the attribute in the outgoing slot of its type.
    /// Ignored for a port that is not enabled, and in standby.
    void mrpSendAttribute(const MrpParameters& params);
    /// Asks for a transmit opportunity on the port.
    void mrpOutIntfQueueEnq(IntfId intf);
    /// Starts (or keeps) the participant of the port.
    void mrpInterfaceEnable(IntfId intf);
    /// Transmits what is pending if the port's link is up, then forgets the participant, without indications.
    void mrpInterfaceDisable(IntfId intf);
    /// The ports that are enabled, also in standby.
    [[nodiscard]] std::set<IntfId> mrpEnabledPorts() const;
    /// Forgets all registrations of the port, without indications, and makes it send a LeaveAll.
    void mrpCleanUpIntfDatabase(IntfId intf);
    /// Forgets one registration without an indication; the port says Mt for it, so that a peer that still
    /// declares it does so again.
    void mrpCleanUpIntfDatabaseAttribute(IntfId intf, std::uint8_t type, std::uint64_t key);
    /// Whether the application holds that attribute of the port: it accepted it, and will be told when it
    /// leaves.
    [[nodiscard]] bool mrpHeld(IntfId intf, std::uint8_t type, std::uint64_t key) const;
    /// The name of the port's base spanning-tree topology; empty when it has none.
    [[nodiscard]] std::string baseSpanningTreeTopo(IntfId intf) const;
    /// The VLAN of the port's untagged frames: its switch configuration's, else 1.
    [[nodiscard]] VlanId getNativeVlanId(IntfId intf) const;
    /// Offers what was refused on the port once more.
    void mrpPortOpened(IntfId intf);
    /// While paused the engine neither handles what arrives, which waits as long as there is room for it, nor
    /// transmits: for an application that needs several turns to tell it what was declared and registered.
    void mrpPause(bool paused);
    /// Tells that a handler did that much beyond the ordinary: one for each event's worth of work.  Ports
    /// take turns by what they cost.
    void mrpSpend(unsigned events) { spent_ += events; }
    /// The engine's periodic machine; null while there is no engine.
    [[nodiscard]] PeriodicSm* periodicSm() const;

    /// Slot of an attribute type; `type` must be one of the application's.
    [[nodiscard]] AttributeSlot& incoming(std::uint8_t type) { return incoming_[type % slots]; }
    [[nodiscard]] const AttributeSlot& incoming(std::uint8_t type) const { return incoming_[type % slots]; }
    [[nodiscard]] AttributeSlot& outgoing(std::uint8_t type) { return outgoing_[type % slots]; }

private:
    friend class MrpSm;
    static constexpr std::size_t slots = 8;

    ApplicationInfo application_;
    MrpSm* engine_ =
        nullptr;  ///< set by the engine for as long as it lives; without one, requests do nothing
    unsigned spent_ = 0;
    std::array<AttributeSlot, slots> incoming_{};
    std::array<AttributeSlot, slots> outgoing_{};
};

}  // namespace Mrp
