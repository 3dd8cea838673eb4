/// An AVB end station on one interface: talks and listens to streams and prints what it hears.
///
/// Exit codes: 0 stopped by a signal, 1 cannot run here (privileges), 2 wrong usage.
#include "Control/Json.h"
#include "Linux/doctor/Capabilities.h"
#include "Linux/kernel/EpollLoop.h"
#include "Linux/kernel/Signals.h"
#include "Linux/links/LinkAgent.h"
#include "Linux/ports/PacketPorts.h"
#include "Show/StreamReport.h"
#include "Station/EndStation.h"
#include "programs/CommandLine.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Msrp::U16;
using Msrp::U64;

constexpr std::string_view streamForm = "0x... or like 00:11:22:33:44:55/1";
constexpr std::string_view talkForm = "STREAM,DA,VLAN,CLASS,MAXFRAME,FRAMES[,RANK]";

struct Options {
    std::string interface;
    std::vector<Station::TalkerSpec> talks;
    std::vector<U64> listens;
    bool watch = false;
    bool json = false;
};

/// A bad part of an argument: which, what was given, what is expected.
Failure bad(std::string_view option, std::string_view part, std::string_view given,
            std::string_view expected) {
    return Failure{
        Runtime::concat(option, ": ", part, part.empty() ? "" : " ", '"', given, "\" is not ", expected),
        usage};
}

U64 stream(std::string_view option, std::string_view given) {
    const auto id = Show::parseStream(given);
    if (!id) throw bad(option, "STREAM", given, streamForm);
    return *id;
}

U16 wholeNumber(std::string_view part, std::string_view given, U16 min, U16 max) {
    const auto number = State::parseDecimal(given, max);
    if (!number || *number < min)
        throw bad("--talk", part, given, Runtime::concat("a whole number from ", min, " to ", max));
    return static_cast<U16>(*number);
}

/// The parts between commas.
std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> parts{""};
    for (const char c : text) {
        if (c == ',') {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

Station::TalkerSpec talker(const std::string& given) {
    const std::vector<std::string> parts = split(given);
    if (parts.size() < 6 || parts.size() > 7) throw bad("--talk", "", given, talkForm);
    Station::TalkerSpec spec;
    spec.streamId = stream("--talk", parts[0]);
    const auto address = EthAddr::parse(parts[1]);
    if (!address) throw bad("--talk", "DA", parts[1], State::KeyText<EthAddr>::expected());
    spec.macDa = *address;
    spec.vlan = wholeNumber("VLAN", parts[2], VlanId::min, VlanId::max);
    if (parts[3] != "A" && parts[3] != "B") throw bad("--talk", "CLASS", parts[3], "A or B");
    spec.priority = parts[3] == "A" ? 3 : 2;
    spec.maxFrameSize = wholeNumber("MAXFRAME", parts[4], 1, 65535);
    spec.maxIntervalFrames = wholeNumber("FRAMES", parts[5], 1, 65535);
    if (parts.size() == 7) spec.rank = static_cast<Msrp::U8>(wholeNumber("RANK", parts[6], 0, 1));
    return spec;
}

class StationProgram {
public:
    explicit StationProgram(const Options& options) : options_{options} {}

    void run() {
        std::string problem = Linux::packetSocketProblem();
        if (problem.empty()) problem = devices_.start();
        demand(problem);
        const IntfId intf{options_.interface};
        links_.followIs(intf);
        if (status_->intfStatus(intf)->macAddr() == EthAddr{})
            complain(intf.name() + " does not exist yet, waiting for it");
        Station::EndStation station{intf,
                                    {.loop = loop_,
                                     .ports = ports_,
                                     .trace = trace_,
                                     .links = status_,
                                     .seed = std::random_device{}(),
                                     .tell = [this](const Station::Event& event) { print(event); },
                                     .report = complain}};
        for (const Station::TalkerSpec& spec : options_.talks) station.talk(spec);
        for (const U64 id : options_.listens) station.listen(id);
        loop_.run();
        station.leave();
    }

private:
    static void complain(const std::string& line) { std::cerr << line << '\n'; }

    void print(const Station::Event& event) const {
        if (!concerns(event)) return;
        std::cout << (options_.json ? Control::jsonText(Station::value(event)) : Station::text(event)) << '\n'
                  << std::flush;
    }
    /// Without `--watch`, of other stations' streams only those that this one talks or listens to.
    [[nodiscard]] bool concerns(const Station::Event& event) const {
        if (options_.watch) return true;
        if (const auto* e = std::get_if<Station::TalkerEvent>(&event))
            return std::ranges::find(options_.listens, e->streamId) != options_.listens.end();
        if (const auto* e = std::get_if<Station::ListenerEvent>(&event))
            return std::ranges::find(options_.talks, e->streamId, &Station::TalkerSpec::streamId) !=
                   options_.talks.end();
        return true;
    }

    const Options& options_;
    Linux::EpollLoop loop_;
    Linux::Signals signals_{loop_, [this](int) { loop_.stop(); }};
    Runtime::Trace trace_;
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status_ =
        std::make_shared<Interface::AllEthPhyIntfStatusDir>();
    Linux::PacketPorts ports_{loop_, {}, complain};
    Linux::DeviceTable devices_{loop_, complain};
    Linux::LinkAgent links_{devices_, status_, nullptr, [this](IntfId intf, const Linux::Place& place) {
                                ports_.interfaceIs(intf, place);
                            }};
};

ExitCode run(const Options& options) {
    // That the reader of our lines goes away must not end the station without its Leaves.
    std::signal(SIGPIPE, SIG_IGN);
    StationProgram{options}.run();
    return done;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::vector<std::string> talks;
    std::vector<std::string> listens;
    Program program{
        "msrp-station",
        "An AVB end station: talks and listens to streams, and prints what it hears, a line for each change"};
    program.text("--interface", "Its network interface", options.interface, Words::Need::required)
        .texts("--talk",
               "Talks a stream: " + std::string{talkForm} + ", CLASS is A or B, RANK 0 for emergencies",
               talks)
        .texts("--listen", "Listens to a stream: " + std::string{streamForm}, listens)
        .flag("--watch", "Prints what it hears of others' streams, too", options.watch)
        .flag("--json", "One JSON object on each line", options.json);
    return program.run(argc, argv, [&] {
        if (!IntfId::validName(options.interface))
            throw bad("--interface", "", options.interface, State::KeyText<IntfId>::expected());
        for (const std::string& given : talks) options.talks.push_back(talker(given));
        for (const std::string& given : listens) options.listens.push_back(stream("--listen", given));
        if (options.talks.empty() && options.listens.empty() && !options.watch)
            throw Failure{"nothing to do: give --talk, --listen or --watch", usage};
        return run(options);
    });
}
