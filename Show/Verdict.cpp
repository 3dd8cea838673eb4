#include "Show/Verdict.h"

#include "Show/PortFacts.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"

namespace Show {

using Msrp::AdmissionRequest;
using Msrp::U64;

namespace {

constexpr std::array<std::string_view, 5> vlanStates{"carried", "not configured", "no member", "blocked",
                                                     "untagged"};

std::string line(std::string_view label, const std::string& text) {
    std::string out = "    " + std::string{label};
    out.resize(12, ' ');
    return out + printable(text) + '\n';
}

std::string holdersText(const Verdict& v) {
    std::string out;
    for (const Holder& holder : v.holders) {
        out += (out.empty() ? "" : ", ") + streamName(holder.id);
        if (holder.kbps != 0) out += " (" + std::to_string(holder.kbps) + " kbps)";
    }
    if (v.moreHolders != 0)
        out += ", and " + std::to_string(v.moreHolders) + " more (" + std::to_string(v.moreKbps) + " kbps)";
    return out;
}

/// What the class may have of the port.
U64 ownShare(const AdmissionRequest& share) {
    if (share.srClass == Msrp::SrClassId::SrClassA) return share.percentA * share.link / 100;
    const U64 both = Msrp::allowedTotal(share);
    return both - std::min(both, share.allocatedA);
}

const Column<Inputs> inputColumns[]{
    {"link", [](const auto& in) { return in.link; }},
    {"speed", [](const auto& in) { return in.speed; }},
    {"portState", [](const auto& in) { return in.portState; }},
    {"classState", [](const auto& in) { return in.state; }},
    {"priority", [](const auto& in) { return in.priority; }},
    {"peerPriority", [](const auto& in) { return in.peerPriority; }},
    {"vlan", [](const auto& in) { return in.vlan; }},
    {"vlanState", [](const auto& in) { return vlanStates[static_cast<std::size_t>(in.vlanState)]; }},
    {"neededKbps", [](const auto& in) { return in.share.needed; }},
    {"allowedKbps", [](const auto& in) { return ownShare(in.share); }},
    {"usedKbps",
     [](const auto& in) {
         return in.share.srClass == Msrp::SrClassId::SrClassA ? in.share.allocatedA : in.share.allocatedB;
     }},
    {"allowedBothKbps", [](const auto& in) { return Msrp::allowedTotal(in.share); }},
    {"usedBothKbps", [](const auto& in) { return in.share.allocatedA + in.share.allocatedB; }},
    {"missingKbps", [](const auto& in) { return Msrp::missingBandwidth(in.share); }},
    {"tableUsed", [](const auto& in) { return in.tableUsed; }},
    {"tableSize", [](const auto& in) { return in.tableSize; }},
    {"tableRoom", [](const auto& in) { return in.tableRoom; }},
    {"kernel", [](const auto& in) { return textOrNone(in.kernel); }},
};

const Column<Mend> mendColumns[]{
    {"text", [](const auto& m) { return m.text; }},
    {"record", [](const auto& m) { return textOrNone(m.record); }},
    {"set", [](const auto& m) { return m.set; }},
};

const Column<Holder> holderColumns[]{
    {"id", [](const auto& h) { return HexId{h.id}; }},
    {"stream", [](const auto& h) { return streamName(h.id); }},
    {"kbps", [](const auto& h) { return h.kbps; }},
};

/// How many streams more than are named, and what they have together.
struct MoreHolders {
    U64 streams;
    U64 kbps;
};
const Column<MoreHolders> moreColumns[]{
    {"streams", [](const auto& m) { return m.streams; }},
    {"kbps", [](const auto& m) { return m.kbps; }},
};

bool fits(AdmissionRequest r, U64 percentA, U64 percentB) {
    r.percentA = percentA;
    r.percentB = percentB;
    return Msrp::admit(r) == Msrp::TalkerFailureCode::noFailure;
}

Mend shareMend(U64 percentA, U64 percentB, bool changesA, bool changesB, bool classA) {
    constexpr U64 usual = 75;
    Mend mend{.text = {}, .record = "msrp/cliConfig"};
    if (changesA) mend.set.emplace_back("srClassABandwidthPercent", percentA);
    if (changesB) mend.set.emplace_back("srClassBBandwidthPercent", percentB);
    for (const auto& [field, value] : mend.set)
        mend.text += (mend.text.empty() ? "" : " with ") + field + ' ' + std::to_string(value);
    if (!(changesA && changesB)) mend.text += (classA ? percentA : percentB) < 100 ? " or more" : "";
    if (percentA + percentB > usual)
        mend.text += " (over 75 per cent for both, other traffic and the latency of streams suffer)";
    return mend;
}

/// Where neither a share nor a link alone would do: the usual share on the slowest link with which it does.
void bothMends(const AdmissionRequest& r, U64 other, std::vector<Mend>& mends) {
    constexpr U64 usual = 75;
    const bool classA = r.srClass == Msrp::SrClassId::SrClassA;
    if (other >= usual) return;
    for (const Interface::SpeedInfo& speed : Interface::speeds) {
        AdmissionRequest faster = r;
        faster.link = Msrp::linkSpeedKbps(speed.name.value);
        const U64 a = classA ? usual - other : other;
        const U64 b = classA ? other : usual - other;
        if (faster.link <= r.link || !fits(faster, a, b)) continue;
        mends.push_back(shareMend(a, b, classA, !classA, classA));
        mends.back().text += " on a link of " + std::string{speed.name.name};
        return;
    }
}

/// How it bodes for who waits for the stream there.
Mood moodOf(const Verdict& v) {
    switch (v.rule) {
        case Rule::carried:
        case Rule::advertised:
        case Rule::fits:
            return Mood::good;
        case Rule::waitingForPeer:
        case Rule::underWay:
        case Rule::gone:
            return Mood::waits;
        case Rule::talkerPort:
        case Rule::noTalker:
        case Rule::notDeclared:
        case Rule::noListener:
            return Mood::plain;
        default:
            return v.wait ? Mood::waits : Mood::bad;
    }
}

}  // namespace

std::vector<Mend> bandwidthMends(const AdmissionRequest& r) {
    if (Msrp::admit(r) == Msrp::TalkerFailureCode::noFailure) return {};
    constexpr U64 whole = 100;
    const bool classA = r.srClass == Msrp::SrClassId::SrClassA;
    const U64 own = classA ? r.percentA : r.percentB;
    const U64 other = classA ? r.percentB : r.percentA;
    std::vector<Mend> mends;
    // The share that the other class leaves; beyond that, at its expense.
    for (const bool takes : {false, true}) {
        for (U64 percent = own + 1; mends.empty() && percent <= whole; ++percent) {
            const U64 rest = takes ? std::min(other, whole - percent) : other;
            if (percent + rest > whole) break;
            const U64 a = classA ? percent : rest;
            const U64 b = classA ? rest : percent;
            const bool otherChanges = rest != other;
            if (fits(r, a, b))
                mends.push_back(shareMend(a, b, classA || otherChanges, !classA || otherChanges, classA));
        }
    }
    for (const Interface::SpeedInfo& speed : Interface::speeds) {
        AdmissionRequest faster = r;
        faster.link = Msrp::linkSpeedKbps(speed.name.value);
        if (faster.link <= r.link || Msrp::admit(faster) != Msrp::TalkerFailureCode::noFailure) continue;
        mends.push_back({"a link of " + std::string{speed.name.name} + " or more"});
        // Nothing is admitted on those (linkSpeedKbps).
        if (speed.megabitsPerSecond < 2500) mends.back().text += " (but 2.5G and 5G)";
        break;
    }
    if (mends.empty()) bothMends(r, other, mends);
    return mends;
}

std::string outcomeText(const Verdict& v, const Page& page) {
    return painted(printable(v.what), moodOf(v), page) +
           (v.code != 0 ? " (code " + std::to_string(v.code) + ')' : "");
}

std::string verdictLines(const Verdict& v) {
    std::string out;
    if (!v.why.empty()) out += line("why", v.why);
    if (v.whose != Whose::nobody) out += line("whose", v.who);
    if (!v.holders.empty()) out += line("held by", holdersText(v));
    for (const Mend& mend : v.mends) out += line(&mend == &v.mends.front() ? "mend" : "or", mend.text);
    return out;
}

bool isGood(const Verdict& v) {
    return v.rule == Rule::carried || v.rule == Rule::advertised || v.rule == Rule::fits ||
           v.rule == Rule::talkerPort;
}

}  // namespace Show

template <>
struct State::Codec<Show::Inputs> {
    static Value encode(const Show::Inputs& in) { return Show::objectValue(Show::inputColumns, in); }
    static Schema schema() { return Show::objectSchema(Show::inputColumns); }
};
template <>
struct State::Codec<Show::Mend> {
    static Value encode(const Show::Mend& mend) { return Show::objectValue(Show::mendColumns, mend); }
    static Schema schema() { return Show::objectSchema(Show::mendColumns); }
};
template <>
struct State::Codec<Show::MoreHolders> {
    static Value encode(const Show::MoreHolders& more) { return Show::objectValue(Show::moreColumns, more); }
    static Schema schema() { return Show::objectSchema(Show::moreColumns); }
};

State::Value State::Codec<std::vector<Show::Holder>>::encode(const std::vector<Show::Holder>& holders) {
    return Show::Table{Show::holderColumns, 1, holders}.value();
}
State::Schema State::Codec<std::vector<Show::Holder>>::schema() {
    return Show::tableSchema(Show::holderColumns, 1);
}

namespace Show {

namespace {

const Column<Verdict> verdictColumns[]{
    {"good", [](const auto& v) { return isGood(v); }},
    {"rule", [](const auto& v) { return v.rule; }},
    {"code", [](const auto& v) { return v.code; }},
    {"what", [](const auto& v) { return v.what; }},
    {"why", [](const auto& v) { return textOrNone(v.why); }},
    {"whose", [](const auto& v) { return v.whose; }},
    {"who", [](const auto& v) { return textOrNone(v.who); }},
    {"bridge", [](const auto& v) { return v.bridge ? std::optional{HexId{*v.bridge}} : std::nullopt; }},
    {"since", [](const auto& v) { return ageOrNone(v.since); }},
    {"mend", [](const auto& v) { return Numbered<Mend>{v.mends}; }},
    {"holders", [](const auto& v) { return v.holders; }},
    {"moreHolders",
     [](const auto& v) {
         return MoreHolders{v.moreHolders, v.moreKbps};
     }},
    {"waiting", [](const auto& v) { return v.wait; }},
    {"inputs", [](const auto& v) { return v.inputs; }},
};

}  // namespace

}  // namespace Show

State::Value State::Codec<Show::Verdict>::encode(const Show::Verdict& v) {
    return Show::objectValue(Show::verdictColumns, v);
}
State::Schema State::Codec<Show::Verdict>::schema() { return Show::objectSchema(Show::verdictColumns); }
