#include "Sim/MrpPeer.h"

namespace Sim {

namespace {

std::pair<std::uint8_t, std::uint64_t> nameOf(std::uint8_t type, const Mrp::AttributeValue& value) {
    const Mrp::AttributeType& t = Msrp::application().types[type - 1U];
    return {type, t.key(std::span{value.octets}.first(t.valueLength))};
}

}  // namespace

MrpPeer::MrpPeer(Runtime::Loop& loop, Bridge& bridge, const std::string& port, std::uint64_t seed)
    : Mrp::MrpLib{Msrp::application()}, ports_{loop}, intf_{port} {
    moveTo(bridge, port);
    engine_ = std::make_unique<Mrp::MrpSm>(Mrp::Inputs{
        .brConfig = nullptr,
        .application = *this,
        .mrpConfig = nullptr,
        .mrpStatus = nullptr,
        .attributes = nullptr,
        .stpStatus = nullptr,
        .topoConfig = nullptr,
        .ethPhyIntfStatusDir = nullptr,
        .environment = {.loop = loop, .ports = ports_, .trace = trace_, .report = {}, .seed = seed},
        .standbyMode = false});
    mrpInterfaceEnable(intf_);
}

MrpPeer::~MrpPeer() = default;

void MrpPeer::moveTo(Bridge& bridge, const std::string& port) {
    bridge_ = &bridge;
    bridge.ports().cableIs(IntfId{port}, [this, &bridge](const Pdu& pdu) {
        if (up_ && bridge_ == &bridge) ports_.deliver(intf_, pdu);
    });
    ports_.cableIs(intf_, [this, &bridge, far = IntfId{port}](const Pdu& pdu) {
        if (up_) bridge.ports().deliver(far, pdu);
    });
}

void MrpPeer::request(const Say& what, std::uint8_t kind) {
    const Mrp::AttributeValue value = valueOf(what);
    const auto name = nameOf(what.type, value);
    if (kind == Mrp::requestDeclare) {
        declared_[name] = describe(what.type, value);
        values_.insert_or_assign(name, what);
    } else if (declared_.erase(name) != 0) {
        values_.erase(name);
    }
    if (kind == Mrp::requestInternalLeave) registered_.erase(name);
    Mrp::AttributeSlot& slot = outgoing(what.type);
    slot.value = value.octets;
    slot.declaration = value.declaration;
    mrpOutIntfQueueEnq(intf_);
    mrpSendAttribute({.intf = intf_, .attributeType = what.type, .request = kind, .reserved = 0});
}

void MrpPeer::linkIs(bool up) {
    if (up == up_) return;
    up_ = up;
    if (up) {
        mrpInterfaceEnable(intf_);
        for (const auto& [name, what] : std::map{values_}) request(what, Mrp::requestDeclare);
    } else {
        mrpInterfaceDisable(intf_);
        registered_.clear();
    }
}

std::uint8_t MrpPeer::mrpJoinIndication(const Mrp::MrpParameters& params) {
    const Mrp::AttributeSlot& slot = incoming(params.attributeType);
    const Mrp::AttributeValue value{slot.value, static_cast<std::uint8_t>(slot.declaration)};
    const auto name = nameOf(params.attributeType, value);
    registered_[name] = describe(params.attributeType, value);
    // Both kinds of talker declaration replace each other (35.2.6).
    if (params.attributeType <= Msrp::typeTalkerFailed) {
        const auto other = static_cast<std::uint8_t>(3 - params.attributeType);
        if (registered_.erase({other, name.second}) != 0)
            mrpCleanUpIntfDatabaseAttribute(intf_, other, name.second);
    }
    return 0;
}

void MrpPeer::mrpLeaveIndication(const Mrp::MrpParameters& params) {
    ++leaves_;
    const Mrp::AttributeSlot& slot = incoming(params.attributeType);
    registered_.erase(nameOf(params.attributeType, {slot.value, 0}));
}

}  // namespace Sim
