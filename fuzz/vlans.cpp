/// A bridge that registers VLANs, with hostile peers on all ports: what it declares and carries follows from
/// what is registered and configured, nothing is left of who falls silent, and what it sends has no flaw.
#include "Mrp/PduWriter.h"
#include "Mvrp/Application.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "fuzz/Check.h"
#include "fuzz/Input.h"

#include <array>
#include <string>
#include <vector>

namespace Fuzz {
namespace {

using namespace std::chrono_literals;

constexpr int maxSteps = 60;
constexpr std::size_t portCount = 3;

Mrp::DecodedPdu decodedVlans(std::span<const std::uint8_t> pdu) {
    Mrp::DecodedPdu out;
    Mrp::decode(pdu, Mvrp::application(), out);
    return out;
}

/// Writing what was read and reading it again gives the same.
void checkRewritten(const Mrp::DecodedPdu& read) {
    Mrp::PduWriter writer{Mvrp::application(), read.leaveAll.any()};
    for (const Mrp::DecodedEvent& event : read.events) {
        if (!writer.add(0, event.event, event.value))
            return;  // more than one frame, written worse than it came
    }
    if (writer.empty()) return;
    const auto octets = writer.finish();
    const Mrp::DecodedPdu again = decodedVlans(octets);
    check(again.flaws.empty() && again.leaveAll == read.leaveAll, "a PDU is written with a flaw");
    check(std::equal(again.events.begin(), again.events.end(), read.events.begin()) &&
              again.events.size() == read.events.size(),
          "events changed when they were written and read");
}

class Script {
public:
    explicit Script(Input in) : in_{in} {
        bridge_.database().entityIs<Mrp::MrpConfig>("mvrp/mrp/config")->leaveAllTimeIs(1000);
        for (const std::string& port : ports) {
            bridge_.mvrpPorts().cableIs(IntfId{port}, [](const Sim::Pdu& pdu) {
                check(decodedVlans(pdu).flaws.empty(), "a PDU was sent with a flaw");
            });
            bridge_.mvrpConfig->allowedIs(IntfId{port}, *parseVlans("2-40,4094"));
        }
        bridge_.start();
        bridge_.mvrpStart();
        loop_.runFor(1s);
    }
    void run() {
        for (int step = 0; step < maxSteps && !in_.empty(); ++step) {
            act();
            loop_.runFor(1ms);
            checkAll();
        }
        for (const std::string& port : ports) bridge_.linkIs(port, true);
        loop_.runFor(10s);
        checkAll();
        for (const std::string& port : ports)
            check(bridge_.mvrpStatus->intfStatusIs(IntfId{port})->registered().none(),
                  "a registration is left");
    }

private:
    const std::vector<std::string> ports{"p1", "p2", "p3"};

    void act() {
        const std::string& port = ports[in_.pick(portCount)];
        switch (in_.pick(16)) {
            case 0:
                up_[port] = !up_[port];
                return bridge_.linkIs(port, !up_[port]);
            case 1:
                return bridge_.vlanIs(static_cast<std::uint16_t>(1 + in_.pick(40)), port, in_.pick(2) == 0);
            case 2:
                return bridge_.mvrpConfig->allowedIs(IntfId{port}, VlanSet{in_.u16()} & ~VlanSet{1});
            case 3:
            case 4:
            case 5:
                return loop_.runFor(std::chrono::milliseconds{in_.u16() % 3000});
            default:
                break;
        }
        std::vector<std::uint8_t> pdu{0, 1, 2};
        if (in_.pick(8) == 0) pdu.clear();
        for (std::size_t length = in_.u8(); length > 0 && !in_.empty(); --length) pdu.push_back(in_.u8());
        checkRewritten(decodedVlans(pdu));
        bridge_.mvrpPorts().deliver(IntfId{port}, pdu);
    }

    void checkAll() {
        std::map<IntfId, Mvrp::PortVlans> vlans;
        bridge_.mvrpStatus->intfStatus().each([&](IntfId intf, const Mvrp::IntfStatus& status) {
            VlanSet all;
            all.set();
            vlans[intf] = {status.registered(), status.fixed(), all};
        });
        for (const auto& port : Mvrp::declarations(vlans)) {
            const IntfId intf = port.first;
            const VlanSet& declared = port.second;
            const auto status = bridge_.mvrpStatus->intfStatusIs(intf);
            check(status->declared() == (declared & ~VlanSet{1}), intf, " declares ",
                  vlanText(status->declared()), " instead of ", vlanText(declared));
            bridge_.bridging->vlanConfig().each([&](VlanId vlan, const Bridging::VlanConfig& config) {
                const bool wanted =
                    status->registered().test(vlan.value()) || status->fixed().test(vlan.value());
                check(wanted == (config.intf(intf) != nullptr), intf, " and VLAN ", vlan);
            });
        }
    }

    Input in_;
    Runtime::VirtualLoop loop_;
    Sim::Bridge bridge_{loop_, ports};
    std::map<std::string, bool> up_;  ///< is down
};

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::Script{Fuzz::Input{{data, size}}}.run();
    return 0;
}
