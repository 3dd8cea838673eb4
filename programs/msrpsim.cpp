/// Networks before the cable: what a network that somebody has drawn would reserve, and why not the rest.
///
/// Exit codes: 0 all that is asked for is reserved, 1 some is not, or a file cannot be used, 2 wrong usage.
#include "Control/Json.h"
#include "Plan/Compare.h"
#include "Plan/Course.h"
#include "Plan/NetworkValue.h"
#include "Plan/Report.h"
#include "Plan/page/Drawing.h"
#include "Plan/page/Page.h"
#include "programs/CommandLine.h"
#include "programs/sim/ExploreCommand.h"
#include "programs/sim/LearnCommand.h"
#include "programs/sim/NetworkFile.h"
#include "programs/sim/ReplayCommand.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <random>
#include <string>
#include <sys/resource.h>
#include <thread>

namespace {

struct Options {
    std::string file;
    std::string other;
    std::string stream;
    std::vector<std::string> at{};
    std::string script;
    std::uint64_t most = 4096;
    bool json = false;
    bool loops = false;
    std::uint64_t seed = 1;
    std::uint64_t threads = std::max(1U, std::thread::hardware_concurrency());
    bool cost = false;
    std::string html{};
    std::string svg{};
    std::string until{"60s"};
    std::string quiet{};
};

/// All that is to happen, by the file itself, by a script and by words.
std::vector<Plan::Event> eventsOf(const Options& o, Plan::Network& network) {
    Plan::Problems problems;
    std::string script = network.script;
    std::vector<Plan::Event> events = Plan::readScript(script, network.scriptPlace, network, problems);
    const auto add = [&](const std::string& text, const Plan::Place& place) {
        for (Plan::Event& event : Plan::readScript(text, place, network, problems))
            events.push_back(std::move(event));
    };
    if (!o.script.empty()) {
        std::string problem;
        const std::string text = readFile(o.script, problem);
        demand(problem.empty() ? problem : o.script + ": " + problem);
        add(text, {o.script, 1});
    }
    for (const std::string& one : o.at) add("at " + one, {"--at"});
    std::ranges::stable_sort(events, {}, &Plan::Event::at);
    std::string all;
    for (const std::string& one : problems) all += (all.empty() ? "" : "\n") + one;
    demand(all);
    return events;
}

ExitCode check(const Options& o) {
    const Plan::Network network = networkIn(o.file);
    Plan::Network told = network;
    (void)eventsOf(o, told);
    if (o.json) {
        std::cout << Control::jsonText(Plan::networkValue(network)) << '\n';
        return done;
    }
    const auto bridges = std::ranges::count_if(network.devices, &Plan::Device::bridge);
    std::cout << bridges << " bridges, " << static_cast<std::ptrdiff_t>(network.devices.size()) - bridges
              << " stations, " << network.links.size() << " links, " << network.streams.size()
              << " streams\n";
    return done;
}

/// What a run takes of this machine, told on standard error, since it differs from run to run.
class Cost {
public:
    explicit Cost(Plan::World& world) : world_{world} {}

    /// Runs on for some LeaveAll rounds, too.
    void tell(bool settled) {
        const double joining = since(begin_);
        const double simulated = std::chrono::duration<double>(world_.now()).count();
        std::cerr << simulated << " s simulated in " << joining << " s (" << simulated / joining
                  << " times real time), " << (settled ? "settled" : "not settled") << "; "
                  << world_.meetings() << " meetings of " << world_.turns() << " loops\n";
        constexpr double rounds = 30;
        const auto begin = std::chrono::steady_clock::now();
        world_.runTo(world_.now() +
                     std::chrono::duration_cast<Runtime::Duration>(std::chrono::duration<double>{rounds}));
        const double steady = since(begin);
        std::cerr << rounds << " s of LeaveAll rounds in " << steady << " s (" << rounds / steady
                  << " times real time)\n";
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        const Plan::Network& network = world_.network();
        const auto bridges =
            static_cast<double>(std::ranges::count_if(network.devices, &Plan::Device::bridge));
        const auto octets = static_cast<double>(usage.ru_maxrss) * 1024;
        std::cerr << octets / 1e6 << " MB, " << octets / bridges / 1e3 << " kB for each bridge";
        if (!network.streams.empty())
            std::cerr << ", " << octets / bridges / static_cast<double>(network.streams.size())
                      << " octets for each bridge and stream";
        std::cerr << '\n';
    }

private:
    static double since(std::chrono::steady_clock::time_point begin) {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }
    Plan::World& world_;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

void print(const Options& o, const State::Value& value, const std::string& text) {
    std::cout << (o.json ? Control::jsonText(value) + '\n' : text);
}

/// What a lost frame would have done may come with a LeaveAll only.
Runtime::Duration quietOf(const Options& o, const Plan::Network& network,
                          const std::vector<Plan::Event>& events) {
    if (!o.quiet.empty()) return spanOf("--quiet", o.quiet);
    const bool loses =
        std::ranges::any_of(network.links, [](const Plan::Link& link) { return link.loss > 0; }) ||
        std::ranges::any_of(events, [](const Plan::Event& event) { return event.loss > 0; });
    return std::chrono::seconds{loses ? 16 : 2};
}

Plan::World::Options worldOptions(const Options& o) {
    return {.seed = o.seed, .loops = o.loops, .threads = static_cast<unsigned>(o.threads)};
}

Plan::Course live(const Options& o, Plan::World& world, const std::vector<Plan::Event>& events) {
    const Runtime::Duration until = spanOf("--until", o.until);
    for (const Plan::Event& event : events) {
        if (event.at + event.dark > until)
            throw Failure{"--until " + o.until + ": \"" + event.text + "\" is not over by then", usage};
    }
    return Plan::live(world, events, quietOf(o, world.network(), events), until);
}

ExitCode run(const Options& o) {
    Plan::Network network = networkIn(o.file);
    const std::vector<Plan::Event> events = eventsOf(o, network);
    Plan::World world{network, worldOptions(o)};
    Cost cost{world};
    const Plan::Course course = live(o, world, events);
    const std::string told = events.empty() ? "" : Plan::courseText(network, course) + '\n';
    print(o,
          State::Object{{"events", Plan::courseValue(network, course)},
                        {"end", Plan::outcomeValue(network, course.end)}},
          told + Plan::outcomeText(network, course.end));
    if (!o.html.empty()) writeWhole(o.html, Plan::pageOf(network, course));
    if (!o.svg.empty()) writeWhole(o.svg, Plan::drawing(network, course.end));
    if (o.cost) cost.tell(course.end.quiet);
    return std::ranges::all_of(course.end.streams, &Plan::StreamOutcome::reserved) ? done : refused;
}

/// What a daemon in the place of each bridge would have in its records by then.
ExitCode records(const Options& o) {
    Plan::Network network = networkIn(o.file);
    const std::vector<Plan::Event> events = eventsOf(o, network);
    Plan::World world{network, worldOptions(o)};
    (void)live(o, world, events);
    State::Object bridges;
    for (std::size_t d = 0; d < network.devices.size(); ++d) {
        Sim::Bridge* bridge = world.bridge(d);
        if (bridge == nullptr) continue;
        State::Object all;
        for (const std::string& path : bridge->database().paths())
            all.emplace_back(path, bridge->database().entity(path)->value());
        bridges.emplace_back(network.devices[d].name, std::move(all));
    }
    const State::Value value{std::move(bridges)};
    std::cout << (o.json ? Control::jsonText(value) : Control::jsonLines(value)) << '\n';
    return done;
}

Plan::Run runner(const Options& o) {
    const Runtime::Duration until = spanOf("--until", o.until);
    return [=](const Plan::Network& network) {
        Plan::World world{network, worldOptions(o)};
        const bool settled = world.runUntilQuiet(quietOf(o, network, {}), until);
        demand(settled ? "" : "the network has not settled within " + o.until + " (--until)");
        Plan::Outcome outcome = Plan::look(world);
        outcome.quiet = settled;
        return outcome;
    };
}

ExitCode compare(const Options& o) {
    const Plan::Run run = runner(o);
    const Plan::Network was = networkIn(o.file);
    const Plan::Network is = networkIn(o.other);
    const Plan::Outcome before = run(was);
    const Plan::Differences found = Plan::compare(was, before, is, run(is));
    print(o, Plan::differencesValue(found), Plan::differencesText(found));
    return done;
}

ExitCode fit(const Options& o) {
    const Plan::Network network = networkIn(o.file);
    const std::size_t stream = network.stream(o.stream);
    if (stream == network.streams.size())
        throw Failure{"\"" + o.stream + "\" is no stream of " + o.file, usage};
    std::string problem;
    const auto found = Plan::fit(network, stream, o.most, runner(o), problem);
    demand(problem);
    print(o, Plan::fitValue(*found), Plan::fitText(network, stream, *found));
    return done;
}

}  // namespace

int main(int argc, char** argv) {
    using enum Words::Need;
    Options o;
    Program program{"msrpsim",
                    "Tells what a network that is drawn in a file would reserve, and why not the rest"};
    program.flag("--json", "One JSON value on one line instead of tables", o.json);
    const auto withFile = [&](const char* name, const char* help, std::function<ExitCode()> body) {
        Words words = program.command(name, help, std::move(body));
        words.text("FILE", "The network, in Graphviz's language", o.file, required);
        return words;
    };
    withFile("check", "Whether the file is in order, and else what is wrong on which line",
             [&] { return check(o); });
    const auto running = [&](Words words) {
        return words.text("--until", "Longest time that is simulated", o.until)
            .text("--quiet",
                  "It is settled when so long nothing has changed; 2s, or 16s where frames are lost", o.quiet)
            .number("--seed", "Of the timers' random parts and of losses", o.seed, {1, UINT32_MAX})
            .flag("--loops", "Without a spanning tree: every port forwards", o.loops)
            .number("--threads", "How many to use; nothing but the speed depends on it", o.threads, {1, 256});
    };
    running(withFile("run", "Every stream with its path or with what keeps it back, and every link",
                     [&] { return run(o); }))
        .texts("--at", "What is to happen, like \"5s cut sw2--sw3\"; may come several times", o.at)
        .text("--script", "File of such events, each behind an \"at\"", o.script)
        .text("--html", "Writes a page for browsers: the network drawn, with what became of it", o.html)
        .text("--svg", "Writes the drawing alone", o.svg)
        .flag("--cost",
              "Tells on standard error what time and memory it takes, some LeaveAll rounds included", o.cost);
    running(withFile("records", "The records of every bridge, as msrpctl get tells those of a daemon",
                     [&] { return records(o); }));
    running(withFile("compare", "What differs between two networks", [&] {
                return compare(o);
            }).text("OTHER", "The network that the first one is compared with", o.other, required));
    running(withFile("fit", "How many more streams fit that are like one of them, and which link binds",
                     [&] { return fit(o); })
                .text("STREAM", "Like which one", o.stream, required)
                .number("--most", "No more are tried", o.most, {1, 16384}));
    ReplayCommand replay;
    program
        .command("replay", "Gives an agent what came in at a bridge, and tells where it decides otherwise",
                 [&] { return replay.run(o.json); })
        .list("CAPTURE", "The bridge's frames: pcapng or pcap, one file or one for each port",
              replay.captures)
        .texts("--config", "The bridge's configuration file, as msrpd takes it", replay.configs)
        .texts("--port", "NAME=INTERFACE: what an interface of the capture is called in it", replay.ports)
        .texts("--bridge", "An address from which the bridge sends, where the capture tells no direction",
               replay.bridges)
        .text("--out", "Writes the frames with comments, and those of ours, to a pcapng file", replay.out);
    LearnCommand learn;
    program
        .command("learn", "Draws the network that running daemons are part of, for the other commands",
                 [&] {
                     if (o.json)
                         throw Failure{"learn writes a drawing; check --json tells what is in it", usage};
                     return learn.run();
                 })
        .list("SOCKET", "Control sockets of the bridges, or NAME=SOCKET", learn.sockets)
        .texts("--link", "A link that is known, like sw1:swp2--sw2:swp1; may come several times", learn.links)
        .text("--out", "Writes it to that file", learn.out);
    ExploreCommand explore;
    explore.addTo(program);
    return program.run(argc, argv);
}
