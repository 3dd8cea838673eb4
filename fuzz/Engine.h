/// An MRP engine under test with an application that keeps books: what it was told to be registered, and what
/// it declares, must at any time be what the engine has.
#pragma once

#include "Mrp/MrpLib.h"
#include "Mrp/MrpSm.h"
#include "Runtime/Loop.h"
#include "Sim/Peer.h"
#include "Sim/Ports.h"
#include "fuzz/Check.h"
#include "fuzz/Frames.h"
#include "fuzz/Sent.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <tuple>
#include <vector>

namespace Fuzz {

class Engine : private Mrp::MrpLib {
public:
    /// By port, type and key.
    using Books = std::map<std::tuple<IntfId, std::uint8_t, std::uint64_t>, Mrp::AttributeValue>;

    Engine(Runtime::Loop& loop, std::vector<IntfId> ports, std::uint64_t seed)
        : Mrp::MrpLib{Msrp::application()}, loop_{loop}, ports_{std::move(ports)}, wire_{loop} {
        engine_ = std::make_unique<Mrp::MrpSm>(Mrp::Inputs{
            .brConfig = nullptr,
            .application = *this,
            .mrpConfig = config,
            .mrpStatus = status_,
            .attributes = nullptr,
            .stpStatus = nullptr,
            .topoConfig = nullptr,
            .ethPhyIntfStatusDir = links_,
            .environment =
                {.loop = loop, .ports = wire_, .trace = trace_, .report = [](auto&&...) {}, .seed = seed},
            .standbyMode = false});
        for (const IntfId intf : ports_) {
            cableIs(intf, [](const Sim::Pdu&) {});
            linkIs(intf, true);
            enable(intf);
        }
    }

    /// Who gets the frames of a port; they have been judged by then.
    void cableIs(IntfId intf, Sim::Ports::Handler farEnd) {
        wire_.cableIs(intf, [this, intf, farEnd = std::move(farEnd)](const Sim::Pdu& pdu) {
            ++sent_[intf];
            checkSent(pdu);
            farEnd(pdu);
        });
    }
    /// Hands a frame to a port, one task later on the loop.
    void hear(IntfId intf, const Sim::Pdu& pdu) {
        loop_.post([this, intf] {
            if (active(intf)) ++received_[intf];
        });
        wire_.deliver(intf, pdu);
    }

    // --- What is asked of the engine -------------------------------------------------------------

    void declare(IntfId intf, const Sim::Say& what) {
        if (active(intf)) declared_[nameOf(intf, what)] = valueOf(what);
        request(intf, what, Mrp::requestDeclare);
    }
    void withdraw(IntfId intf, const Sim::Say& what) {
        declared_.erase(nameOf(intf, what));
        request(intf, what, Mrp::requestWithdraw);
    }
    void forget(IntfId intf, const Sim::Say& what) {
        declared_.erase(nameOf(intf, what));
        held_.erase(nameOf(intf, what));
        request(intf, what, Mrp::requestInternalLeave);
    }
    /// As after a take-over.
    void seed(IntfId intf, const Sim::Say& what) {
        if (active(intf) && !registered(nameOf(intf, what))) {
            held_[nameOf(intf, what)] = valueOf(what);
            ++seeds_;
        }
        request(intf, what, Mrp::requestSeed);
    }
    void purge(IntfId intf, std::uint8_t type, std::uint64_t key) {
        held_.erase({intf, type, key});
        mrpCleanUpIntfDatabaseAttribute(intf, type, key);
    }
    void purgeAll(IntfId intf) {
        drop(held_, intf);
        mrpCleanUpIntfDatabase(intf);
    }
    void enable(IntfId intf) {
        enabled_.insert(intf);
        mrpInterfaceEnable(intf);
    }
    void disable(IntfId intf) {
        enabled_.erase(intf);
        drop(held_, intf);
        drop(declared_, intf);
        mrpInterfaceDisable(intf);
    }
    void enabledIs(IntfId intf, bool enabled) { enabled ? enable(intf) : disable(intf); }
    [[nodiscard]] bool enabled(IntfId intf) const { return enabled_.contains(intf); }
    void standbyIs(bool standby) {
        standby_ = standby;
        if (standby) {
            held_.clear();
            declared_.clear();
        }
        engine_->standbyModeIs(standby);
        engine_->handleStandbyMode();
    }
    [[nodiscard]] bool standby() const { return standby_; }
    void linkIs(IntfId intf, bool up) {
        links_->intfStatusIs(intf)->linkStatusIs(up ? Interface::LinkStatus::linkUp
                                                    : Interface::LinkStatus::linkDown);
    }
    void sendLeaveAll(IntfId intf) { periodicSm()->transmitAllLeaveAll(intf); }
    void withdrawAll() {
        for (const auto& [name, value] : Books{declared_}) {
            const auto& [intf, type, key] = name;
            withdraw(intf, {Mrp::Event::Lv,
                            type,
                            {value.octets.begin(), value.octets.begin() + length(type)},
                            value.declaration});
        }
    }
    /// The application takes every second key amiss in a way of its own: refuses it, throws, purges, ends the
    /// port, and so on, from inside the indication.  `turn` decides which keys; 0 accepts all.
    void temperIs(std::uint8_t turn) { temper_ = turn; }

    [[nodiscard]] const Books& declared() const { return declared_; }
    [[nodiscard]] const Books& held() const { return held_; }
    /// Everything that the engine knows of a port.
    [[nodiscard]] std::size_t attributes(IntfId intf) const {
        std::size_t count = 0;
        engine_->eachAttribute(intf, [&](const auto&, const auto&) { ++count; });
        return count;
    }
    [[nodiscard]] std::size_t registrations(IntfId intf) const {
        std::size_t count = 0;
        engine_->eachAttribute(intf, [&](const auto&, const Mrp::Attribute& attribute) {
            if (attribute.registered()) ++count;
        });
        return count;
    }

    // --- What must hold --------------------------------------------------------------------------

    /// Between two turns of the loop.
    void checkBooks() {
        Books declared;
        Books held;
        for (const IntfId intf : ports_) {
            std::array<std::size_t, Mrp::maxTypes> registered{};
            engine_->eachAttribute(intf, [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
                const auto type = Msrp::application().types[ref.typeIndex].type;
                const std::tuple name{intf, type, ref.key};
                if (Mrp::isMember(attribute.applicant)) declared[name] = attribute.own();
                if (attribute.registered()) ++registered[ref.typeIndex];
                if (attribute.held) held[name] = attribute.accepted();
                check(!attribute.held || attribute.registered(), "held without being registered");
                check(!attribute.refused || attribute.registered(), "refused without being registered");
            });
            checkLimit(intf, registered);
            checkCounters(intf);
        }
        seeds_ = 0;
        check(declared == declared_, "the engine declares something else than the application");
        check(held == held_, "the engine has something else registered than the application knows");
    }

    const std::shared_ptr<Mrp::MrpConfig> config = std::make_shared<Mrp::MrpConfig>();

private:
    using Name = Books::key_type;
    using Counters = std::vector<std::uint64_t>;

    [[nodiscard]] const std::type_info& fwkType() const override { return typeid(Engine); }
    [[nodiscard]] bool active(IntfId intf) const { return !standby_ && enabled_.contains(intf); }
    static const Mrp::AttributeType& typeOf(std::uint8_t type) {
        return Msrp::application().types[type - 1U];
    }
    static std::ptrdiff_t length(std::uint8_t type) { return typeOf(type).valueLength; }
    static Name nameOf(IntfId intf, const Sim::Say& what) {
        return {intf, what.type, typeOf(what.type).key(what.value)};
    }
    static void drop(Books& books, IntfId intf) {
        std::erase_if(books, [intf](const auto& entry) { return std::get<0>(entry.first) == intf; });
    }
    [[nodiscard]] bool registered(const Name& name) const {
        bool found = false;
        engine_->eachAttribute(std::get<0>(name),
                               [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
                                   if (ref.typeIndex + 1 == std::get<1>(name) && ref.key == std::get<2>(name))
                                       found = attribute.registered();
                               });
        return found;
    }
    void request(IntfId intf, const Sim::Say& what, std::uint8_t kind) {
        const Mrp::AttributeValue value = valueOf(what);
        outgoing(what.type) = {.value = value.octets, .declaration = value.declaration};
        mrpOutIntfQueueEnq(intf);
        mrpSendAttribute({.intf = intf, .attributeType = what.type, .request = kind});
    }
    [[nodiscard]] Sim::Say indicated(const Mrp::MrpParameters& params) const {
        const Mrp::AttributeSlot& slot = incoming(params.attributeType);
        return {Mrp::Event::JoinMt,
                params.attributeType,
                {slot.value.begin(), slot.value.begin() + length(params.attributeType)},
                static_cast<std::uint8_t>(slot.declaration)};
    }
    /// The port beside it; the same one when there is no other.
    [[nodiscard]] IntfId otherPort(IntfId intf) const {
        return ports_.front() == intf ? ports_.back() : ports_.front();
    }

    std::uint8_t mrpJoinIndication(const Mrp::MrpParameters& params) override {
        const Sim::Say what = indicated(params);
        const IntfId intf = params.intf;
        const Name name = nameOf(intf, what);
        check(active(intf), "a join from a port that has ended");
        if (temper_ != 0) {
            switch ((std::get<2>(name) + temper_) % 16) {
                case 1:
                    return 1;
                case 3:
                    throw std::range_error("value out of range");
                case 5:
                    purge(intf, what.type, std::get<2>(name));
                    return 0;
                case 7:
                    disable(intf);
                    loop_.post([this, intf] { enable(intf); });
                    return 0;
                case 9:
                    purgeAll(intf);
                    return 0;
                case 11:
                    declare(intf, what);
                    break;
                case 13:
                    // What was refused before stays registered, and is accepted now.
                    forget(intf, what);
                    if (!registered(name)) return 0;
                    break;
                case 15:
                    // Both kinds of talker declaration replace each other.
                    if (what.type < 3)
                        purge(intf, static_cast<std::uint8_t>(3 - what.type), std::get<2>(name));
                    break;
                default:
                    declare(otherPort(intf), what);
                    break;
            }
        }
        held_[name] = valueOf(what);
        return 0;
    }
    void mrpLeaveIndication(const Mrp::MrpParameters& params) override {
        const Sim::Say what = indicated(params);
        const IntfId intf = params.intf;
        const Name name = nameOf(intf, what);
        const auto at = held_.find(name);
        check(at != held_.end() && at->second == valueOf(what), "a leave of what was not registered");
        held_.erase(at);
        if (temper_ == 0) return;
        switch ((std::get<2>(name) + temper_) % 16) {
            case 3:
                throw std::range_error("value out of range");
            case 7:
                disable(intf);
                enable(intf);
                break;
            case 9:
                purgeAll(intf);
                break;
            case 13:
                forget(intf, what);
                break;
            default:
                withdraw(otherPort(intf), what);
                break;
        }
    }

    /// No more are registered than the limit allows, except what was there before the limit came down.
    void checkLimit(IntfId intf, const std::array<std::size_t, Mrp::maxTypes>& registered) {
        auto& before = registered_[intf];
        for (std::size_t i = 0; i < registered.size(); ++i) {
            const std::size_t most =
                std::max<std::size_t>(before[i], config->maxAttributesPerType()) + seeds_;
            check(registered[i] <= most, registered[i], " attributes of a type where ", most, " may be");
        }
        before = registered;
    }
    /// Nothing is counted backwards, and every frame is counted once.
    void checkCounters(IntfId intf) {
        const std::shared_ptr<const Mrp::MrpIntfStatus> counts = status_->intf(intf);
        check(counts->rxPdus() == received_[intf], counts->rxPdus(), " frames counted of ", received_[intf],
              " received");
        check(counts->txPdus() == sent_[intf], counts->txPdus(), " frames counted of ", sent_[intf], " sent");
        Counters now{counts->refusedJoins(), counts->rangeErrors(), counts->droppedRegistrations()};
        for (const auto& kind : Mrp::eventNames) {
            now.push_back(counts->rxEvents(kind.value));
            now.push_back(counts->txEvents(kind.value));
        }
        for (const auto& reason : Mrp::malformedNames) now.push_back(counts->malformed(reason.value));
        Counters& before = counters_[intf];
        before.resize(now.size());
        check(std::equal(now.begin(), now.end(), before.begin(), std::greater_equal<>{}),
              "a counter went backwards");
        before = std::move(now);
    }

    Runtime::Loop& loop_;
    const std::vector<IntfId> ports_;
    Sim::Ports wire_;
    Runtime::Trace trace_;
    std::shared_ptr<Mrp::MrpStatus> status_ = std::make_shared<Mrp::MrpStatus>();
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> links_ =
        std::make_shared<Interface::AllEthPhyIntfStatusDir>();
    std::set<IntfId> enabled_;
    bool standby_ = false;
    std::uint8_t temper_ = 0;
    Books declared_;
    Books held_;
    std::size_t seeds_ = 0;  ///< since the books were checked; what is taken over does not ask for the limit
    std::map<IntfId, std::uint64_t> received_;
    std::map<IntfId, std::uint64_t> sent_;
    std::map<IntfId, std::array<std::size_t, Mrp::maxTypes>> registered_;
    std::map<IntfId, Counters> counters_;
    std::unique_ptr<Mrp::MrpSm> engine_;
};

}  // namespace Fuzz
