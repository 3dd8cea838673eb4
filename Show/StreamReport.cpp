#include "Show/StreamReport.h"

#include "Show/BridgeNames.h"
#include "Show/FailureCodes.h"
#include "Show/PortFacts.h"
#include "Switch/EthAddr.h"

#include <algorithm>

namespace Show {

using Msrp::U64;
using State::Value;

namespace {

constexpr U64 addressInUse = Msrp::number(Msrp::TalkerFailureCode::destinationAddressInUse);

bool wantsBandwidth(U64 code) {
    return code == Msrp::number(Msrp::TalkerFailureCode::insufficientBandwidth) ||
           code == Msrp::number(Msrp::TalkerFailureCode::insufficientBandwidthForClass);
}

/// "A", "B", or nothing while no talker has told.
std::string classOf(const std::string& srClass) {
    if (srClass == "SrClassA") return "A";
    return srClass == "SrClassB" ? "B" : "";
}

class Reporter {
public:
    explicit Reporter(const Snapshot& snapshot) : snapshot_{snapshot}, lines_{snapshot} {
        const auto own = EthAddr::parse(textOf(at(snapshot.record("bridging/config"), {"bridgeMac"})));
        if (own) bridgeAddress_ = own->number();
    }

    [[nodiscard]] StreamReport report(U64 id, const Value& stream) const {
        StreamReport r;
        r.id = id;
        r.record = stream;
        r.from = textOf(at(stream, {"ingressIntf"}));
        r.vlan = numberOf(at(stream, {"vlanId"}));
        r.kbps = numberOf(at(stream, {"bandwidth"}));
        r.srClass = classOf(textOf(at(stream, {"srClass"})));
        r.destination = textOf(at(stream, {"macDa"}));
        r.talker = textOf(at(stream, {"talkerState", r.from}));
        r.age = age(stream, r.from);
        const U64 code = numberOf(at(stream, {"talkerFailureCode", r.from}));
        if (code != 0 || r.talker == "Failed") r.failure = failure(stream, code);
        if (const std::string why = refusal(r); !why.empty() && (r.failure.empty() || isOurs(stream)))
            r.failure += (r.failure.empty() ? "" : ": ") + why;
        if (isOurs(stream) && numberOf(at(stream, {"talkerFailureCode", r.from})) == addressInUse) {
            r.wait = lines_.forAddress(id, stream);
            r.failure += waitText(*r.wait);
        }
        for (const std::string& port : enabledPorts(snapshot_)) {
            if (port != r.from) r.ports.push_back(portReport(r, stream, port));
        }
        return r;
    }

private:
    [[nodiscard]] StreamPortReport portReport(const StreamReport& r, const Value& stream,
                                              const std::string& port) const {
        StreamPortReport p;
        p.name = port;
        const bool wanted = inGroup(snapshot_, stream, port);
        const std::string entry = std::to_string(r.vlan) + '/' + r.destination + '/' + port;
        const Value& groups = snapshot_.record("linux/groups");
        const std::string refused = textOf(at(groups, {"failed", entry}));
        const std::string problem = refused.empty() ? refusal(r) : refused;
        p.carried = wanted && problem.empty();
        p.age = age(stream, port);
        p.talker = textOf(at(stream, {"talkerState", port}));
        p.listener = textOf(at(stream, {"listenerState", port}));
        if (wanted && !problem.empty()) {
            p.reason = "reserved, but the kernel does not forward it: " + problem;
        } else if (!p.carried) {
            p.reason = reason(r, p, stream);
        }
        const U64 code = numberOf(at(stream, {"talkerFailureCode", port}));
        if (p.carried && isTrue(at(groups, {"notOffloaded", entry}))) {
            p.carried = false;
            p.reason = "reserved, but the switch chip has not taken its entry";
        }
        if (!p.carried && r.failure.empty() && wantsBandwidth(code)) {
            p.wait = lines_.forBandwidth(r.id, stream, port);
            p.reason += waitText(*p.wait);
        }
        return p;
    }

    /// The first of the things that a stream needs, from the wire up, that is not there.
    [[nodiscard]] std::string reason(const StreamReport& r, const StreamPortReport& p,
                                     const Value& stream) const {
        const Value& status = at(snapshot_.record("msrp/status"), {"intfStatus", p.name});
        const std::string link = textOf(at(status, {"linkStatus"}));
        const std::string domain = textOf(at(status, {"srClassState", "SrClass" + r.srClass}));
        const U64 code = numberOf(at(stream, {"talkerFailureCode", p.name}));
        if (link != "up") return "link down";
        const std::string bridge = textOf(at(snapshot_.record("linux/config"), {"bridge"}));
        const Value& members = at(snapshot_.record("bridging/config"), {"switchIntfConfig"});
        if (!bridge.empty() && at(members, {p.name}).isNull()) return "not a port of bridge " + bridge;
        if (textOf(at(status, {"portState"})) != "Forwarding") return "blocked by the spanning tree";
        if (r.from.empty()) return "no talker";
        if (domain == "WaitingForPeer") return "waiting for peer's domain";
        if (domain.empty() || domain == "NotSupported") return "class " + r.srClass + " not supported";
        if (code != 0 || p.talker == "Failed") return failure(stream, code);
        if (domain == "Boundary") return "domain boundary of class " + r.srClass;
        if (p.talker.empty() || p.talker == "None") return "talker not declared to this port";
        if (p.listener.empty() || p.listener == "Ignore") return "no listener";
        if (p.listener == "AskingFailed") return "listener cannot receive it (AskingFailed)";
        return "listener " + p.listener + ", not yet carried";
    }

    /// Why the bridge cannot forward it to listeners; empty: it can, or nobody has asked.
    [[nodiscard]] std::string refusal(const StreamReport& r) const {
        const std::string group = std::to_string(r.vlan) + '-' + r.destination;
        return textOf(at(snapshot_.record("switch/refusals"), {"group", group, "why"}));
    }

    [[nodiscard]] std::string failure(const Value& stream, U64 code) const {
        const U64 bridge = State::parseHex(textOf(at(stream, {"failedBridgeId"}))).value_or(0);
        std::string text = codeText(code);
        if (bridge == 0) return text;
        return text + " (found by " + (isOurs(stream) ? "this bridge" : "bridge " + bridgeIdText(bridge)) +
               ')';
    }

    /// This bridge found the failure.
    [[nodiscard]] bool isOurs(const Value& stream) const {
        const U64 bridge = State::parseHex(textOf(at(stream, {"failedBridgeId"}))).value_or(0);
        // The priority of our own id depends on the spanning tree; the address is ours alone.
        return bridgeAddress_ != 0 && bridgeAddress(bridge) == bridgeAddress_;
    }

    [[nodiscard]] double age(const Value& stream, const std::string& port) const {
        const auto since = State::Codec<double>::decode(at(stream, {"statusTime", port}));
        return since && *since > 0.0 ? snapshot_.since(*since) : -1.0;
    }

    const Snapshot& snapshot_;
    WaitingLines lines_;
    U64 bridgeAddress_ = 0;
};

}  // namespace

std::vector<StreamReport> streamReports(const Snapshot& snapshot) {
    const Reporter reporter{snapshot};
    std::vector<StreamReport> reports;
    for (const auto& [key, stream] : membersOf(at(snapshot.record("msrp/status"), {"registeredStreams"}))) {
        if (const auto id = State::parseHex(key)) reports.push_back(reporter.report(*id, stream));
    }
    return reports;
}

std::optional<StreamReport> streamReport(const Snapshot& snapshot, U64 id) {
    const Value& stream = at(snapshot.record("msrp/status"), {"registeredStreams", State::hexText(id)});
    if (stream.isNull()) return std::nullopt;
    return Reporter{snapshot}.report(id, stream);
}

std::string streamName(U64 id) {
    return EthAddr::fromNumber(id >> 16).text() + '/' + std::to_string(id & 0xffff);
}

std::optional<U64> parseStream(std::string_view text) {
    if (const auto number = State::parseHex(text)) return number;
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    const auto address = EthAddr::parse(text.substr(0, slash));
    const auto unique = State::parseDecimal(text.substr(slash + 1), 0xffff);
    if (!address || !unique) return std::nullopt;
    return address->number() << 16 | *unique;
}

}  // namespace Show
