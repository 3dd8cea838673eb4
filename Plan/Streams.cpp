#include "Plan/Streams.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <set>

namespace Plan {

using Runtime::concat;

namespace {

constexpr std::uint64_t mostStreams = 100'000;
/// The addresses that MAAP gives out (IEEE 1722 B.2.2).
constexpr std::uint64_t firstDestination = 0x91e0f0000000;
constexpr std::uint64_t destinationCount = 0xfe00;

constexpr std::uint64_t idsOfTalker = 0x10000;

/// Those of the addresses for streams that no stream has.
class FreeDestinations {
public:
    explicit FreeDestinations(const Network& network) {
        for (const Stream& one : network.streams) taken_.insert(one.destination);
    }
    /// Nothing when all are taken.
    std::optional<EthAddr> next() {
        while (next_ < destinationCount) {
            const EthAddr one = EthAddr::fromNumber(firstDestination + next_++);
            if (!taken_.contains(one)) return one;
        }
        return std::nullopt;
    }

private:
    std::set<EthAddr> taken_;
    std::uint64_t next_ = 0;
};

}  // namespace

StreamReader::StreamReader(Network& network, Problems& problems) : network_{network}, problems_{problems} {
    for (std::size_t i = 0; i < network.devices.size(); ++i) {
        if (!network.devices[i].bridge) stations_.emplace(network.devices[i].name, i);
    }
}

std::size_t StreamReader::station(const std::string& name, std::string_view field, Fields& fields) {
    const auto at = stations_.find(name);
    if (at != stations_.end()) return at->second;
    fields.bad(field, concat("names \"", name, "\", which is no station"));
    return network_.devices.size();
}

std::optional<std::uint64_t> StreamReader::nextId(std::size_t talker) {
    for (std::uint32_t& number = numbers_[talker]; ++number < idsOfTalker;) {
        const std::uint64_t id = network_.devices[talker].address.number() << 16 | number;
        if (!ids_.contains(id)) return id;
    }
    return std::nullopt;
}

void StreamReader::finish() {
    FreeDestinations free{network_};
    for (const std::size_t s : withoutDestination_) {
        Stream& stream = network_.streams[s];
        const auto destination = free.next();
        if (!destination) {
            problems_.push_back(concat(stream.place.text(), ": stream \"", stream.name, "\": all ",
                                       destinationCount, " addresses for streams are taken"));
            return;
        }
        stream.destination = *destination;
    }
}

void StreamReader::tspec(Stream& stream, Fields& fields) {
    Msrp::MediaStream media;
    if (fields.take("format") == nullptr) {
        fields.number("size", 1, Msrp::maxMsdu, stream.tspec.maxFrameSize);
        stream.tspec.maxIntervalFrames = 1;
        // Bridges charge for the low octet of the number only.
        fields.number("frames", 1, 255, stream.tspec.maxIntervalFrames);
        if (fields.take("size") == nullptr) fields.wrong("needs a size, or a format");
        return;
    }
    fields.choice("format", media.format);
    for (const char* own : {"size", "frames"}) {
        if (fields.take(own) != nullptr) fields.bad(own, "stands beside a format, which says it");
    }
    fields.number("channels", 1, 0xffff, media.channels);
    fields.number("rate", 1, UINT32_MAX, media.rate);
    fields.number("samples", 1, 0xffff, media.samples);
    fields.number("timestamps", 1, 0xffff, media.timestamps);
    fields.number("kbps", 1, UINT32_MAX, media.kbps);
    const Msrp::MediaTspec found = Msrp::mediaTspec(media, stream.srClass);
    if (!found.problem.empty()) fields.bad("format", found.problem);
    stream.tspec = found.tspec;
}

void StreamReader::add(const std::string& name, Fields& fields) {
    Stream stream{.name = name, .vlan = network_.vlan, .place = fields.place()};
    if (const Field* srClass = fields.take("class"); srClass != nullptr) {
        if (srClass->text != "A" && srClass->text != "B") fields.bad("class", "is neither \"A\" nor \"B\"");
        if (srClass->text == "B") stream.srClass = Msrp::SrClassId::SrClassB;
    }
    tspec(stream, fields);
    fields.number("vlan", 1, 4094, stream.vlan);
    fields.number("rank", 0, 1, stream.rank);
    std::uint64_t count = 1;
    fields.number("count", 1, mostStreams, count);
    const Field* talker = fields.take("talker");
    if (talker == nullptr) return fields.wrong("needs a talker");
    stream.talker = station(talker->text, "talker", fields);
    for (const std::string& listener : fields.words("listeners")) {
        const std::size_t at = station(listener, "listeners", fields);
        if (at == stream.talker) {
            fields.bad("listeners", concat("names its own talker \"", listener, '"'));
        } else if (std::ranges::find(stream.listeners, at) == stream.listeners.end()) {
            stream.listeners.push_back(at);
        }
    }
    std::optional<EthAddr> destination;
    if (fields.take("destination") != nullptr) fields.address("destination", destination.emplace());
    std::optional<std::uint64_t> id;
    if (const Field* given = fields.take("id"); given != nullptr) {
        id = State::parseHex(given->text);
        if (!id) fields.bad("id", "is not \"0x\" and hexadecimal digits");
    }
    if (count > 1 && (destination || id)) fields.bad("count", "goes with neither a destination nor an id");
    if (network_.streams.size() + count > mostStreams)
        return fields.wrong(concat("more than ", mostStreams, " streams"));
    const auto nameOf = [&](std::uint64_t i) { return count > 1 ? concat(name, '.', i) : name; };
    for (std::uint64_t i = 1; i <= count; ++i) {
        if (!names_.emplace(nameOf(i), true).second)
            return fields.wrong(count > 1 ? concat("makes \"", nameOf(i), "\" a second time")
                                          : "comes twice");
    }
    if (stream.talker == network_.devices.size()) return;
    for (std::uint64_t i = 1; i <= count; ++i) {
        Stream one = stream;
        one.name = nameOf(i);
        const auto given = id ? id : nextId(stream.talker);
        if (!given) return fields.wrong(concat("a talker has ", idsOfTalker - 1, " streams at most"));
        one.id = *given;
        if (destination) {
            one.destination = *destination;
        } else {
            withoutDestination_.push_back(network_.streams.size());
        }
        if (const auto [at, fresh] = ids_.emplace(one.id, one.name); !fresh)
            fields.wrong(concat("has the id ", State::hexText(one.id), " of stream \"", at->second, '"'));
        network_.streams.push_back(std::move(one));
    }
}

bool addLike(Network& network, std::size_t stream, std::uint64_t count) {
    std::set<std::string> names;
    std::set<std::uint64_t> ids;
    for (const Stream& one : network.streams) {
        names.insert(one.name);
        ids.insert(one.id);
    }
    FreeDestinations destinations{network};
    std::vector<Stream> all;
    Stream one = network.streams[stream];
    const std::uint64_t talker = one.id / idsOfTalker;
    std::uint64_t left = idsOfTalker;
    const std::string name = one.name;
    one.later = true;
    std::uint64_t number = 1;
    for (std::uint64_t i = 0; i < count; ++i) {
        while (!names.insert(one.name = concat(name, '+', number)).second) ++number;
        while (left > 0 && !ids.insert(one.id).second) {
            one.id = talker * idsOfTalker + (one.id + 1) % idsOfTalker;
            --left;
        }
        const auto destination = destinations.next();
        if (left == 0 || !destination || network.streams.size() + all.size() >= mostStreams) return false;
        one.destination = *destination;
        all.push_back(one);
    }
    network.streams.insert(network.streams.end(), all.begin(), all.end());
    return true;
}

std::vector<CsvRow> readCsv(const std::string& text, const std::string& file, Problems& problems) {
    std::vector<CsvRow> rows;
    std::vector<std::string> names;
    std::vector<std::string> cells{""};
    unsigned line = 1;
    unsigned began = 1;
    bool quoted = false;
    const auto end = [&] {
        const bool blank = cells.size() == 1 && cells[0].empty();
        if (!blank && !cells[0].starts_with('#')) {
            if (names.empty()) {
                names = cells;
                std::set<std::string> seen;
                for (const std::string& name : names) {
                    if (!seen.insert(name).second)
                        problems.push_back(
                            concat(file, ':', began, ": \"", name, "\" comes twice in the first row"));
                }
            } else if (cells.size() != names.size()) {
                problems.push_back(concat(file, ':', began, ": ", cells.size(), " values for the ",
                                          names.size(), " names of the first row"));
            } else {
                CsvRow row{.line = began};
                for (std::size_t i = 0; i < cells.size(); ++i) {
                    if (!cells[i].empty()) row.fields[names[i]] = cells[i];
                }
                rows.push_back(std::move(row));
            }
        }
        cells = {""};
    };
    // Spreadsheets begin with a mark that says UTF-8.
    for (std::size_t i = text.starts_with("\xEF\xBB\xBF") ? 3 : 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\n') ++line;
        if (quoted) {
            if (c != '"') {
                cells.back() += c;
            } else if (i + 1 < text.size() && text[i + 1] == '"') {
                cells.back() += text[++i];
            } else {
                quoted = false;
            }
        } else if (c == '"' && cells.back().empty()) {
            quoted = true;
        } else if (c == ',') {
            cells.emplace_back();
        } else if (c == '\n') {
            end();
            began = line;
        } else if (c != '\r') {
            cells.back() += c;
        }
    }
    end();
    if (quoted) problems.push_back(concat(file, ':', began, ": a value in quotes does not end"));
    return rows;
}

}  // namespace Plan
