#include "Plan/Reader.h"

#include "Control/Json.h"
#include "Mrp/Records.h"
#include "Msrp/types/Config.h"
#include "Plan/Dot.h"
#include "Plan/GraphvizNames.h"
#include "Plan/Streams.h"
#include "Plan/page/Layout.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <memory>
#include <set>
#include <utility>

namespace Plan {

using Runtime::concat;

namespace {

enum class Kind : std::uint8_t { bridge, station, stream };
constexpr auto kindNames = std::to_array<State::EnumName<Kind>>(
    {{Kind::bridge, "bridge"}, {Kind::station, "station"}, {Kind::stream, "stream"}});
constexpr const auto& enumNames(Kind) { return kindNames; }

constexpr std::uint64_t firstBridge = 0x02'00'00'00'00'00;
constexpr std::uint64_t firstStation = 0x02'00'00'01'00'00;

/// The records of the agent's configuration that a bridge here has.
const std::vector<std::pair<std::string, std::shared_ptr<State::Entity>>>& configuration() {
    static const std::vector<std::pair<std::string, std::shared_ptr<State::Entity>>> records{
        {"msrp/cliConfig", std::make_shared<Msrp::CliConfig>()},
        {"mrp/config", std::make_shared<Mrp::MrpConfig>()}};
    return records;
}

class NetworkReader {
public:
    NetworkReader(const std::string& file, const OtherFile& other, Problems& problems)
        : file_{file}, other_{other}, problems_{problems} {}

    Network read(const DotGraph& graph) {
        Fields all = fieldsOf("the graph", {file_, 1}, graph.attributes);
        if (const Field* title = all.take("label"); title != nullptr) network_.title = title->text;
        if (const Field* layout = all.take("layout"); layout != nullptr) {
            if (!isLayout(layout->text)) all.bad("layout", "is no engine of Graphviz that can be used here");
            network_.layout = layout->text;
        }
        const Field* streams = all.take("streams");
        if (const Field* script = all.take("script"); script != nullptr) {
            network_.script = script->text;
            network_.scriptPlace = script->place;
        }
        all.number("vlan", 1, 4094, network_.vlan);
        for (const auto& [name, attribute] : graph.ofParts) {
            if (!isGraphvizName(name))
                problems_.push_back(concat(Place{file_, attribute.line}.text(), ": ", name, " = \"",
                                           attribute.value,
                                           "\" stands in a part of the graph, where it means nothing"));
        }
        for (const DotNode& node : graph.nodes) device(node);
        for (const DotEdge& edge : graph.edges) link(edge);
        for (std::size_t i = 0; i < network_.devices.size(); ++i) checkLinks(i);
        StreamReader reader{network_, problems_};
        for (const DotNode& node : graph.nodes) stream(node, reader);
        if (streams != nullptr) streamsIn(*streams, reader, all);
        reader.finish();
        all.restIs(ofGraphviz);
        return std::move(network_);
    }

private:
    static bool ofGraphviz(const std::string& name, const Field&) { return isGraphvizName(name); }

    Fields fieldsOf(const std::string& owner, const Place& place, const DotAttributes& attributes) {
        std::map<std::string, Field, std::less<>> fields;
        for (const auto& [name, attribute] : attributes)
            fields.emplace(name, Field{attribute.value, {file_, attribute.line}});
        return {owner, place, std::move(fields), problems_};
    }

    /// Nothing, and said, where there is none.
    std::optional<Kind> kindOf(Fields& fields) {
        Kind kind{};
        if (fields.take("kind") == nullptr) {
            fields.wrong("needs a kind: \"bridge\", \"station\" or \"stream\"");
            return std::nullopt;
        }
        const std::size_t before = problems_.size();
        fields.choice("kind", kind);
        return problems_.size() == before ? std::optional{kind} : std::nullopt;
    }

    void device(const DotNode& node) {
        const Place place{file_, node.line};
        Fields fields = fieldsOf(concat("node \"", node.name, '"'), place, node.attributes);
        const auto kind = kindOf(fields);
        if (!kind || *kind == Kind::stream) return;
        // Lists of stations and events of scripts could not name it.
        if (node.name.find_first_of(" \t\n,;#\"") != std::string::npos ||
            node.name.find("--") != std::string::npos)
            fields.wrong(
                "the name of a device has no blanks, commas, semicolons, quotes, '#' or \"--\"; "
                "label=\"...\" shows another one");
        Device made{.name = node.name, .bridge = *kind == Kind::bridge, .place = place};
        const bool bridge = made.bridge;
        // Else a name that is written wrongly would become a device of its own.
        if (!node.hasStatement) fields.wrong("is the end of a link, and no line of its own says what it is");
        made.address = EthAddr::fromNumber(bridge ? firstBridge + ++bridges_ : firstStation + ++stations_);
        fields.address("address", made.address);
        if (made.address.isMulticast()) fields.bad("address", "is that of a group");
        if (const auto [at, fresh] = addresses_.emplace(made.address.number(), node.name); !fresh)
            fields.wrong(concat("has the address ", made.address, " of \"", at->second, '"'));
        if (bridge) {
            fields.number("priority", 0, 61440, made.treePriority);
            if (made.treePriority % 4096 != 0) fields.bad("priority", "is no multiple of 4096");
            fields.duration("processing", made.processing);
        } else {
            fields.number("srClassAPriority", 0, 7, made.priorities[0]);
            fields.number("srClassBPriority", 0, 7, made.priorities[1]);
        }
        fields.restIs([&](const std::string& name, const Field& field) {
            return isGraphvizName(name) || (bridge && setting(made, name, field, fields));
        });
        numbers_.emplace(node.name, network_.devices.size());
        network_.devices.push_back(std::move(made));
    }

    /// Whether the name is a field of the configuration; what is wrong with its value is said.
    bool setting(Device& made, const std::string& name, const Field& field, Fields& fields) {
        std::vector<std::pair<std::string, std::shared_ptr<State::Entity>>> found;
        std::string leaf = name;
        for (const auto& [path, record] : configuration()) {
            if (record->hasField(name)) found.emplace_back(path, record);
            if (name.starts_with(path + '/') && record->hasField(name.substr(path.size() + 1))) {
                leaf = name.substr(path.size() + 1);
                found = {{path, record}};
                break;
            }
        }
        if (found.size() != 1) {
            if (!found.empty())
                fields.bad(name, concat("may be of ", found[0].first, " or of ", found[1].first));
            return !found.empty();
        }
        const Control::JsonResult json = Control::parseJson(field.text);
        const State::Value value = json.problem ? State::Value{field.text} : json.value;
        const auto& [path, record] = found[0];
        if (const auto problem = record->check(State::Object{{leaf, value}})) {
            fields.badAs(name, problem->where == leaf ? problem->what : problem->text());
            return true;
        }
        State::Value& patch = made.records[path];
        if (patch.isNull()) patch = State::Object{};
        std::get<State::Object>(patch.data).emplace_back(leaf, value);
        return true;
    }

    void link(const DotEdge& edge) {
        const Place place{file_, edge.line};
        Fields fields = fieldsOf(concat("link ", edge.tail, " -- ", edge.head), place, edge.attributes);
        Link made;
        made.place = place;
        made.delay = std::chrono::microseconds{1};
        const std::string* const names[2] = {&edge.tail, &edge.head};
        for (int i = 0; i < 2; ++i) {
            const auto at = numbers_.find(*names[i]);
            if (at == numbers_.end())
                return fields.wrong(concat("\"", *names[i], "\" is neither bridge nor station"));
            made.ends[i].device = at->second;
        }
        if (made.ends[0].device == made.ends[1].device) return fields.wrong("goes from a device to itself");
        fields.choice("speed", made.speed);
        if (made.speed == Interface::Speed::speedUnknown) fields.bad("speed", "is none");
        fields.duration("delay", made.delay);
        if (made.delay < std::chrono::nanoseconds{1}) fields.bad("delay", "is not at least 1ns");
        fields.share("loss", made.loss);
        std::vector<std::uint16_t> vlans{network_.vlan};
        vlansOf(fields, "vlans", vlans);
        constexpr const char* ports[2] = {"tailport", "headport"};
        constexpr const char* members[2] = {"tailvlans", "headvlans"};
        bool bridge = false;
        for (int i = 0; i < 2; ++i) {
            LinkEnd& end = made.ends[i];
            const Field* port = fields.take(ports[i]);
            end.vlans = vlans;
            if (!network_.devices[end.device].bridge) {
                if (port != nullptr) fields.bad(ports[i], "is of a station, whose ports have no names");
                if (fields.take(members[i]) != nullptr)
                    fields.bad(members[i], "is of a station, which knows no VLANs");
                continue;
            }
            vlansOf(fields, members[i], end.vlans);
            bridge = true;
            // "p1:n" is port p1, drawn from above.
            end.port = port != nullptr ? port->text.substr(0, port->text.find(':'))
                                       : freePort(end.device, *names[1 - i]);
            if (!IntfId::validName(end.port)) {
                fields.bad(ports[i], "is no name of 1 to 15 characters without '/'");
            } else if (!ports_.emplace(end.device, end.port).second) {
                fields.wrong(concat("port ", end.port, " of ", *names[i], " has another link already"));
            }
        }
        if (!bridge) return fields.wrong("lies between two stations");
        fields.restIs(ofGraphviz);
        network_.links.push_back(std::move(made));
    }

    static void vlansOf(Fields& fields, std::string_view name, std::vector<std::uint16_t>& to) {
        if (fields.take(name) == nullptr) return;
        std::vector<std::uint16_t> found;
        for (const std::string& word : fields.words(name)) {
            const auto vlan = State::parseDecimal(word, 4094);
            if (vlan && *vlan >= 1) {
                found.push_back(static_cast<std::uint16_t>(*vlan));
            } else if (word != "none") {
                return fields.bad(name, "is not \"none\" or numbers from 1 to 4094");
            }
        }
        to = std::move(found);
    }

    /// After the device at the other end, where that can be and is not taken.
    std::string freePort(std::size_t device, const std::string& far) {
        if (IntfId::validName(far) && !ports_.contains({device, far})) return far;
        for (unsigned i = 1;; ++i) {
            std::string name = concat('p', i);
            if (!ports_.contains({device, name})) return name;
        }
    }

    void checkLinks(std::size_t device) {
        const Device& d = network_.devices[device];
        if (d.bridge) return;
        const std::size_t links = network_.linksOf(device).size();
        if (links > 1)
            problems_.push_back(
                concat(d.place, ": node \"", d.name, "\": a station has one link, and this one ", links));
    }

    void stream(const DotNode& node, StreamReader& reader) {
        Fields fields = fieldsOf(concat("stream \"", node.name, '"'), {file_, node.line}, node.attributes);
        if (const Field* kind = fields.take("kind"); kind == nullptr || kind->text != "stream") return;
        reader.add(node.name, fields);
        fields.restIs(ofGraphviz);
    }

    void streamsIn(const Field& name, StreamReader& reader, Fields& graph) {
        std::string problem;
        const std::string text = other_(name.text, problem);
        if (!problem.empty()) return graph.bad("streams", problem);
        for (CsvRow& row : readCsv(text, name.text, problems_)) {
            std::map<std::string, Field, std::less<>> values;
            const Place place{name.text, row.line};
            for (auto& [field, value] : row.fields) values.emplace(field, Field{std::move(value), place});
            const std::string stream = values["name"].text;
            Fields fields{concat("stream \"", stream, '"'), place, std::move(values), problems_};
            if (fields.take("name")->text.empty()) fields.wrong("needs a name");
            reader.add(stream, fields);
            fields.restIs([](const std::string&, const Field&) { return false; });
        }
    }

    const std::string& file_;
    const OtherFile& other_;
    Problems& problems_;
    Network network_{};
    std::uint64_t bridges_ = 0;
    std::uint64_t stations_ = 0;
    std::map<std::string, std::size_t> numbers_;
    std::map<std::uint64_t, std::string> addresses_;
    std::set<std::pair<std::size_t, std::string>> ports_;
};

}  // namespace

Network readNetwork(const std::string& text, const std::string& file, const OtherFile& other,
                    Problems& problems) {
    DotGraph graph;
    if (const std::string problem = readDot(text, graph); !problem.empty()) {
        problems.push_back(concat(file, ": ", problem));
        return {};
    }
    return NetworkReader{file, other, problems}.read(graph);
}

}  // namespace Plan
