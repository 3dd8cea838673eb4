#include "History/Event.h"

#include <algorithm>
#include <cstring>

namespace History {

using State::Value;

namespace {

/// As it lies in files, in the machine's order; the texts follow, each behind its length.
struct Fixed {
    std::uint64_t checksum;  ///< of what follows it, as far as `used` says
    std::uint64_t sequence;
    std::int64_t time;
    std::int64_t wallTime;
    std::uint64_t stream;
    std::uint64_t bridge;
    std::uint64_t destination;
    std::uint32_t kbps;
    std::uint16_t vlan;
    std::uint16_t used;  ///< octets of the slot
    std::uint8_t kind;
    std::uint8_t reason;
    std::uint8_t code;
    std::uint8_t srClass;
    std::uint8_t ofStream;
    std::array<char, 19> intf;  ///< zeros behind the name
};
constexpr std::size_t fixedOctets = sizeof(Fixed);
static_assert(fixedOctets % 8 == 0 && std::has_unique_object_representations_v<Fixed>);
constexpr std::size_t texts = 5;
static_assert(fixedOctets + texts + textOctets <= slotOctets && textOctets <= 255);

constexpr std::array<std::string Event::*, texts> textMembers{&Event::text, &Event::field, &Event::before,
                                                              &Event::after, &Event::by};

/// What each text gets of the room: all of them what they need, or the long ones what the short ones leave.
std::array<std::size_t, texts> rooms(const Event& event) {
    std::array<std::size_t, texts> rooms{};
    std::size_t left = textOctets;
    std::array<bool, texts> settled{};
    for (std::size_t open = texts; open > 0;) {
        const std::size_t share = left / open;
        std::size_t settledNow = 0;
        for (std::size_t i = 0; i < texts; ++i) {
            const std::size_t size = (event.*textMembers[i]).size();
            if (settled[i] || size > share) continue;
            settled[i] = true;
            rooms[i] = size;
            left -= size;
            ++settledNow;
        }
        open -= settledNow;
        if (settledNow != 0) continue;
        for (std::size_t i = 0; i < texts; ++i) {
            if (!settled[i]) rooms[i] = share;
        }
        break;
    }
    return rooms;
}

/// No character is cut in two (UTF-8).
std::size_t cutAt(const std::string& text, std::size_t most) {
    if (text.size() <= most) return text.size();
    while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0U) == 0x80U) --most;
    return most;
}

template <class E>
bool known(std::uint8_t number) {
    return std::ranges::any_of(
        enumNames(E{}), [&](const auto& name) { return static_cast<std::uint8_t>(name.value) == number; });
}

Value textOrNull(const std::string& text) { return text.empty() ? Value{} : Value{text}; }

}  // namespace

std::uint64_t checksum(std::span<const std::byte> octets) {
    std::uint64_t sum = 0x9E37'79B9'7F4A'7C15 ^ octets.size();
    for (std::size_t at = 0; at < octets.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, octets.data() + at, std::min(sizeof word, octets.size() - at));
        sum = (sum ^ word) * 0xFF51'AFD7'ED55'8CCD;
        sum ^= sum >> 32;
    }
    return sum;
}

void encode(const Event& event, std::span<std::byte, slotOctets> slot) {
    Fixed fixed{.checksum = 0,
                .sequence = event.sequence,
                .time = event.time.time_since_epoch().count(),
                .wallTime = event.wallTime.time_since_epoch().count(),
                .stream = event.stream,
                .bridge = event.bridge,
                .destination = event.destination.number(),
                .kbps = event.kbps,
                .vlan = event.vlan,
                .used = 0,
                .kind = static_cast<std::uint8_t>(event.kind),
                .reason = static_cast<std::uint8_t>(event.reason),
                .code = event.code,
                .srClass = static_cast<std::uint8_t>(event.srClass),
                .ofStream = event.ofStream ? std::uint8_t{1} : std::uint8_t{0},
                .intf = {}};
    const std::string& name = event.intf.name();
    std::memcpy(fixed.intf.data(), name.data(), std::min(name.size(), IntfId::maxNameLength));
    Slot whole;
    std::size_t at = fixedOctets;
    const auto room = rooms(event);
    for (std::size_t i = 0; i < texts; ++i) {
        const std::string& text = event.*textMembers[i];
        const std::size_t size = cutAt(text, room[i]);
        whole[at++] = static_cast<std::byte>(size);
        std::memcpy(whole.data() + at, text.data(), size);
        at += size;
    }
    fixed.used = static_cast<std::uint16_t>(at);
    std::memcpy(whole.data(), &fixed, fixedOctets);
    fixed.checksum = checksum(std::span{whole}.first(at).subspan(sizeof fixed.checksum));
    std::memcpy(whole.data(), &fixed.checksum, sizeof fixed.checksum);
    std::memcpy(slot.data(), whole.data(), at);
}

bool decode(std::span<const std::byte, slotOctets> slot, Event& event) {
    Fixed fixed;
    std::memcpy(&fixed, slot.data(), fixedOctets);
    if (fixed.used < fixedOctets + texts || fixed.used > slotOctets || fixed.sequence == 0) return false;
    const auto used = slot.first(fixed.used);
    if (checksum(used.subspan(sizeof fixed.checksum)) != fixed.checksum) return false;
    if (!known<Kind>(fixed.kind) || !known<Reason>(fixed.reason)) return false;
    const std::string_view padded{fixed.intf.data(), fixed.intf.size()};
    const std::string_view name = padded.substr(0, padded.find('\0'));
    if (!name.empty() && !IntfId::validName(name)) return false;
    event = {.sequence = fixed.sequence,
             .time = Runtime::Time{Runtime::Duration{fixed.time}},
             .wallTime = Runtime::WallTime{Runtime::Duration{fixed.wallTime}},
             .kind = Kind{fixed.kind},
             .reason = Reason{fixed.reason},
             .intf = IntfId{name},
             .stream = fixed.stream,
             .ofStream = fixed.ofStream != 0,
             .code = fixed.code,
             .srClass = Msrp::SrClassId{fixed.srClass},
             .vlan = fixed.vlan,
             .kbps = fixed.kbps,
             .destination = EthAddr::fromNumber(fixed.destination),
             .bridge = fixed.bridge};
    std::size_t at = fixedOctets;
    for (const auto member : textMembers) {
        if (at >= used.size()) return false;
        const auto size = static_cast<std::size_t>(used[at++]);
        if (size > used.size() - at) return false;
        (event.*member).assign(reinterpret_cast<const char*>(used.data() + at), size);
        at += size;
    }
    return true;
}

Glance glance(std::span<const std::byte, slotOctets> slot) {
    Fixed fixed;
    std::memcpy(&fixed, slot.data(), fixedOctets);
    const char* name = reinterpret_cast<const char*>(slot.data() + offsetof(Fixed, intf));
    return {.kind = Kind{fixed.kind},
            .ofStream = fixed.ofStream != 0,
            .stream = fixed.stream,
            .wallTime = Runtime::WallTime{Runtime::Duration{fixed.wallTime}},
            .intf = {name, ::strnlen(name, fixed.intf.size())}};
}

Value valueOf(const Event& event, std::uint64_t missing) {
    const auto number = [&](bool said, std::uint64_t v) { return said ? Value{v} : Value{}; };
    const auto seconds = [](auto time) {
        return Value{std::chrono::duration<double>(time.time_since_epoch()).count()};
    };
    const bool failure = event.kind == Kind::failed || event.kind == Kind::waits;
    return State::Object{
        {"wallTime", seconds(event.wallTime)},
        {"time", seconds(event.time)},
        {"kind", State::enumText(event.kind)},
        {"port", textOrNull(event.intf.name())},
        {"stream", event.ofStream ? Value{State::hexText(event.stream)} : Value{}},
        {"class", event.srClass == Msrp::SrClassId{} ? Value{} : Value{State::enumText(event.srClass)}},
        {"kbps", number(event.kbps != 0, event.kbps)},
        {"destination", event.destination == EthAddr{} ? Value{} : Value{event.destination.text()}},
        {"vlan", number(event.vlan != 0, event.vlan)},
        {"code", number(failure, event.code)},
        {"bridge", event.bridge == 0 ? Value{} : Value{State::hexText(event.bridge)}},
        {"reason", textOrNull(State::enumText(event.reason))},
        {"text", textOrNull(event.text)},
        {"field", textOrNull(event.field)},
        {"before", textOrNull(event.before)},
        {"after", textOrNull(event.after)},
        {"by", textOrNull(event.by)},
        {"missing", missing},
    };
}

State::Schema eventSchema() {
    using State::Codec;
    using State::orNull;
    const State::Schema text = orNull(Codec<std::string>::schema());
    const State::Schema number = orNull(Codec<std::uint64_t>::schema());
    return State::objectOf({{"wallTime", Codec<double>::schema()},
                            {"time", Codec<double>::schema()},
                            {"kind", Codec<Kind>::schema()},
                            {"port", text},
                            {"stream", orNull(State::HexKey::schema())},
                            {"class", orNull(Codec<Msrp::SrClassId>::schema())},
                            {"kbps", number},
                            {"destination", orNull(Codec<EthAddr>::schema())},
                            {"vlan", number},
                            {"code", number},
                            {"bridge", orNull(State::HexKey::schema())},
                            {"reason", text},
                            {"text", text},
                            {"field", text},
                            {"before", text},
                            {"after", text},
                            {"by", text},
                            {"missing", Codec<std::uint64_t>::schema()}});
}

}  // namespace History
