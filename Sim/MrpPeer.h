/// The far end of a bridge's port with an MRP engine of its own: declares what it is told, answers every
/// LeaveAll as the protocol asks, and knows what the bridge has registered with it.
#pragma once

#include "Mrp/MrpLib.h"
#include "Mrp/MrpSm.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"

#include <map>
#include <memory>
#include <string>
#include <utility>

namespace Sim {

class MrpPeer : private Mrp::MrpLib {
public:
    /// By attribute type and key; the text is that of `describe`.
    using Attributes = std::map<std::pair<std::uint8_t, std::uint64_t>, std::string>;

    /// Puts itself at the far end of the bridge's port; the bridge and the loop must outlive it.
    MrpPeer(Runtime::Loop& loop, Bridge& bridge, const std::string& port, std::uint64_t seed);
    ~MrpPeer() override;

    /// Puts its end of the cable into another port, maybe of another bridge; neither side sees its link fall.
    void moveTo(Bridge& bridge, const std::string& port);

    /// Declares or withdraws the value; the event of `what` plays no part.
    void declare(const Say& what) { request(what, Mrp::requestDeclare); }
    void withdraw(const Say& what) { request(what, Mrp::requestWithdraw); }
    /// Forgets it on both sides without a word, as who is about to declare what replaces it.
    void forget(const Say& what) { request(what, Mrp::requestInternalLeave); }
    /// The link goes down (nothing passes, everything is forgotten) or comes up (everything is declared
    /// anew).
    void linkIs(bool up);

    /// Leaves indicated so far.
    [[nodiscard]] std::size_t leaves() const { return leaves_; }
    [[nodiscard]] const Attributes& declared() const { return declared_; }
    [[nodiscard]] const Attributes& registered() const { return registered_; }

private:
    [[nodiscard]] const std::type_info& fwkType() const override { return typeid(MrpPeer); }
    std::uint8_t mrpJoinIndication(const Mrp::MrpParameters& params) override;
    void mrpLeaveIndication(const Mrp::MrpParameters& params) override;
    void request(const Say& what, std::uint8_t kind);

    Runtime::Trace trace_;
    Ports ports_;
    IntfId intf_;
    bool up_ = true;
    const Bridge* bridge_ = nullptr;  ///< whose frames count
    std::size_t leaves_ = 0;
    Attributes declared_;
    Attributes registered_;
    std::map<std::pair<std::uint8_t, std::uint64_t>, Say> values_;  ///< what `declared_` describes
    std::unique_ptr<Mrp::MrpSm> engine_;
};

}  // namespace Sim
