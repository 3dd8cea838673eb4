#include "programs/FleetCommand.h"

#include "Control/Client.h"
#include "Control/Json.h"
#include "Linux/kernel/EpollLoop.h"
#include "Linux/records/Config.h"
#include "Linux/records/GroupStatus.h"
#include "Msrp/types/Config.h"
#include "Msrp/types/Status.h"
#include "Msrp/types/Waiting.h"
#include "Runtime/Text.h"
#include "Show/Fleet.h"
#include "Show/Log.h"
#include "Store/Config.h"
#include "Store/Finder.h"
#include "Store/Follower.h"
#include "Store/Scripts.h"
#include "Switch/Bridging.h"
#include "Switch/BridgingInput.h"
#include "Switch/Interface.h"
#include "Switch/Refusals.h"
#include "programs/StoreOptions.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <set>
#include <vector>

namespace {

using Runtime::concat;
using Store::Reply;
using Command = std::vector<std::string>;

constexpr std::chrono::seconds storePatience{10};
/// All records of a bridge.
constexpr std::chrono::seconds readingPatience{60};
constexpr std::string_view keyBegin = "msrp:{";
constexpr std::string_view keyEnd = "}:meta";

std::shared_ptr<Store::Config> configOf(const std::string& socket, const FleetOptions& options) {
    auto config = std::make_shared<Store::Config>();
    State::Object given{{"redis", State::Value{options.store}}};
    if (options.store.empty()) {
        Control::Client client;
        demand(client.connect(socket));
        State::Value reply;
        const State::Value request{
            State::Object{{"op", State::Value{"get"}}, {"path", State::Value{"store/config"}}}};
        demand(client.ask(request, reply));
        given = Show::membersOf(Show::at(reply, {"value"}));
    }
    if (const auto problem = config->apply(State::Value{given}))
        throw Failure{"store/config: " + problem->text()};
    if (!config->used())
        throw Failure{"the daemon has no store (store/config/redis is empty); --store ADDRESS names one",
                      usage};
    if (const std::string problem = Store::problemOf(storeOptions(*config)); !problem.empty())
        throw Failure{(options.store.empty() ? "store/config: " : "--store: ") + problem, usage};
    return config;
}

/// A server, asked one thing after the other, or many at a time.
class StoreServer {
public:
    explicit StoreServer(const Store::Options& options)
        : several_{options.addresses.size() > 1},
          finder_{loop_,
                  options,
                  1,
                  {.opened = [](Store::Connection&) {},
                   .lost = [this](const std::string& reason) { fail(reason, true); },
                   // Of several Sentinels another one may help.
                   .said =
                       [this](bool good, const std::string& line) {
                           if (!good) fail(line, !several_);
                       },
                   .pushed = [](const std::string&, const std::string&) {}}} {
        demand(finder_.start());
        await([this] { return finder_.server() != nullptr; });
    }

    void await(const std::function<bool()>& condition, std::chrono::seconds patience = storePatience) {
        loop_.runUntil([&] { return condition() || over_; }, patience);
        if (condition()) return;
        throw Failure{problem_.empty()
                          ? concat(finder_.place(), ": no answer within ", patience.count(), " s")
                          : problem_};
    }
    void ask(const Command& words, Store::Connection::Answer answer) {
        if (Store::Connection* server = finder_.server()) server->ask(words, std::move(answer));
    }
    Reply answer(const Command& words) {
        std::optional<Reply> reply;
        ask(words, [&reply](const Reply& r) { reply = r; });
        await([&reply] { return reply.has_value(); });
        if (reply->kind == Reply::Kind::error)
            throw Failure{concat(finder_.place(), ": ", inOneLine(*reply))};
        return *reply;
    }

private:
    void fail(const std::string& problem, bool over) {
        problem_ = problem;
        over_ |= over;
    }

    const bool several_;
    Linux::EpollLoop loop_;
    std::string problem_;
    bool over_ = false;
    Store::Finder finder_;
};

double numberOf(const Reply& reply) {
    return State::Codec<double>::decode(Control::parseJson(reply.text).value).value_or(0.0);
}

std::vector<std::string> bridgesIn(StoreServer& server) {
    std::set<std::string> names;
    std::string cursor = "0";
    do {
        const Reply reply = server.answer({"SCAN", cursor, "MATCH", "msrp:{*}:meta", "COUNT", "1000"});
        if (reply.list.size() != 2) break;
        cursor = reply.list[0].text;
        for (const Reply& key : reply.list[1].list) {
            const std::string_view text = key.text;
            if (text.size() > keyBegin.size() + keyEnd.size())
                names.emplace(text.substr(keyBegin.size(), text.size() - keyBegin.size() - keyEnd.size()));
        }
    } while (cursor != "0");
    return {names.begin(), names.end()};
}

void makeRecords(State::Database& database) {
    database.entityIs<Msrp::Status>("msrp/status");
    database.entityIs<Msrp::Waiting>("msrp/waiting");
    database.entityIs<Msrp::Config>("msrp/config");
    database.entityIs<Msrp::CliConfig>("msrp/cliConfig");
    database.entityIs<Bridging::Config>("bridging/config");
    database.entityIs<Bridging::Input::Config>("bridging/input/config/msrp");
    database.entityIs<Linux::GroupStatus>("linux/groups");
    database.entityIs<Linux::Config>("linux/config");
    database.entityIs<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    database.entityIs<Switch::Refusals>("switch/refusals");
}

/// Whoever spoke last at each port, of a record that is computed where it is read.
State::Value lastSources(StoreServer& server, const Store::Names& names, const Show::Snapshot& records) {
    State::Object ports;
    const auto& known =
        Show::membersOf(Show::at(records.record("interface/status/eth/phy/all"), {"intfStatus"}));
    for (const auto& [port, phy] : known) {
        const Reply heard =
            server.answer({"HGET", names.record + "linux/packets/intf/" + port, "lastSource"});
        ports.emplace_back(
            port, State::Object{
                      {"lastSource", Control::parseJson(heard.text.empty() ? "null" : heard.text).value}});
    }
    return State::Object{{"intf", State::Value{std::move(ports)}}};
}

std::optional<Show::FleetBridge> readBridge(StoreServer& server, const std::string& name) {
    const std::string shown = Show::printable(name);
    const auto warn = [&shown](const std::string& line) {
        std::cerr << "msrpctl: " << shown << ": " << Show::printable(line) << '\n';
    };
    const Store::Names names{name};
    const Reply meta = server.answer({"HMGET", names.meta, "schema", "until", "seen", "clock"});
    const Reply time = server.answer({"TIME"});
    if (meta.list.size() != 4 || time.list.size() != 2) return std::nullopt;
    if (numberOf(meta.list[0]) > static_cast<double>(Store::schemaVersion)) {
        warn("what lies in the store is of a later version");
        return std::nullopt;
    }
    constexpr double milli = 1e-3;
    const double now = numberOf(time.list[0]);
    const double seen = numberOf(meta.list[2]) * milli;
    const bool gone = numberOf(meta.list[1]) * milli < now;

    State::Database database;
    makeRecords(database);
    const std::vector<std::string>& wanted = Show::fleetRecords();
    bool whole = false;
    std::string problem;
    Store::Follower follower{
        database,
        names,
        Store::Follower::Writer::agent,
        {wanted.begin(), wanted.end()},
        0.0,
        [&server](const auto& words, auto answer) { server.ask(words, std::move(answer)); },
        warn};
    follower.read([&whole] { whole = true; });
    server.await([&] { return whole || follower.idle(); }, readingPatience);
    Show::FleetBridge bridge{.name = shown, .records = {.now = gone ? seen : now, .records = {}}, .asOf = {}};
    // Its own clock's zero is where its times were moved to.
    if (gone) {
        const std::chrono::milliseconds since{static_cast<std::int64_t>(numberOf(meta.list[2]))};
        bridge.asOf = Show::wallText(Runtime::WallTime{since}, 3);
    }
    for (const std::string& path : wanted) {
        if (const auto record = database.entity(path)) bridge.records.records[path] = record->value();
    }
    bridge.records.records["linux/packets"] = lastSources(server, names, bridge.records);
    return bridge;
}

}  // namespace

void addFleetWords(Words& words, FleetOptions& options) {
    words
        .flag("--fleet",
              "show streams and show stream: on their way over all bridges that have the same store",
              options.on)
        .text("--store", "With --fleet: the store's address, where it is not the daemon's", options.store);
}

ExitCode showFleet(const std::string& socket, const FleetOptions& options, bool json, const Show::Page& page,
                   std::optional<std::uint64_t> stream) {
    const auto config = configOf(socket, options);
    StoreServer server{storeOptions(*config)};
    std::vector<Show::FleetBridge> bridges;
    for (const std::string& name : bridgesIn(server)) {
        if (auto bridge = readBridge(server, name)) bridges.push_back(std::move(*bridge));
    }
    if (bridges.empty()) throw Failure{"no bridge has written into the store"};
    const auto streams = Show::fleetStreams(bridges, stream);
    if (stream && streams.empty())
        throw Failure{"no bridge of the store knows stream " + State::hexText(*stream)};
    if (json) {
        std::cout << Control::jsonText(Show::fleetValue(streams)) << '\n';
    } else {
        std::cout << Show::fleetText(streams, page);
    }
    return done;
}
