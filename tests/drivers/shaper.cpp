/// Shapes the ports of a bridge as lines on the standard input say, for tests by hand or by a script.
///
///     shaper BRIDGE {automatic|hardware|software|htb|none}
///
/// Lines: "PORT A B" reserves so many kbit/s for class A and B, "audit" and "repair" print the differences,
/// "show" prints what the machine can do and how the ports are shaped; each is answered by lines that end
/// with ".".  The end of the input gives the queues back.
#include "Linux/Capabilities.h"
#include "Linux/EpollLoop.h"
#include "Linux/ShaperAgent.h"

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

namespace {

class Driver {
public:
    Driver(const std::string& bridge, Linux::Shaping shaping) {
        config_->bridgeIs(bridge);
        config_->shapingIs(shaping);
        capabilities_->abilitiesAre(Linux::probeAbilities());
        for (const auto& line : Linux::limitations(capabilities_->abilities())) say(line);
    }

    std::string run() {
        std::string problem = kernel_.open();
        if (problem.empty()) problem = agent_.start(Runtime::Duration{});
        if (problem.empty()) problem = devices_.start();
        if (!problem.empty()) return problem;
        const auto input = loop_.watch(0, Runtime::FdLoop::Ready::readable, [this] {
            std::string line;
            if (std::getline(std::cin, line)) {
                obey(line);
            } else {
                loop_.stop();
            }
        });
        loop_.run();
        agent_.stop();
        return {};
    }

private:
    static void say(const std::string& line) { std::cout << line << std::endl; }

    void carryOut() {
        agent_.raise();
        agent_.lower();
    }

    void obey(const std::string& line) {
        std::istringstream words{line};
        std::string first;
        words >> first;
        if (first == "audit" || first == "repair") {
            for (const auto& difference : agent_.audit(first == "repair")) say(difference);
        } else if (first == "show") {
            for (const auto& [name, ability] : Linux::CapabilityStatus::abilityFields)
                say(std::string{name} + ' ' + State::enumText(capabilities_->abilities().*ability));
            capabilities_->shaping().each([](IntfId intf, const Linux::ShapingStatus& port) {
                say(intf.name() + ' ' + State::enumText(port.shaper()) + ' ' + port.why());
            });
        } else {
            std::uint64_t a = 0;
            std::uint64_t b = 0;
            words >> a >> b;
            reserve(IntfId{first}, 3, a);
            reserve(IntfId{first}, 2, b);
            carryOut();
        }
        say(".");
    }

    void reserve(IntfId intf, std::uint8_t priority, std::uint64_t rate) {
        const auto tc = hardware_->defaultCosToTc().get(Cos{priority});
        const Qos::TxQueue queue{hardware_->defaultTcToTxQueue().get(tc), Qos::TxQueueType::unicast};
        const auto port = wanted_->intfConfigIs(intf);
        if (rate == 0) return port->txQueueConfigDel(queue);
        port->txQueueConfigIs(queue, 2, Qos::noPercent, {ShapeRateVal{rate}, 0}, Qos::noGuaranteedBw);
    }

    Linux::EpollLoop loop_;
    std::shared_ptr<Linux::Config> config_ = std::make_shared<Linux::Config>();
    std::shared_ptr<Qos::Input::Config> wanted_ = std::make_shared<Qos::Input::Config>();
    std::shared_ptr<Qos::HwStatus> hardware_ = std::make_shared<Qos::HwStatus>();
    std::shared_ptr<Linux::CapabilityStatus> capabilities_ = std::make_shared<Linux::CapabilityStatus>();
    Linux::DeviceTable devices_{loop_, say};
    Linux::NetlinkRequests kernel_;
    Linux::ShaperAgent agent_{loop_,
                              devices_,
                              kernel_,
                              {config_, wanted_, std::make_shared<Qos::Status>(), hardware_, capabilities_},
                              [this] { loop_.post([this] { carryOut(); }); },
                              say};
};

}  // namespace

int main(int argc, char** argv) {
    const auto shaping =
        argc == 3 ? State::Codec<Linux::Shaping>::decode(State::Value{argv[2]}) : std::nullopt;
    if (!shaping) {
        std::cerr << "usage: shaper BRIDGE {automatic|hardware|software|htb|none}\n";
        return 2;
    }
    const std::string problem = Driver{argv[1], *shaping}.run();
    if (!problem.empty()) std::cerr << "shaper: " << problem << '\n';
    return problem.empty() ? 0 : 1;
}
