#include "programs/sim/LearnCommand.h"

#include "Control/Client.h"
#include "Plan/DotText.h"
#include "Plan/Learn.h"
#include "programs/Neighbours.h"

#include <algorithm>
#include <fstream>
#include <iostream>

namespace {

struct Source {
    std::string name;
    std::string socket;
};

bool isPlainName(const std::string& name) {
    constexpr const char* good = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    return !name.empty() && name.find_first_not_of(good) == std::string::npos;
}

std::vector<Source> sourcesIn(const std::vector<std::string>& words) {
    std::vector<Source> sources;
    sources.reserve(words.size());
    for (const std::string& word : words) {
        // A path may have a '=' in it, too.
        const auto equals = word.find('=');
        const bool named = equals != std::string::npos && word.find('/') > equals;
        Source source{named ? word.substr(0, equals) : "sw" + std::to_string(sources.size() + 1),
                      named ? word.substr(equals + 1) : word};
        if (!isPlainName(source.name) || source.socket.empty())
            throw Failure{"\"" + word +
                              "\": expected SOCKET or NAME=SOCKET, with a name of letters, digits, '.', '_' "
                              "and '-'",
                          usage};
        if (std::ranges::find(sources, source.name, &Source::name) != sources.end())
            throw Failure{"\"" + word + "\": there is another bridge " + source.name, usage};
        sources.push_back(std::move(source));
    }
    if (sources.empty()) sources.push_back({"sw1", std::string{Control::defaultSocket}});
    return sources;
}

Plan::KnownLink linkIn(const std::string& word) {
    Plan::KnownLink link;
    const auto dash = word.find("--");
    const std::string ends[2] = {word.substr(0, dash),
                                 dash == std::string::npos ? std::string{} : word.substr(dash + 2)};
    for (std::size_t i = 0; i < 2; ++i) {
        const auto colon = ends[i].find(':');
        if (colon == std::string::npos)
            throw Failure{"--link \"" + word + "\": expected like sw1:swp2--sw2:swp1", usage};
        link.ends[i] = {ends[i].substr(0, colon), ends[i].substr(colon + 1)};
    }
    return link;
}

Plan::RunningBridge ask(const Source& source) {
    Plan::RunningBridge bridge{.name = source.name};
    Control::Client client;
    demand(client.connect(source.socket));
    for (const std::string& path : Plan::learntRecords()) {
        State::Value reply;
        const State::Value request{State::Object{{"op", State::Value{"get"}}, {"path", State::Value{path}}}};
        if (const std::string problem = client.ask(request, reply); !problem.empty())
            throw Failure{problem.find(source.socket) != std::string::npos
                              ? problem
                              : "socket " + source.socket + ": " + problem};
        bridge.records.records[path] = Show::at(reply, {"value"});
    }
    return bridge;
}

}  // namespace

ExitCode LearnCommand::run() const {
    const std::vector<Source> sources = sourcesIn(sockets);
    std::vector<Plan::KnownLink> known;
    known.reserve(links.size());
    for (const std::string& word : links) known.push_back(linkIn(word));
    std::vector<Plan::RunningBridge> bridges;
    bridges.reserve(sources.size());
    for (const Source& source : sources) bridges.push_back(ask(source));
    Show::BridgeNames names;
    names.neighboursAre(lldpNeighbours());
    const Plan::Learnt learnt = Plan::learn(bridges, known, names);
    if (!learnt.problem.empty()) throw Failure{"--link: " + learnt.problem, usage};
    std::string text;
    for (const std::string& note : learnt.notes) text += "// " + note + '\n';
    text += Plan::dotText(learnt.network);
    if (out.empty()) {
        std::cout << text;
        return done;
    }
    std::ofstream file{out, std::ios::binary};
    file << text << std::flush;
    if (!file) throw Failure{out + ": cannot be written"};
    for (const std::string& note : learnt.notes) std::cerr << "msrpsim: " << note << '\n';
    return done;
}
