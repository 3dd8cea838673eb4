#include "Plan/NetworkValue.h"

#include "Plan/Report.h"

#include <vector>

namespace Plan {

using State::Value;

namespace {

Value deviceValue(const Device& device) {
    State::Object configuration;
    for (const char* path : {"msrp/cliConfig", "mrp/config"}) {
        const auto said = device.records.find(path);
        configuration.emplace_back(path,
                                   said == device.records.end() ? Value{State::Object{}} : said->second);
    }
    return State::Object{{"kind", Value{device.bridge ? "bridge" : "station"}},
                         {"address", Value{device.address.text()}},
                         {"priority", device.bridge ? Value{std::uint64_t{device.treePriority}} : Value{}},
                         {"processing", device.bridge ? spanValue(device.processing) : Value{}},
                         {"configuration", device.bridge ? Value{std::move(configuration)} : Value{}}};
}

Value endValue(const Network& network, const LinkEnd& end) {
    std::vector<Value> vlans;
    vlans.reserve(end.vlans.size());
    for (const std::uint16_t vlan : end.vlans) vlans.emplace_back(std::uint64_t{vlan});
    const Device& device = network.devices[end.device];
    return State::Object{{"device", Value{device.name}},
                         {"port", textOrNull(end.port)},
                         {"vlans", device.bridge ? numbered(std::move(vlans)) : Value{}}};
}

Value linkValue(const Network& network, const Link& link) {
    return State::Object{
        {"ends", numbered({endValue(network, link.ends[0]), endValue(network, link.ends[1])})},
        {"speed", Value{State::enumText(link.speed)}},
        {"delay", spanValue(link.delay)},
        {"loss", Value{link.loss}}};
}

Value streamValue(const Network& network, const Stream& stream) {
    std::vector<Value> listeners;
    listeners.reserve(stream.listeners.size());
    for (const std::size_t listener : stream.listeners)
        listeners.emplace_back(network.devices[listener].name);
    return State::Object{{"id", Value{State::hexText(stream.id)}},
                         {"talker", Value{network.devices[stream.talker].name}},
                         {"listeners", numbered(std::move(listeners))},
                         {"class", Value{stream.srClass == Msrp::SrClassId::SrClassA ? "A" : "B"}},
                         {"maxFrameSize", Value{std::uint64_t{stream.tspec.maxFrameSize}}},
                         {"maxIntervalFrames", Value{std::uint64_t{stream.tspec.maxIntervalFrames}}},
                         {"destination", Value{stream.destination.text()}},
                         {"vlan", Value{std::uint64_t{stream.vlan}}},
                         {"rank", Value{std::uint64_t{stream.rank}}}};
}

}  // namespace

Value networkValue(const Network& network) {
    State::Object devices;
    devices.reserve(network.devices.size());
    for (const Device& device : network.devices) devices.emplace_back(device.name, deviceValue(device));
    std::vector<Value> links;
    links.reserve(network.links.size());
    for (const Link& link : network.links) links.push_back(linkValue(network, link));
    State::Object streams;
    streams.reserve(network.streams.size());
    for (const Stream& stream : network.streams)
        streams.emplace_back(stream.name, streamValue(network, stream));
    return State::Object{{"network", textOrNull(network.title)},
                         {"devices", std::move(devices)},
                         {"links", numbered(std::move(links))},
                         {"streams", std::move(streams)},
                         {"script", textOrNull(network.script)}};
}

}  // namespace Plan
