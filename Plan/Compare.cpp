#include "Plan/Compare.h"

#include "Plan/Report.h"
#include "Plan/Streams.h"
#include "Runtime/Text.h"
#include "Show/Table.h"

#include <algorithm>
#include <map>
#include <utility>

namespace Plan {

using Runtime::concat;
using State::Value;

namespace {

/// What people compare of one reservation: its state with the reason, and its latency.
struct Reservation {
    std::string state;
    Runtime::Duration latency;
};

std::map<std::string, Reservation> reservationsOf(const Network& network, const Outcome& outcome) {
    std::map<std::string, Reservation> all;
    for (std::size_t s = 0; s < network.streams.size(); ++s) {
        for (const ListenerOutcome& listener : outcome.streams[s].listeners)
            all[concat(network.streams[s].name, " -> ", network.devices[listener.station].name)] = {
                listener.reserved ? "reserved" : "failed at " + reasonText(network, listener),
                listener.latency};
    }
    return all;
}

std::map<std::string, std::string> linksOf(const Network& network, const Outcome& outcome) {
    std::map<std::string, std::string> all;
    for (std::size_t l = 0; l < network.links.size(); ++l) {
        const Link& link = network.links[l];
        for (std::size_t end = 0; end < 2; ++end) {
            const LinkOutcome& o = outcome.links[l][end];
            const auto& [from, to] = std::pair{link.ends[end], link.ends[1 - end]};
            const std::string port = from.port.empty() ? to.port : from.port;
            all[concat(network.devices[from.device].name, " -> ", network.devices[to.device].name, " (", port,
                       ')')] =
                concat(State::enumText(Interface::namedSpeed(o.megabitsPerSecond)),
                       o.forwards ? ", forwarding, " : ", blocking, ", "class A ", o.usedKbps[0], '/',
                       o.allowedKbps[0], ", class B ", o.usedKbps[1], '/', o.allowedKbps[1], " kbps");
        }
    }
    return all;
}

/// "A: x, was y"; "only before: A: y".
template <class Thing, class Text>
std::vector<std::string> differing(const std::map<std::string, Thing>& was,
                                   const std::map<std::string, Thing>& is, const Text& text) {
    std::vector<std::string> all;
    for (const auto& [name, before] : was) {
        const auto at = is.find(name);
        if (at == is.end()) {
            all.push_back(concat(name, ": gone, was ", text(before)));
        } else if (text(before) != text(at->second)) {
            all.push_back(concat(name, ": ", text(at->second), ", was ", text(before)));
        }
    }
    for (const auto& [name, after] : is) {
        if (!was.contains(name)) all.push_back(concat(name, ": ", text(after), ", was not there"));
    }
    return all;
}

Value numberedTexts(const std::vector<std::string>& texts) { return numbered({texts.begin(), texts.end()}); }

/// The first that is not reserved.
const ListenerOutcome* firstFailed(const Outcome& outcome, std::size_t& stream) {
    for (stream = 0; stream < outcome.streams.size(); ++stream) {
        for (const ListenerOutcome& listener : outcome.streams[stream].listeners) {
            if (!listener.reserved) return &listener;
        }
    }
    return nullptr;
}

}  // namespace

Differences compare(const Network& was, const Outcome& before, const Network& is, const Outcome& after) {
    Differences found;
    found.streams =
        differing(reservationsOf(was, before), reservationsOf(is, after), [](const Reservation& r) {
            return r.state == "reserved" ? concat(r.state, " with ", spanText(r.latency)) : r.state;
        });
    found.links =
        differing(linksOf(was, before), linksOf(is, after), [](const std::string& text) { return text; });
    return found;
}

std::string differencesText(const Differences& differences) {
    std::string out;
    for (const std::string& one : differences.streams) out += one + '\n';
    if (!differences.streams.empty() && !differences.links.empty()) out += '\n';
    for (const std::string& one : differences.links) out += one + '\n';
    return out.empty() ? "both come to the same\n" : out;
}

Value differencesValue(const Differences& differences) {
    return State::Object{{"streams", numberedTexts(differences.streams)},
                         {"links", numberedTexts(differences.links)}};
}

std::optional<Fit> fit(const Network& network, std::size_t stream, std::uint64_t most, const Run& run,
                       std::string& problem) {
    Fit found;
    /// Whether so many more fit; else who is in the way is in `found`.
    const auto fits = [&](std::uint64_t count) {
        Network more = network;
        // A stream that has no address of its own fits nowhere.
        if (!addLike(more, stream, count)) {
            found = {.stream = network.streams[stream].name,
                     .listener = {},
                     .device = {},
                     .port = {},
                     .reason = "no id or address is left for it"};
            return false;
        }
        for (Stream& one : more.streams) one.later = false;
        const Outcome outcome = run(more);
        std::size_t s = 0;
        const ListenerOutcome* failed = firstFailed(outcome, s);
        if (failed == nullptr) return true;
        found.stream = more.streams[s].name;
        found.listener = more.devices[failed->station].name;
        found.device = more.devices[failed->device].name;
        found.port = failed->port;
        found.reason = reasonText(more, *failed);
        return false;
    };
    if (!fits(0)) {
        problem = concat("stream \"", found.stream, "\" is not reserved for ", found.listener,
                         " as it is: ", found.reason);
        return std::nullopt;
    }
    std::uint64_t good = 0;
    std::uint64_t bad = 1;
    while (bad <= most && fits(bad)) {
        good = bad;
        bad = good == most ? most + 1 : std::min(most, 2 * bad);
    }
    while (bad - good > 1 && bad <= most) {
        const std::uint64_t middle = good + (bad - good) / 2;
        (fits(middle) ? good : bad) = middle;
    }
    found.count = good;
    found.all = good == most;
    return found;
}

std::string fitText(const Network& network, std::size_t stream, const Fit& fit) {
    std::string out = concat(fit.count, " more stream", fit.count == 1 ? "" : "s", " like ",
                             network.streams[stream].name, " fit");
    if (fit.all) return out + ", and maybe more: no more were tried\n";
    if (fit.device.empty()) return out + "; " + fit.reason + '\n';
    return out + concat("; one more, and ", fit.stream, " -> ", fit.listener, " fails at ", fit.reason, '\n');
}

Value fitValue(const Fit& fit) {
    return State::Object{{"count", Value{fit.count}},
                         {"all", Value{fit.all}},
                         {"stream", textOrNull(fit.all ? "" : fit.stream)},
                         {"listener", textOrNull(fit.all ? "" : fit.listener)},
                         {"device", textOrNull(fit.all ? "" : fit.device)},
                         {"port", textOrNull(fit.all ? "" : fit.port)},
                         {"reason", textOrNull(fit.all ? "" : fit.reason)}};
}

}  // namespace Plan
