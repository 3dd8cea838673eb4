#include "History/PortFollower.h"

#include "Msrp/types/Attributes.h"
#include "Runtime/Text.h"

#include <typeinfo>
#include <utility>

namespace History {

using Interface::EthPhyIntfStatus;
using Msrp::IntfStatus;

PortFollower::PortFollower(Records records) : records_{std::move(records)} {
    linksChanged_ = records_.links->watch([this](const State::Change& change) {
        if (const auto* link = dynamic_cast<const EthPhyIntfStatus*>(&change.entity)) {
            linkChanged(*link);
        } else if (const auto* intf = change.key<IntfId>()) {
            if (const auto now = records_.links->intfStatus(*intf)) return linkChanged(*now);
            linkChanged(EthPhyIntfStatus{*intf});
        }
    });
    statusChanged_ = records_.status->watch([this](const State::Change& change) {
        // Most changes are of streams and counters.
        if (typeid(change.entity) == typeid(IntfStatus)) {
            const auto* srClass = change.key<Msrp::SrClassId>();
            if (srClass != nullptr && change.field == State::fieldName<IntfStatus>("srClassState"))
                classChanged(static_cast<const IntfStatus&>(change.entity), *srClass);
        } else if (const auto* intf = change.key<IntfId>();
                   intf != nullptr && &change.entity == records_.status.get()) {
            runningChanged(*intf);
        }
    });
    records_.links->intfStatus().each([this](IntfId, const EthPhyIntfStatus& link) { linkChanged(link); });
    records_.status->intfStatus().each([this](IntfId intf, const IntfStatus& port) {
        runningChanged(intf);
        for (const auto& [srClass, state] : port.srClassState()) classChanged(port, srClass);
    });
}

void PortFollower::linkChanged(const EthPhyIntfStatus& link) {
    Told& told = told_[link.intfId()];
    if (const auto before = std::exchange(told.link, link.linkStatus()); before != told.link)
        tell(link.intfId(), "link", State::enumText(before), State::enumText(told.link));
    if (const auto before = std::exchange(told.speed, link.speedEnum()); before != told.speed)
        tell(link.intfId(), "speed", State::enumText(before), State::enumText(told.speed));
}

void PortFollower::runningChanged(IntfId intf) {
    Told& told = told_[intf];
    const bool runs = records_.status->intfStatus().contains(intf);
    if (std::exchange(told.runs, runs) == runs) return;
    // With the port's record, what it was to the classes has gone.
    if (!runs) told.classes.clear();
    tell(intf, "msrp", runs ? "off" : "on", runs ? "on" : "off");
}

void PortFollower::classChanged(const IntfStatus& port, Msrp::SrClassId srClass) {
    const auto now = port.srClassState(srClass);
    auto& told = told_[port.intfId()].classes[srClass];
    const auto before = std::exchange(told, now);
    if (before == now) return;
    Event event;
    event.kind = Kind::domain;
    event.intf = port.intfId();
    event.srClass = srClass;
    event.field = State::enumText(srClass);
    event.before = State::enumText(before);
    event.after = State::enumText(now);
    if (Msrp::isActive(now)) event.text = peerSays(port.intfId(), srClass);
    records_.journal->add(std::move(event));
}

std::string PortFollower::peerSays(IntfId intf, Msrp::SrClassId srClass) const {
    const auto port = records_.attributes ? records_.attributes->child("intf", intf.name()) : nullptr;
    if (!port) return {};
    const auto attribute = port->fieldValue(
        "attribute",
        Runtime::concat(std::uint32_t{Msrp::typeDomain}, '/', State::hexText(Msrp::number(srClass))));
    const State::Value* said = attribute ? attribute->member("registered") : nullptr;
    said = said != nullptr ? said->member("value") : nullptr;
    const auto* octets = said != nullptr ? std::get_if<std::string>(&said->data) : nullptr;
    // SRclassID, SRclassPriority, SRclassVID (IEEE 802.1Q 35.2.2.9), two digits for an octet.
    if (octets == nullptr || octets->size() != 8) return {};
    const auto number = [&](std::size_t at, std::size_t digits) {
        return State::parseHex("0x" + octets->substr(at, digits)).value_or(0);
    };
    return Runtime::concat("peer: priority ", number(2, 2), ", VLAN ", number(4, 4));
}

void PortFollower::tell(IntfId intf, const std::string& field, const std::string& before,
                        const std::string& after) {
    Event event;
    event.kind = Kind::port;
    event.intf = intf;
    event.field = field;
    event.before = before;
    event.after = after;
    records_.journal->add(std::move(event));
}

}  // namespace History
