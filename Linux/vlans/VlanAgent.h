/// Gives the bridge's ports the VLANs that are asked for, and takes them back.
///
/// Only what it has added is ever deleted: a membership that is there already is somebody else's, and stays
/// one.  What an earlier life of the daemon added is known from a file, and kept for some time, until those
/// who still want it have said so.
#pragma once

#include "Linux/bridge/BridgeAgent.h"
#include "Linux/kernel/Contention.h"
#include "Linux/vlans/OwnedVlans.h"
#include "Switch/VlanMembers.h"

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Linux {

class VlanAgent {
public:
    /// Longest time after a start until memberships that are still wanted have been asked for again.
    static constexpr Runtime::Duration defaultSettling = std::chrono::seconds{20};

    /// Loop, devices, kernel and bridge must outlive it; `files` is what the path of its file begins with.
    VlanAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& kernel, BridgeAgent& bridge,
              std::shared_ptr<const Bridging::VlanRequests> requests,
              std::shared_ptr<Bridging::VlanMembers> members, Report report, const std::string& files);

    void start(Runtime::Duration settling = defaultSettling);
    /// Deletes all that is ours, and does nothing from then on.
    void stop();
    /// What is not as it should be, a line for each; `repair` tries again what was refused or left alone.
    [[nodiscard]] std::vector<std::string> audit(bool repair);

private:
    struct Port {
        VlanSet ours;
        State::FlatMap<VlanId, std::uint32_t> flushed;  ///< what was forgotten, by its count
        Runtime::Time mayForget{};
        std::string problem;
        Runtime::Time again{};  ///< not asked before that
        Runtime::Duration patience{};
    };

    void carryOut();
    /// There is no bridge of that name any more.
    void leaveBridge();
    /// Takes over what the kernel has, and forgets what has gone.
    void adopt(unsigned bridge);
    void settlePort(unsigned ifindex, Port& port, bool all);
    [[nodiscard]] VlanSet present(unsigned ifindex) const;
    [[nodiscard]] VlanSet wanted(unsigned ifindex) const;
    [[nodiscard]] std::string nameOf(unsigned ifindex) const;
    /// Asks for them one span after the other, as far as the turn's allowance goes; those that the kernel has
    /// carried out.
    VlanSet ask(unsigned ifindex, Port& port, const VlanSet& vlans, bool join);
    void forget(unsigned bridge, unsigned ifindex, Port& port);
    /// To be carried out then, at the latest.
    void comeBack(Runtime::Time when);
    void say(const std::string& line);
    void failed(unsigned ifindex, Port& port, const std::string& why);
    void remember();
    void publish();

    Runtime::FdLoop& loop_;
    DeviceTable& devices_;
    NetlinkChannel& kernel_;
    BridgeAgent& bridge_;
    const std::shared_ptr<const Bridging::VlanRequests> requests_;
    const std::shared_ptr<Bridging::VlanMembers> members_;
    const Report report_;
    OwnedVlans owned_;
    std::map<unsigned, Port> ports_;
    Contentions<std::pair<unsigned, VlanId>> contentions_;
    std::set<std::string> told_;
    unsigned bridgeWas_ = 0;
    std::size_t allowance_ = 0;  ///< requests that this turn may still make
    bool running_ = false;
    bool settling_ = false;
    Runtime::Timer due_;
    Runtime::Timer settled_;
    State::Reactor reactor_;
};

}  // namespace Linux
