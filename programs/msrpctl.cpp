/// Asks and changes a running msrpd through its control socket.
///
/// Exit codes: 0 done, 1 the daemon refuses or cannot be reached, a file cannot be used, or the bridge is not
/// fit for streams, 2 wrong usage.
#include "Control/Client.h"
#include "Control/Json.h"
#include "Runtime/LogConfig.h"
#include "Runtime/RingLog.h"
#include "Show/Doctor.h"
#include "Show/History.h"
#include "Show/Log.h"
#include "Show/Mrp.h"
#include "Show/Streams.h"
#include "Show/Views.h"
#include "programs/Capture.h"
#include "programs/Clean.h"
#include "programs/CommandLine.h"
#include "programs/ConfigChanges.h"
#include "programs/FleetCommand.h"
#include "programs/HistoryCommand.h"
#include "programs/OutputSchemas.h"
#include "programs/Save.h"
#include "programs/Support.h"
#include "programs/Terminal.h"
#include "programs/TopCommand.h"
#include "programs/WhyCommands.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using State::Value;

struct Options {
    std::string socket{Control::defaultSocket};
    bool json = false;
    std::string path;
    std::string field;
    std::string value;
    std::string stream;
    std::string file;
    std::string bridge;
    std::string ptp4l{"/var/run/ptp4l"};
    std::uint64_t vlan = 2;
    std::uint64_t count = 0;
    bool repair = false;
    bool traffic = false;
    std::vector<std::uint64_t> protocols{Linux::Config{}.groupProtocol()};
    std::vector<std::uint64_t> handles{Linux::Config{}.queueHandle()};
    bool yes = false;
    HistoryOptions history{};
    PageOptions page{};
    TopOptions top{};
    FleetOptions fleet{};
};

void print(const Options& options, const Value& value) {
    const std::string text = options.json ? Control::jsonText(value) : Control::jsonLines(value);
    // What a program reads stays as it is.
    const bool asItIs = options.json && ::isatty(STDOUT_FILENO) == 0;
    std::cout << (asItIs ? text : Show::printable(text, "\n")) << '\n';
}

Value request(std::string_view op, std::string_view path = "") {
    return State::Object{{"op", Value{op}}, {"path", Value{path}}};
}

/// The running daemon.
class Daemon {
public:
    explicit Daemon(const Options& options) { demand(client_.connect(options.socket)); }

    Value ask(const Value& what) {
        Value reply;
        demand(client_.ask(what, reply));
        return Show::at(reply, {"value"});
    }
    /// The next change, after a `watch`.
    Value heard() {
        Value reply;
        demand(client_.receive(reply, 0));
        return Show::at(reply, {"value"});
    }
    /// Reads several records in one go.
    void read(Show::Snapshot& snapshot, const std::vector<std::string>& paths) {
        for (const std::string& path : paths) demand(client_.send(request("get", path)));
        for (const std::string& path : paths) {
            Value reply;
            demand(client_.receive(reply));
            take(snapshot, path, reply);
        }
    }
    /// Reads a record that need not be there.
    void tryRead(Show::Snapshot& snapshot, const std::string& path) {
        Value reply;
        if (client_.ask(request("get", path), reply).empty()) take(snapshot, path, reply);
    }

private:
    static void take(Show::Snapshot& snapshot, const std::string& path, const Value& reply) {
        snapshot.records[path] = Show::at(reply, {"value"});
        snapshot.now = State::Codec<double>::decode(Show::at(reply, {"now"})).value_or(snapshot.now);
    }

    Control::Client client_;
};

ExitCode show(const Options& options, const Show::View& view) {
    Daemon daemon{options};
    Show::Snapshot snapshot;
    daemon.read(snapshot, view.records);
    if (view.more != nullptr) {
        for (const std::string& path : view.more(snapshot)) daemon.tryRead(snapshot, path);
    }
    if (options.json) {
        print(options, view.value(snapshot));
    } else {
        std::cout << view.text(snapshot, pageOf(options.page));
    }
    return done;
}

ExitCode showStream(const Options& options) {
    const auto id = Show::parseStream(options.stream);
    if (!id)
        throw Failure{"stream \"" + options.stream + "\" is neither 0x... nor like 00:11:22:33:44:55/1",
                      usage};
    if (options.fleet.on)
        return showFleet(options.socket, options.fleet, options.json, pageOf(options.page), *id);
    Show::Snapshot snapshot;
    Daemon daemon{options};
    daemon.read(snapshot, Show::streams().records);
    const std::string stages = "history/stages/stream/" + State::hexText(*id);
    const std::string gone = "history/gone/stream/" + State::hexText(*id);
    daemon.tryRead(snapshot, stages);
    const auto all = Show::streamReports(snapshot);
    const auto found = std::ranges::find(all, *id, &Show::StreamReport::id);
    const bool there = found != all.end();
    daemon.tryRead(snapshot, gone);
    if (!there && snapshot.record(gone).isNull())
        throw Failure{"no stream " + Show::streamName(*id) + "; msrpctl history --stream " +
                      State::hexText(*id) + " tells what is remembered of it"};
    if (options.json) {
        Show::StreamReport absent;
        absent.id = *id;
        print(options,
              Show::streamValue(there ? *found : absent, snapshot.record(stages), snapshot.record(gone)));
        return done;
    }
    const Show::Page page = pageOf(options.page);
    if (there) {
        std::cout << Show::streamText(snapshot, *found, page)
                  << Show::stagesText(snapshot.record(stages), page);
        if (!found->from.empty() || snapshot.record(gone).isNull()) return done;
        std::cout << "\nuntil its talker left\n";
    }
    std::cout << Show::goneText(*id, snapshot.record(gone), page);
    return done;
}

ExitCode showEngine(const Options& options) {
    if (options.path.empty()) return show(options, Show::engines());
    Daemon daemon{options};
    Show::Snapshot snapshot;
    daemon.read(snapshot, Show::engines().records);
    const std::string path = Show::mrpPath(options.path);
    daemon.tryRead(snapshot, path);
    if (snapshot.record(path).isNull())
        throw Failure{options.path + ": the protocol does not run on a port of this name"};
    if (options.json) {
        print(options, snapshot.record(path));
    } else {
        std::cout << Show::mrpText(snapshot, options.path, pageOf(options.page));
    }
    return done;
}

ExitCode ask(const Options& options, const Value& what) {
    print(options, Daemon{options}.ask(what));
    return done;
}

/// Of what only has to be done: nothing is said of it to people, and null to programs.
ExitCode act(const Options& options, const Value& what) {
    const Value nothing = Daemon{options}.ask(what);
    if (options.json) print(options, nothing);
    return done;
}

ExitCode set(const Options& options) {
    // What is no JSON is a text, so that names need no quotes.
    auto [value, noJson] = Control::parseJson(options.value);
    if (noJson) value = Value{options.value};
    return act(
        options,
        State::Object{
            {"op", "set"}, {"path", Value{options.path}}, {"field", Value{options.field}}, {"value", value}});
}

/// Tells the levels, or sets one.
ExitCode logLevel(const Options& options) {
    if (options.field.empty()) return ask(options, request("get", "log/config/level"));
    if (options.value.empty()) throw Failure{"which level shall " + options.field + " have?", usage};
    return act(options, State::Object{{"op", Value{"set"}},
                                      {"path", Value{"log/config"}},
                                      {"field", Value{"level/" + options.field}},
                                      {"value", Value{options.value}}});
}

ExitCode watch(const Options& options) {
    if (options.path == "events")
        return tellHistory(options.socket, options.json, pageOf(options.page),
                           {.since = options.history.since, .follow = true});
    Daemon daemon{options};
    for (Value now = daemon.ask(request("watch", options.path));; now = daemon.heard()) {
        print(options, now);
        std::cout.flush();
        if (!std::cout) return done;  // nobody reads any more
    }
}

/// Done when nothing is left that differs.
ExitCode audit(const Options& options) {
    const Value differences =
        Daemon{options}.ask(State::Object{{"op", Value{"audit"}}, {"repair", Value{options.repair}}});
    const State::Object& lines = Show::membersOf(differences);
    if (options.json) {
        print(options, differences);
    } else {
        if (lines.empty()) std::cout << "records and kernel agree\n";
        for (const auto& [number, line] : lines) std::cout << Show::printable(Show::textOf(line)) << '\n';
    }
    return lines.empty() || options.repair ? done : refused;
}

ExitCode reload(const Options& options) {
    const Value changes = Daemon{options}.ask(request("reload"));
    if (options.json) {
        print(options, changes);
    } else {
        std::cout << changesText(changes);
    }
    return done;
}

ExitCode saveSettings(const Options& options) {
    const SaveResult saved = save(Daemon{options}.ask(request("unsaved")), options.file);
    demand(saved.problem);
    if (options.json) {
        print(options, saved.value());
    } else {
        std::cout << saved.text();
    }
    return done;
}

ExitCode schema(const Options& options) {
    if (!options.file.empty()) {
        writeOutputSchemas(options.file);
        return done;
    }
    const auto& outputs = outputSchemas();
    const auto found = std::ranges::find(outputs, options.path, &OutputSchema::name);
    if (!options.path.empty() && found == outputs.end()) {
        std::string names;
        for (const OutputSchema& output : outputs)
            names.append(names.empty() ? "" : ", ").append(output.name);
        throw Failure{"schema \"" + options.path + "\": there is none of that name, but " + names, usage};
    }
    std::cout << outputSchemaText(options.path.empty() ? nullptr : &*found, !options.json) << '\n';
    return done;
}

ExitCode clearCounters(const Options& options) {
    return act(options, State::Object{{"op", Value{"clearCounters"}}});
}

ExitCode doctor(const Options& options) {
    Linux::DoctorFacts facts;
    demand(Linux::examine(options.bridge, VlanId{static_cast<std::uint16_t>(options.vlan)}, options.ptp4l,
                          facts),
           usage);
    const auto findings = Linux::diagnose(facts);
    if (options.json) {
        print(options, Show::doctorValue(findings));
    } else {
        std::cout << Show::doctorText(facts.bridge, findings, pageOf(options.page));
    }
    return Show::healthy(findings) ? done : refused;
}

ExitCode cleanUp(const Options& options) {
    const CleanResult result = clean({{options.protocols.begin(), options.protocols.end()},
                                      {options.handles.begin(), options.handles.end()},
                                      options.socket},
                                     options.yes);
    demand(result.problem);
    if (options.json) {
        print(options, result.value());
    } else {
        std::cout << result.text();
    }
    return result.all ? done : refused;
}

ExitCode captureFrames(const Options& options) {
    if (options.file == "-" && ::isatty(STDOUT_FILENO) != 0)
        throw Failure{"a capture is no text for a terminal; send it into a file or a program", usage};
    demand(capture({options.socket, options.path, options.file, options.count}));
    return done;
}

ExitCode gather(const Options& options) {
    // A connection for each question, so that a daemon that ends in the middle costs no more than the rest.
    support({options.file, [&options](const Value& what) { return Daemon{options}.ask(what); }});
    if (options.json) {
        print(options, State::Object{{"file", Value{options.file}}});
        return done;
    }
    std::cout << options.file << " has records, logs and the kernel's tables of this switch\n";
    return done;
}

ExitCode ringLog(const Options& options) {
    const auto records = Runtime::RingLog::read(options.file);
    if (!records) throw Failure{options.file + ": not a ring log"};
    for (const Runtime::RingRecord& record : *records)
        std::cout << (options.json ? Control::jsonText(Show::ringValue(record))
                                   : Show::printable(Show::ringText(record)))
                  << '\n';
    return done;
}

template <class E>
std::vector<std::string> namesOf() {
    std::vector<std::string> names;
    for (const auto& entry : enumNames(E{})) names.emplace_back(entry.name);
    return names;
}

std::vector<std::string> namesIn(const Value& value, const std::string& before = {}) {
    std::vector<std::string> names;
    for (const auto& [name, member] : Show::membersOf(value)) names.push_back(before + name);
    return names;
}

/// What a shell may offer for an argument: what the running daemon has of it.
std::vector<std::string> offers(Options options, std::string_view kind, const WordsBefore& before) {
    if (const auto socket = before.options.find("--socket"); socket != before.options.end())
        options.socket = socket->second;
    if (kind == "TOPIC") return namesOf<Runtime::LogTopic>();
    if (kind == "OUTPUT") {
        std::vector<std::string> names;
        for (const OutputSchema& output : outputSchemas()) names.emplace_back(output.name);
        return names;
    }
    if (kind == "LEVEL") return namesOf<Runtime::LogLevel>();
    if (kind == "PORT") return namesIn(Daemon{options}.ask(request("get", "interface/status/eth/intf/intf")));
    if (kind == "ID") return namesIn(Daemon{options}.ask(request("get", "msrp/status/registeredStreams")));
    if (kind == "PATH") return namesIn(Daemon{options}.ask(request("list")));
    if (kind != "FIELD" || before.arguments.empty()) return {};
    const Value record = Daemon{options}.ask(request("get", before.arguments.front()));
    std::vector<std::string> fields;
    for (const auto& [name, value] : Show::membersOf(record)) {
        fields.push_back(name);
        for (std::string& entry : namesIn(value, name + '/')) fields.push_back(std::move(entry));
    }
    return fields;
}

}  // namespace

int main(int argc, char** argv) {
    using enum Words::Need;
    Options o;
    Program program{"msrpctl", "Asks and changes a running msrpd"};
    program.text("--socket", "Control socket of the daemon", o.socket)
        .flag("--json", "One JSON value on one line instead of tables and indented text", o.json);
    addPageWords(program, o.page);
    addFleetWords(program, o.fleet);

    Words shows = program.command("show", "Tables of what goes on");
    const auto view = [&](const char* name, const char* help, const Show::View& (*which)()) {
        shows.command(name, help, [&o, which] { return show(o, which()); });
    };
    shows
        .command("streams", "All streams: which ports carry them, and why the others do not",
                 [&o] {
                     if (o.fleet.on)
                         return showFleet(o.socket, o.fleet, o.json, pageOf(o.page), std::nullopt);
                     return show(o, o.traffic ? Show::traffic() : Show::streams());
                 })
        .flag("--traffic", "What comes in of each from its talker, against what is reserved", o.traffic);
    shows.command("stream", "All about one stream", [&] { return showStream(o); })
        .text("ID", "0x... or address/number, 00:11:22:33:44:55/1", o.stream, required);
    view("ports",
         "Links, classes, bandwidth in use and allowed, queues, who waits, and the protocol's health",
         Show::ports);
    view("domain", "What each port is to each class", Show::domain);
    view("vlans", "VLANs of each port, configured and asked for", Show::vlans);
    view("counters", "Counters that are not zero; with --json, all of them", Show::counters);
    view("times", "How long reservations take, stage by stage", Show::times);
    view("log", "Recent lines of the system log", Show::log);
    view("capabilities", "What the kernel can do for reservations, and how each port is shaped",
         Show::capabilities);
    view("redundancy", "Which supervisor acts, which could, and how their store is", Show::redundancy);
    shows
        .command("mrp", "The protocol engine: timers, frames, and the states of every attribute of a port",
                 [&] { return showEngine(o); })
        .text("PORT", "Like swp1; without it, one line for each port", o.path);

    addTopWords(
        program.command("top", "Ports and streams as they are, with the bandwidth in use, until q is typed",
                        [&] {
                            if (o.json) throw Failure{"top is for people; programs watch records", usage};
                            return showTop(o.socket, o.top, o.page);
                        }),
        o.top);

    const auto withPath = [&](const char* name, const char* help, std::function<ExitCode()> body) {
        Words words = program.command(name, help, std::move(body));
        words.text("PATH", "Like msrp/config or msrp/config/intfEnable", o.path, required);
        return words;
    };
    program.command("list", "The paths of all records", [&] { return ask(o, request("list")); });
    withPath("get", "Reads a record, or what the path names below it",
             [&] { return ask(o, request("get", o.path)); });
    withPath("watch", "Reads, and again at every change, until interrupted; \"events\" tells what happens",
             [&] { return watch(o); })
        .text("--since", "With \"events\": as of history", o.history.since);
    withPath("set", "Writes a field", [&] { return set(o); })
        .text("FIELD", "Like srClassAPriority or intfEnable/swp1", o.field, required)
        .text("VALUE", "JSON, or a plain word; null removes an entry", o.value, required);
    addHistoryWords(program
                        .command("history", "What has happened to streams, ports, domains and configuration",
                                 [&] { return tellHistory(o.socket, o.json, pageOf(o.page), o.history); })
                        .number("--last", "The newest so many", o.history.last, {1, UINT32_MAX})
                        .flag("--follow", "Goes on with what happens, until interrupted", o.history.follow),
                    o.history);
    program.command("log", "What the log tells")
        .command("level", "The least level of each topic that is told, where it is not info; or sets one",
                 [&] { return logLevel(o); })
        .text("TOPIC", "streams, bandwidth, domains, ports, kernel or daemon", o.field)
        .text("LEVEL", "error, warning, notice, info or debug", o.value);
    program
        .command("capture", "Writes the frames of a port to a file, until interrupted",
                 [&] { return captureFrames(o); })
        .text("PORT", "Like swp1", o.path, required)
        .text("FILE", "The file, pcapng; - for standard output", o.file, required)
        .number("--count", "Ends after so many frames", o.count, {1, UINT64_MAX});
    program
        .command("audit", "Compares what the records ask of the kernel with what it does",
                 [&] { return audit(o); })
        .flag("--repair", "Mends the differences, too", o.repair);
    program.command("clear", "Begins anew with what the daemon counts")
        .command("counters", "Sets the counters of all ports, and the loop's delays, to zero",
                 [&] { return clearCounters(o); });
    program
        .command("doctor", "What keeps a bridge of this machine from carrying streams; needs no daemon",
                 [&] { return doctor(o); })
        .text("--bridge", "Like br0; needed where there are several", o.bridge)
        .text("--ptp4l", "Socket of the ptp4l that keeps time on its ports", o.ptp4l)
        .number("--vlan", "VLAN of the streams", o.vlan, {VlanId::min, VlanId::max});
    program
        .command("clean", "What a daemon that is gone has left in the kernel; needs no daemon",
                 [&] { return cleanUp(o); })
        .numbers("--protocol", "Number that marks groups (groupProtocol); several may follow", o.protocols,
                 {4, 255})
        .numbers("--handle", "Major number of queues (queueHandle); several may follow", o.handles,
                 {1, 0xFFEF})
        .flag("--yes", "Removes it", o.yes);
    program.command("redundancy", "Several supervisors of one switch")
        .command("switch", "Another supervisor that is ready acts from now on",
                 [&] { return act(o, request("switchOver")); });
    program.command("reload",
                    "Lets the daemon read its configuration files again, and tells what has changed",
                    [&] { return reload(o); });
    program
        .command("save", "Writes what was set since the daemon read its files to one of them",
                 [&] { return saveSettings(o); })
        .text("FILE", "The file; else 90-saved.json in the last directory that the daemon reads", o.file);
    program
        .command("schema", "JSON Schema of the configuration files, or of an output; needs no daemon",
                 [&] { return schema(o); })
        .text("OUTPUT", "What --json writes: show-streams, explain, records for get and watch ...", o.path)
        .text("--all", "Writes those of all outputs into that directory", o.file);
    program
        .command("support", "Gathers all that somebody needs who is to find out what is wrong",
                 [&] { return gather(o); })
        .text("FILE", "The archive to be made, like support.tar.gz", o.file, required);
    program.command("ringlog", "Reads a ring log file", [&] { return ringLog(o); })
        .text("FILE", "The file", o.file, required);
    WhyCommands why{[&o](const auto& records, const auto& more) {
                        Daemon daemon{o};
                        Show::Snapshot snapshot;
                        daemon.read(snapshot, records);
                        for (const std::string& path : more(snapshot)) daemon.tryRead(snapshot, path);
                        return snapshot;
                    },
                    [&o](const Value& value, const auto& text) {
                        if (o.json) return print(o, value);
                        std::cout << text(pageOf(o.page));
                    }};
    why.addTo(program);
    return program.run(argc, argv, {},
                       [&o](auto kind, const auto& before) { return offers(o, kind, before); });
}
