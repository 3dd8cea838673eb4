#include "programs/WhyCommands.h"

#include "Show/BridgeNames.h"
#include "Show/Explain.h"
#include "Show/PortJudge.h"
#include "Show/StreamReport.h"
#include "Show/WhatIf.h"
#include "programs/Neighbours.h"

#include <filesystem>
#include <fstream>
#include <utility>

namespace {

constexpr const char* defaultNames = "/etc/msrpd/bridges";

/// Of the file, which need not be there where it has the default name, and of lldpd.
Show::BridgeNames namesFrom(const std::string& given) {
    constexpr std::size_t most = 1'000'000;
    Show::BridgeNames names;
    const std::string path = given.empty() ? defaultNames : given;
    std::error_code unknown;
    if (!given.empty() || std::filesystem::exists(path, unknown)) {
        std::ifstream file{path, std::ios::binary};
        std::string text(most, '\0');
        file.read(text.data(), static_cast<std::streamsize>(text.size()));
        text.resize(static_cast<std::size_t>(file.gcount()));
        if (!file.eof()) throw Failure{path + ": cannot be read, or is longer than 1 MB"};
        if (const std::string problem = names.read(text); !problem.empty())
            throw Failure{path + ": " + problem};
    }
    names.neighboursAre(lldpNeighbours());
    return names;
}

/// The two sides of "A=60".
std::pair<std::string, std::string> sides(const char* option, const std::string& text, const char* like) {
    const auto equals = text.find('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == text.size())
        throw Failure{std::string{option} + " \"" + text + "\": expected like " + like, usage};
    return {text.substr(0, equals), text.substr(equals + 1)};
}

Msrp::SrClassId classOf(const char* option, const std::string& letter) {
    if (letter != "A" && letter != "B")
        throw Failure{std::string{option} + " \"" + letter + "\": the classes are A and B", usage};
    return letter == "A" ? Msrp::SrClassId::SrClassA : Msrp::SrClassId::SrClassB;
}

std::uint64_t numberIn(const char* option, const std::string& text, std::uint64_t min, std::uint64_t max) {
    const auto number = State::parseDecimal(text, max);
    if (!number || *number < min)
        throw Failure{std::string{option} + " \"" + text + "\": expected a number from " +
                          std::to_string(min) + " to " + std::to_string(max),
                      usage};
    return *number;
}

template <class E>
E named(const char* option, const std::string& text) {
    const auto found = State::Codec<E>::decode(State::Value{text});
    if (!found)
        throw Failure{std::string{option} + " \"" + text + "\": expected " + State::Codec<E>::expected(),
                      usage};
    return *found;
}

}  // namespace

void WhyCommands::addTo(Program& program) {
    constexpr std::uint64_t octets = 0xffff;
    const std::string names =
        std::string{
            "File of names of bridges and stations, lines like \"00:11:22:33:44:55 "
            "name\" (default "} +
        defaultNames + ")";
    program
        .command("explain",
                 "Why a stream is carried or not, from its talker to each port, and what would mend it",
                 [this] { return explain(); })
        .text("STREAM", "0x... or address/number, 00:11:22:33:44:55/1", stream_, Words::Need::required)
        .text("PORT", "To that port alone", port_)
        .text("--names", names, names_);
    program
        .command("what-if",
                 "Whether a stream would get from one port to others, how many would, and what if ...",
                 [this] { return whatIf(); })
        .text("--from", "The talker's port", from_, Words::Need::required)
        .list("--to", "Ports of listeners; several may follow (default: all others)", to_)
        .text("--class", "A or B", class_)
        .number("--frame-size", "MaxFrameSize, octets", frameSize_, {1, octets})
        .number("--frames", "MaxIntervalFrames", frames_, {1, octets})
        .text("--format",
              "Instead of the two: aaf-int16, aaf-int24, aaf-int32, am824, crf, h264, mjpeg, mpeg-ts",
              format_)
        .number("--channels", "Of audio", channels_, {1, octets})
        .number("--rate", "Of audio, samples per second", rate_, {1, UINT32_MAX})
        .number("--samples", "Of audio, in an interval, where it is not as the rate asks for", samples_,
                {1, octets})
        .number("--timestamps", "Of crf, in a frame", timestamps_, {1, octets})
        .number("--kbps", "Of video, as it is coded", kbps_, {1, UINT32_MAX})
        .number("--vlan", "Of the stream (default: what the talker's port declares)", vlan_, {1, 4094})
        .texts("--share", "What if a class had that share, per cent: A=60", shares_)
        .texts("--speed", "What if a link had that speed: swp2=100M", speeds_)
        .texts("--member", "What if a port were a tagged member of a VLAN: swp2=5", members_)
        .text("--names", names, names_);
}

ExitCode WhyCommands::explain() {
    const auto id = Show::parseStream(stream_);
    if (!id) throw Failure{"stream \"" + stream_ + "\" is neither 0x... nor like 00:11:22:33:44:55/1", usage};
    const Show::BridgeNames names = namesFrom(names_);
    const Show::Snapshot snapshot =
        read_(Show::judgedRecords(), [&](const Show::Snapshot& s) { return Show::explainMore(s, *id); });
    const Show::Explanation explanation = Show::explain(snapshot, names, *id, port_);
    write_(Show::explainValue(explanation),
           [&](const Show::Page& page) { return Show::explainText(explanation, page); });
    return done;
}

ExitCode WhyCommands::whatIf() {
    Show::WhatIf question;
    question.srClass = classOf("--class", class_);
    if (format_.empty() == (frameSize_ == 0))
        throw Failure{"either --frame-size or --format is needed", usage};
    question.tspec = {static_cast<Msrp::U16>(frameSize_), static_cast<Msrp::U16>(frames_)};
    if (!format_.empty()) {
        const Msrp::MediaTspec media =
            Msrp::mediaTspec({.format = named<Msrp::MediaFormat>("--format", format_),
                              .channels = static_cast<Msrp::U32>(channels_),
                              .rate = static_cast<Msrp::U32>(rate_),
                              .samples = static_cast<Msrp::U32>(samples_),
                              .timestamps = static_cast<Msrp::U32>(timestamps_),
                              .kbps = static_cast<Msrp::U32>(kbps_)},
                             question.srClass);
        demand(media.problem.empty() ? "" : "--format " + format_ + ": " + media.problem, usage);
        question.tspec = media.tspec;
    }
    question.from = from_;
    question.to = to_;
    if (vlan_ != 0) question.vlan = static_cast<Msrp::U16>(vlan_);
    for (const std::string& text : shares_) {
        const auto [srClass, percent] = sides("--share", text, "A=60");
        question.shares[classOf("--share", srClass)] = numberIn("--share", percent, 0, 100);
    }
    for (const std::string& text : speeds_) {
        const auto [port, speed] = sides("--speed", text, "swp2=100M");
        question.speeds[port] = named<Interface::Speed>("--speed", speed);
    }
    for (const std::string& text : members_) {
        const auto [port, vlan] = sides("--member", text, "swp2=5");
        question.members[port] = static_cast<Msrp::U16>(numberIn("--member", vlan, 1, 4094));
    }
    const Show::BridgeNames names = namesFrom(names_);
    const Show::Snapshot snapshot = read_(Show::judgedRecords(), Show::judgedMore);
    demand(Show::whatIfProblem(snapshot, question), usage);
    const Show::WhatIfAnswer answer = Show::whatIf(snapshot, names, question);
    write_(Show::whatIfValue(answer), [&](const Show::Page& page) { return Show::whatIfText(answer, page); });
    return done;
}
