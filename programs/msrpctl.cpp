/// Asks and changes a running msrpd through its control socket.
///
/// Exit codes: 0 done, 1 the daemon refuses or cannot be reached, a file cannot be used, or the bridge is not
/// fit for streams, 2 wrong usage.
#include "Control/Client.h"
#include "Control/Json.h"
#include "Linux/doctor/Leftovers.h"
#include "Linux/kernel/Claims.h"
#include "Linux/kernel/EpollLoop.h"
#include "Runtime/RingLog.h"
#include "Show/Capabilities.h"
#include "Show/Doctor.h"
#include "Show/Mrp.h"
#include "Show/Reservations.h"
#include "programs/Capture.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using State::Value;

constexpr int done = 0;
constexpr int refused = 1;
constexpr int usage = 2;
/// Seconds within which a daemon that is alive answers.
constexpr unsigned patience = 10;

int fail(const std::string& problem, int code = refused) {
    std::cerr << "msrpctl: " << problem << '\n';
    return code;
}

struct Options {
    std::string socket{Control::defaultSocket};
    bool json = false;
    std::string path;
    std::string field;
    std::string value;
    std::string stream;
    std::string file;
    std::string bridge;
    std::uint16_t vlan = 2;
    std::uint64_t count = 0;
    bool repair = false;
    std::vector<std::uint8_t> protocols{Linux::Config{}.groupProtocol()};
    std::vector<std::uint16_t> handles{Linux::Config{}.queueHandle()};
    bool yes = false;
};

std::string spread(const Value& value, bool json) {
    return (json ? Control::jsonText(value) : Control::jsonLines(value)) + '\n';
}

Value request(std::string_view op, std::string_view path) {
    return State::Object{{"op", Value{op}}, {"path", Value{path}}};
}

/// Waits for a reply without an error in it.  Empty on success.
std::string answer(Control::Client& client, Value& reply, unsigned seconds) {
    if (std::string problem = client.receive(reply, seconds); !problem.empty()) return problem;
    return Show::textOf(Show::at(reply, {"error"}));
}

/// Sends one request and waits for its reply.
std::string ask(const Options& options, Control::Client& client, const Value& what, Value& reply) {
    std::string problem = client.connect(options.socket);
    if (problem.empty()) problem = client.send(what);
    return problem.empty() ? answer(client, reply, patience) : problem;
}

/// Reads several records in one go.
std::string fetch(const Options& options, const std::vector<std::string>& paths, Show::Snapshot& snapshot) {
    Control::Client client;
    std::string problem = client.connect(options.socket);
    for (const std::string& path : paths) {
        if (problem.empty()) problem = client.send(request("get", path));
    }
    for (const std::string& path : paths) {
        Value reply;
        if (problem.empty()) problem = answer(client, reply, patience);
        snapshot.records[path] = Show::at(reply, {"value"});
        snapshot.now = State::Codec<double>::decode(Show::at(reply, {"now"})).value_or(snapshot.now);
    }
    return problem;
}

const std::vector<std::string> streamRecords{"msrp/status",     "msrp/waiting",
                                             "msrp/config",     "msrp/cliConfig",
                                             "bridging/config", "bridging/input/config/msrp",
                                             "linux/groups",    "interface/status/eth/phy/all",
                                             "linux/config",    "switch/refusals"};
const std::vector<std::string> portRecords{"msrp/status",
                                           "msrp/waiting",
                                           "msrp/config",
                                           "msrp/cliConfig",
                                           "mrp/status",
                                           "linux/packets",
                                           "linux/groups",
                                           "bridging/config",
                                           "bridging/input/config/msrp",
                                           "qos/input/config/msrp",
                                           "interface/status/eth/phy/all",
                                           "interface/status/eth/intf",
                                           "linux/capabilities",
                                           "switch/refusals"};

int showStreams(const Options& options) {
    Show::Snapshot snapshot;
    if (const auto problem = fetch(options, streamRecords, snapshot); !problem.empty()) return fail(problem);
    std::cout << (options.json ? spread(Show::streamsValue(snapshot), true)
                               : Show::streamsText(snapshot) + Show::floodText(snapshot));
    return done;
}

int showStream(const Options& options) {
    const auto id = Show::parseStream(options.stream);
    if (!id)
        return fail("stream \"" + options.stream + "\" is neither 0x... nor like 00:11:22:33:44:55/1", usage);
    Show::Snapshot snapshot;
    if (const auto problem = fetch(options, streamRecords, snapshot); !problem.empty()) return fail(problem);
    const auto all = Show::streamReports(snapshot);
    const auto found = std::ranges::find(all, *id, &Show::StreamReport::id);
    if (found == all.end()) return fail("no stream " + Show::streamName(*id));
    std::cout << (options.json ? spread(Show::streamValue(*found), true)
                               : Show::streamText(*found) + Show::floodText(snapshot));
    return done;
}

int showPorts(const Options& options, Show::Table (*make)(const Show::Snapshot&),
              std::string (*below)(const Show::Snapshot&) = nullptr) {
    Show::Snapshot snapshot;
    if (const auto problem = fetch(options, portRecords, snapshot); !problem.empty()) return fail(problem);
    const Show::Table table = make(snapshot);
    std::cout << (options.json ? spread(table.value(), true) : table.text());
    if (!options.json && below != nullptr) std::cout << below(snapshot);
    return done;
}

/// The engine of one port, or a line for each.
int showMrp(const Options& options) {
    Show::Snapshot snapshot;
    if (const auto problem = fetch(options, {"mrp/status", "linux/packets"}, snapshot); !problem.empty())
        return fail(problem);
    if (!options.path.empty()) {
        const std::string path = Show::mrpPath(options.path);
        if (!fetch(options, {path}, snapshot).empty())
            return fail(options.path + ": the protocol does not run on a port of this name");
        std::cout << (options.json ? spread(snapshot.record(path), true)
                                   : Show::mrpText(snapshot, options.path));
        return done;
    }
    for (const auto& [port, counters] : Show::membersOf(Show::at(snapshot.record("mrp/status"), {"intf"}))) {
        // Ports whose engine does not run have no such record.
        (void)fetch(options, {Show::mrpPath(port) + "/machines"}, snapshot);
    }
    const Show::Table table = Show::mrpPorts(snapshot);
    std::cout << (options.json ? spread(table.value(), true) : table.text());
    return done;
}

int showCapabilities(const Options& options) {
    Show::Snapshot snapshot;
    const std::vector<std::string> paths{std::string{Show::capabilitiesPath}, std::string{Show::groupsPath}};
    if (const auto problem = fetch(options, paths, snapshot); !problem.empty()) return fail(problem);
    std::cout << (options.json ? spread(snapshot.record(Show::capabilitiesPath), true)
                               : Show::capabilitiesText(snapshot));
    return done;
}

int showLog(const Options& options) {
    Show::Snapshot snapshot;
    if (const auto problem = fetch(options, {"log"}, snapshot); !problem.empty()) return fail(problem);
    std::cout << (options.json ? spread(snapshot.record("log"), true) : Show::logText(snapshot));
    return done;
}

int get(const Options& options) {
    Control::Client client;
    Value reply;
    const auto problem = ask(options, client, request("get", options.path), reply);
    if (!problem.empty()) return fail(problem);
    std::cout << spread(Show::at(reply, {"value"}), options.json);
    return done;
}

int list(const Options& options) {
    Control::Client client;
    Value reply;
    const auto problem = ask(options, client, request("list", ""), reply);
    if (!problem.empty()) return fail(problem);
    std::cout << spread(Show::at(reply, {"value"}), options.json);
    return done;
}

int set(const Options& options) {
    // What is no JSON is a text, so that names need no quotes.
    auto [value, noJson] = Control::parseJson(options.value);
    if (noJson) value = Value{options.value};
    Control::Client client;
    Value reply;
    const auto problem = ask(
        options, client,
        State::Object{
            {"op", "set"}, {"path", Value{options.path}}, {"field", Value{options.field}}, {"value", value}},
        reply);
    return problem.empty() ? done : fail(problem);
}

int watch(const Options& options) {
    Control::Client client;
    Value reply;
    auto problem = ask(options, client, request("watch", options.path), reply);
    while (problem.empty()) {
        std::cout << spread(Show::at(reply, {"value"}), options.json) << std::flush;
        if (!std::cout) return done;  // nobody reads any more
        problem = answer(client, reply, 0);
    }
    return fail(problem);
}

/// Done when nothing is left that differs.
int audit(const Options& options) {
    Control::Client client;
    Value reply;
    const auto problem =
        ask(options, client, State::Object{{"op", Value{"audit"}}, {"repair", Value{options.repair}}}, reply);
    if (!problem.empty()) return fail(problem);
    const Value& differences = Show::at(reply, {"value"});
    if (options.json) {
        std::cout << spread(differences, true);
    } else if (Show::membersOf(differences).empty()) {
        std::cout << "records and kernel agree\n";
    }
    if (!options.json) {
        for (const auto& [number, line] : Show::membersOf(differences))
            std::cout << Show::textOf(line) << '\n';
    }
    return Show::membersOf(differences).empty() || options.repair ? done : refused;
}

int doctor(const Options& options) {
    Linux::DoctorFacts facts;
    if (const auto problem = Linux::examine(options.bridge, VlanId{options.vlan}, facts); !problem.empty())
        return fail(problem, usage);
    const auto findings = Linux::diagnose(facts);
    std::cout << (options.json ? spread(Show::doctor(findings).value(), true)
                               : Show::doctorText(facts.bridge, findings));
    return Show::healthy(findings) ? done : refused;
}

/// Who keeps one of the bridges, or nothing.
std::string keeper(const std::set<std::string>& bridges) {
    for (const std::string& bridge : bridges) {
        const std::string claim = "bridge " + bridge;
        if (!Linux::Claims::taken(claim)) continue;
        const int process = Linux::Claims::holder(claim);
        return (process != 0 ? "process " + std::to_string(process) : std::string{"a daemon"}) + " keeps " +
               claim;
    }
    return {};
}

int clean(const Options& options) {
    Linux::EpollLoop loop;
    Linux::DeviceTable devices{loop};
    Linux::NetlinkRequests kernel;
    std::vector<Linux::Leftover> found;
    const Linux::OwnMarks marks{{options.protocols.begin(), options.protocols.end()},
                                {options.handles.begin(), options.handles.end()},
                                options.socket};
    std::string problem = devices.start();
    if (problem.empty()) problem = kernel.open();
    if (problem.empty()) problem = Linux::findLeftovers(kernel, devices, marks, found);
    if (!problem.empty()) return fail(problem);
    std::set<std::string> bridges;
    for (const Linux::Leftover& leftover : found) {
        const Linux::Device* device = devices.find(leftover.device);
        const Linux::Device* bridge = device->bridge != 0 ? devices.find(device->bridge) : device;
        if (bridge != nullptr) bridges.insert(bridge->name);
    }
    if (const std::string who = keeper(bridges); !who.empty()) return fail(who + "; end it first");
    int result = done;
    for (const Linux::Leftover& leftover : found) {
        problem = options.yes ? leftover.remove(kernel) : "";
        std::cout << leftover.device << ": " << leftover.what
                  << (!problem.empty() ? " stay: " + problem
                      : options.yes    ? " removed"
                                       : "")
                  << '\n';
        if (!problem.empty()) result = refused;
    }
    if (found.empty()) {
        std::cout << "nothing is left\n";
    } else if (!options.yes) {
        std::cout << "--yes removes them\n";
    }
    return result;
}

int captureFrames(const Options& options) {
    if (options.file == "-" && ::isatty(STDOUT_FILENO) != 0)
        return fail("a capture is no text for a terminal; send it into a file or a program", usage);
    const auto problem = capture({options.socket, options.path, options.file, options.count});
    return problem.empty() ? done : fail(problem);
}

/// "2026-11-21T22:56:42.123456Z"; "-" where it is not known.
std::string wallText(const std::optional<Runtime::WallTime>& time) {
    if (!time) return "-";
    const auto microseconds = std::chrono::floor<std::chrono::microseconds>(*time);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(microseconds);
    const std::time_t whole = seconds.time_since_epoch().count();
    std::tm utc{};
    ::gmtime_r(&whole, &utc);
    char day[32];
    char text[48];
    std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text, sizeof text, "%s.%06dZ", day, static_cast<int>((microseconds - seconds).count()));
    return text;
}

int ringLog(const Options& options) {
    const auto records = Runtime::RingLog::read(options.file);
    if (!records) return fail(options.file + ": not a ring log");
    for (const Runtime::RingRecord& record : *records) {
        std::printf("%llu %s %.6f %s %llx %llx %llx\n", static_cast<unsigned long long>(record.sequence),
                    wallText(record.wallTime).c_str(), Runtime::seconds(record.time), record.label.c_str(),
                    static_cast<unsigned long long>(record.arguments[0]),
                    static_cast<unsigned long long>(record.arguments[1]),
                    static_cast<unsigned long long>(record.arguments[2]));
    }
    return done;
}

int run(int argc, char** argv) {
    Options options;
    int result = done;
    CLI::App app{"Asks and changes a running msrpd"};
    app.set_version_flag("--version", "msrpctl " MSRP_VERSION);
    app.add_option("--socket", options.socket, "Control socket of the daemon")->capture_default_str();
    app.add_flag("--json", options.json, "One JSON value on one line instead of tables and indented text");
    app.require_subcommand(0, 1);
    app.fallthrough();

    CLI::App* show = app.add_subcommand("show", "Tables of what goes on");
    show->require_subcommand(0, 1);
    show->fallthrough();
    const auto table = [&](CLI::App* parent, const char* name, const char* help, auto body) {
        CLI::App* command = parent->add_subcommand(name, help);
        command->fallthrough();
        command->callback([&options, &result, body] { result = body(options); });
        return command;
    };
    table(show, "streams", "All streams: which ports carry them, and why the others do not", showStreams);
    table(show, "stream", "All about one stream", showStream)
        ->add_option("ID", options.stream, "0x... or address/number, 00:11:22:33:44:55/1")
        ->required();
    table(show, "ports",
          "Links, classes, bandwidth in use and allowed, queues, who waits, and the protocol's health",
          [](const Options& o) { return showPorts(o, Show::ports, Show::floodText); });
    table(show, "domain", "What each port is to each class",
          [](const Options& o) { return showPorts(o, Show::domain); });
    table(show, "counters", "Counters that are not zero",
          [](const Options& o) { return showPorts(o, Show::counters); });
    table(show, "log", "Recent lines of the system log", showLog);
    table(show, "capabilities", "What the kernel can do for reservations, and how each port is shaped",
          showCapabilities);
    table(show, "mrp", "The protocol engine: timers, frames, and the states of every attribute of a port",
          showMrp)
        ->add_option("PORT", options.path, "Like swp1; without it, one line for each port");

    table(&app, "list", "The paths of all records", list);
    const auto withPath = [&](const char* name, const char* help, auto body) {
        CLI::App* command = table(&app, name, help, body);
        command->add_option("PATH", options.path, "Like msrp/config or msrp/config/intfEnable")->required();
        return command;
    };
    withPath("get", "Reads a record, or what the path names below it", get);
    withPath("watch", "Reads, and again at every change, until interrupted", watch);
    CLI::App* setCommand = withPath("set", "Writes a field", set);
    setCommand->add_option("FIELD", options.field, "Like srClassAPriority or intfEnable/swp1")->required();
    setCommand->add_option("VALUE", options.value, "JSON, or a plain word; null removes an entry")
        ->required();
    CLI::App* captureCommand =
        table(&app, "capture", "Writes the frames of a port to a file, until interrupted", captureFrames);
    captureCommand->add_option("PORT", options.path, "Like swp1")->required();
    captureCommand->add_option("FILE", options.file, "The file, pcapng; - for standard output")->required();
    captureCommand->add_option("--count", options.count, "Ends after so many frames")
        ->check(CLI::PositiveNumber);
    table(&app, "audit", "Compares what the records ask of the kernel with what it does", audit)
        ->add_flag("--repair", options.repair, "Mends the differences, too");
    CLI::App* doctorCommand = table(
        &app, "doctor", "What keeps a bridge of this machine from carrying streams; needs no daemon", doctor);
    doctorCommand->add_option("--bridge", options.bridge, "Like br0; needed where there are several");
    doctorCommand->add_option("--vlan", options.vlan, "VLAN of the streams")
        ->check(CLI::Range(1, 4094))
        ->capture_default_str();
    CLI::App* cleanCommand =
        table(&app, "clean", "What a daemon that is gone has left in the kernel; needs no daemon", clean);
    cleanCommand
        ->add_option("--protocol", options.protocols,
                     "Number that marks groups (groupProtocol); several may follow")
        ->check(CLI::Range(4, 255))
        ->capture_default_str();
    cleanCommand
        ->add_option("--handle", options.handles, "Major number of queues (queueHandle); several may follow")
        ->check(CLI::Range(1, 0xFFEF))
        ->capture_default_str();
    cleanCommand->add_flag("--yes", options.yes, "Removes it");
    table(&app, "ringlog", "Reads a ring log file", ringLog)
        ->add_option("FILE", options.file, "The file")
        ->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
        return app.exit(asked);
    } catch (const CLI::ParseError& error) {
        return fail(error.what(), usage);
    }
    if (app.get_subcommands().empty())
        return fail(
            "a command is needed: show, list, get, set, watch, capture, audit, doctor, clean or ringlog",
            usage);
    if (show->parsed() && show->get_subcommands().empty())
        return fail("show what? streams, stream ID, ports, domain, counters, capabilities, mrp or log",
                    usage);
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "msrpctl: %s\n", error.what());
        return refused;
    }
}
