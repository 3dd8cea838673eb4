/// Tells Prometheus over HTTP how a running msrpd fares.
///
/// Exit codes: 0 stopped by a signal, 1 cannot listen, 2 wrong usage.
#include "Control/LogWriter.h"
#include "Control/Server.h"
#include "Control/Socket.h"
#include "Linux/kernel/EpollLoop.h"
#include "Linux/kernel/Signals.h"
#include "Monitor/HttpServer.h"
#include "Monitor/MetricText.h"
#include "Monitor/Metrics.h"
#include "programs/CommandLine.h"

#include <csignal>
#include <memory>
#include <string>

namespace {

struct Options {
    std::string socket = std::string{Control::defaultSocket} + ".read";
    std::string listen{"127.0.0.1:9120"};
    std::string group{Control::Server::Groups{}.readers};
    std::uint64_t streams = 0;
};

class Exporter {
public:
    explicit Exporter(const Options& options)
        : options_{options}, mirror_{loop_, options.socket, Monitor::metricRecords(options.streams != 0)} {}

    void run() {
        demand(server_.start(options_.listen, options_.group));
        if (!server_.notice().empty()) Control::lastWords("msrp-exporter: " + server_.notice());
        loop_.run();
    }

private:
    Monitor::HttpAnswer answer(std::string_view path) {
        if (path == "/metrics") return {200, Monitor::MetricText::contentType, metrics()};
        if (path != "/") return {.status = 404};
        static const auto page = std::make_shared<const std::string>(
            "<!DOCTYPE html><title>msrp-exporter</title><a href=\"/metrics\">Metrics</a> of a stream "
            "reservation daemon\n");
        return {200, "text/html; charset=utf-8", page};
    }

    /// Made once of what is fetched once.
    std::shared_ptr<const std::string> metrics() {
        const Show::Snapshot* snapshot = mirror_.fresh();
        if (mirror_.fetches() == told_) return text_;
        told_ = mirror_.fetches();
        std::string text = Monitor::mirrorMetrics(mirror_);
        if (snapshot != nullptr) {
            text += Monitor::metrics(*snapshot, options_.streams);
            const std::size_t omitted =
                options_.streams != 0 ? Monitor::omittedStreams(*snapshot, options_.streams) : 0;
            say(omitted_, omitted == 0
                              ? ""
                              : "more streams than --streams " + std::to_string(options_.streams) +
                                    ": the others have no series of their own (msrp_streams_omitted)");
        }
        say(problem_, mirror_.problem());
        text_ = std::make_shared<const std::string>(std::move(text));
        return text_;
    }
    /// When it is another one than before.
    static void say(std::string& before, const std::string& line) {
        if (line != before && !line.empty()) Control::lastWords("msrp-exporter: " + line);
        before = line;
    }

    const Options& options_;
    Linux::EpollLoop loop_;
    Linux::Signals signals_{loop_, [this](int) { loop_.stop(); }, {SIGTERM, SIGINT}};
    Monitor::Mirror mirror_;
    std::uint64_t told_ = 0;
    std::shared_ptr<const std::string> text_;
    std::string problem_;
    std::string omitted_;
    Monitor::HttpServer server_{loop_, [this](std::string_view path) { return answer(path); }};
};

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    Program program{"msrp-exporter", "Tells Prometheus over HTTP, at /metrics, how a running msrpd fares"};
    program.text("--socket", "Control socket of the daemon", options.socket)
        .text("--listen", "ADDRESS:PORT, or the path of a Unix socket", options.listen)
        .text("--group", "Who may use the Unix socket, beside us", options.group)
        .number("--streams",
                "So many streams have series of their own, those with the lowest ids; without it none has",
                options.streams, {1, 100'000});
    return program.run(argc, argv, [&] {
        Exporter{options}.run();
        return done;
    });
}
