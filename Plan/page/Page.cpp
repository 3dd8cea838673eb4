#include "Plan/page/Page.h"

#include "Plan/Latency.h"
#include "Plan/Report.h"
#include "Plan/page/Drawing.h"
#include "Plan/page/PageText.h"

#include <map>
#include <nlohmann/json.hpp>
#include <utility>

namespace Plan {

using Json = nlohmann::json;

namespace {

double seconds(Runtime::Duration span) { return std::chrono::duration<double>(span).count(); }

/// Texts that come again and again, by number.
class Texts {
public:
    std::size_t of(const std::string& text) {
        const auto [at, fresh] = numbers_.try_emplace(text, all_.size());
        if (fresh) all_.push_back(text);
        return at->second;
    }
    [[nodiscard]] const Json& all() const { return all_; }

private:
    std::map<std::string, std::size_t> numbers_;
    Json all_ = Json::array();
};

/// [station, reserved, latency, too long, ways, number of the reason or -1]
Json listenerOf(const Network& network, const Stream& stream, const ListenerOutcome& listener, Texts& texts) {
    Json ways = Json::array();
    for (const Hop& hop : listener.path) ways.push_back(2 * hop.link + static_cast<std::size_t>(hop.end));
    const bool way = !listener.path.empty();
    return Json::array({listener.station, listener.reserved, way ? spanText(listener.latency) : "",
                        way && listener.latency > latencyTarget(stream.srClass), std::move(ways),
                        listener.reserved ? -1 : static_cast<int>(texts.of(reasonText(network, listener)))});
}

/// [stream, listener, reserved before, after, seconds without, number of the reason or -1]
Json effectOf(const Effect& effect, Texts& texts) {
    return Json::array({effect.stream, effect.station, effect.before, effect.after, seconds(effect.without),
                        effect.reason.empty() ? -1 : static_cast<int>(texts.of(effect.reason))});
}

Json dataOf(const Network& network, const Course& course) {
    const Outcome& end = course.end;
    Texts texts;
    Json devices = Json::array();
    for (const Device& device : network.devices) devices.push_back(device.name);
    Json links = Json::array();
    for (std::size_t l = 0; l < network.links.size(); ++l) {
        const Link& link = network.links[l];
        Json both = Json::array();
        for (std::size_t e = 0; e < 2; ++e) {
            const LinkOutcome& way = end.links[l][e];
            both.push_back({link.ends[e].device, link.ends[e].port,
                            way.up ? way.forwards ? "" : "blocked" : "down", way.usedKbps, way.allowedKbps,
                            way.frames, way.lost, network.devices[link.ends[e].device].bridge});
        }
        links.push_back(
            {State::enumText(Interface::namedSpeed(end.links[l][0].megabitsPerSecond)), std::move(both)});
    }
    Json streams = Json::array();
    for (std::size_t s = 0; s < network.streams.size(); ++s) {
        const Stream& stream = network.streams[s];
        Json listeners = Json::array();
        for (const ListenerOutcome& listener : end.streams[s].listeners)
            listeners.push_back(listenerOf(network, stream, listener, texts));
        streams.push_back({stream.name, std::string{classLetter(stream.srClass)}, streamKbps(stream),
                           stream.talker, std::move(listeners)});
    }
    Json events = Json::array();
    for (const Chapter& chapter : course.chapters) {
        Json effects = Json::array();
        for (const Effect& effect : chapter.effects) effects.push_back(effectOf(effect, texts));
        events.push_back(
            {seconds(chapter.at), chapter.text, chapter.quiet, seconds(chapter.lasted), std::move(effects)});
    }
    return {{"devices", std::move(devices)},
            {"links", std::move(links)},
            {"streams", std::move(streams)},
            {"events", std::move(events)},
            {"texts", texts.all()},
            {"end", seconds(end.at)},
            {"summary", summaryText(network, end)},
            {"targets",
             {spanText(latencyTarget(Msrp::SrClassId::SrClassA)),
              spanText(latencyTarget(Msrp::SrClassId::SrClassB))}}};
}

/// As it may stand within a page: no text ends it.
std::string inPage(const Json& data) {
    std::string out;
    // Names are whatever octets the file has.
    for (const char c : data.dump(-1, ' ', false, Json::error_handler_t::replace)) {
        if (c == '<') {
            out += "\\u003c";
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace

std::string pageOf(const Network& network, const Course& course) {
    const std::string title = network.title.empty() ? "A network" : network.title;
    const std::map<std::string_view, std::string> parts{{"title", escaped(title)},
                                                        {"drawing", drawing(network, course.end)},
                                                        {"data", inPage(dataOf(network, course))}};
    std::string out;
    std::string_view rest = pageText;
    for (auto at = rest.find("{{"); at != std::string_view::npos; at = rest.find("{{")) {
        const auto close = rest.find("}}", at);
        out += rest.substr(0, at);
        out += parts.at(rest.substr(at + 2, close - at - 2));
        rest.remove_prefix(close + 2);
    }
    return out.append(rest);
}

}  // namespace Plan
