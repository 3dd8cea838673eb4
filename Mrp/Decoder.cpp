#include "Mrp/Decoder.h"

#include "Mrp/PduLayout.h"
#include "Runtime/BigEndian.h"

#include <algorithm>
#include <array>

namespace Mrp {

namespace {

constexpr std::uint8_t threePackedLimit = 6 * 6 * 6;
/// The events that an octet packs, as numbers.
constexpr auto threeEvents = [] {
    std::array<std::array<std::uint8_t, 3>, threePackedLimit> events{};
    for (std::uint8_t octet = 0; octet < threePackedLimit; ++octet)
        events[octet] = {static_cast<std::uint8_t>(octet / 36), static_cast<std::uint8_t>(octet / 6 % 6),
                         static_cast<std::uint8_t>(octet % 6)};
    return events;
}();

/// Reads big-endian fields front to back.  A read past the end gives zeros, empties the reader and clears
/// ok(): loops end, and nothing outside the PDU is touched.
class Reader {
public:
    explicit Reader(std::span<const std::uint8_t> bytes, std::size_t offset = 0)
        : rest_{bytes}, offset_{offset} {}

    std::uint8_t u8() {
        const auto octets = bytes(1);
        return octets.empty() ? std::uint8_t{0} : octets[0];
    }
    std::uint16_t u16() { return static_cast<std::uint16_t>(Runtime::bigEndian(bytes(2))); }
    Reader record(std::size_t length) {
        const std::size_t start = offset_;
        return Reader{bytes(length), start};
    }
    /// Exactly `length` octets, or none.
    std::span<const std::uint8_t> bytes(std::size_t length) {
        if (length > rest_.size()) {
            ok_ = false;
            offset_ += rest_.size();
            rest_ = {};
            return {};
        }
        const auto taken = rest_.first(length);
        rest_ = rest_.subspan(length);
        offset_ += length;
        return taken;
    }

    [[nodiscard]] bool ok() const { return ok_; }
    [[nodiscard]] std::size_t left() const { return rest_.size(); }
    /// From the start of the PDU.
    [[nodiscard]] std::size_t offset() const { return offset_; }

private:
    std::span<const std::uint8_t> rest_;
    std::size_t offset_;
    bool ok_ = true;
};

class PduDecoder {
public:
    PduDecoder(const ApplicationInfo& application, DecodedPdu& out) : application_{application}, out_{out} {}

    void pdu(Reader in) {
        if (in.left() < versionLength + messageHeaderLength(application_.listLength))
            return flaw(Malformed::tooShort, in.left());
        in.u8();  // a higher version is read as ours; what it has that we do not know is skipped below
        while (in.left() > 0) {
            const std::size_t start = in.offset();
            const std::uint8_t type = in.u8();
            if (type == 0) return;  // the EndMark
            const std::uint8_t length = in.u8();
            if (!application_.listLength) {
                if (!endMarkedMessage(type, length, in, start)) return;
                continue;
            }
            const std::uint16_t listLength = in.u16();
            if (!in.ok() || listLength > in.left()) return flaw(Malformed::listPastEnd, start);
            const Reader list = in.record(listLength);
            message(type, length, list, in.left() == 0, start);
        }
    }

private:
    void message(std::uint8_t type, std::uint8_t length, Reader list, bool last, std::size_t start) {
        const auto& types = application_.types;
        const auto known = std::ranges::find(types, type, &AttributeType::type);
        if (known == types.end()) return;
        if (length != known->valueLength) return flaw(Malformed::wrongLength, start + 1);
        const auto index = static_cast<std::uint8_t>(known - types.begin());
        while (list.left() >= endMarkLength) {
            const std::size_t vectorStart = list.offset();
            const std::uint16_t header = list.u16();
            if (header == 0) {
                if (list.left() > 0) flaw(Malformed::listLengthMismatch, list.offset());
                return;
            }
            if (!vector(index, *known, header, list)) return flaw(Malformed::vectorPastEnd, vectorStart);
        }
        // The end of the PDU stands for the EndMark of its last list.
        if (list.left() > 0 || !last) flaw(Malformed::listLengthMismatch, list.offset());
    }

    /// A message that only its EndMark ends: one that cannot be read takes the rest of the PDU with it, which
    /// is told by false.
    bool endMarkedMessage(std::uint8_t type, std::uint8_t length, Reader& in, std::size_t start) {
        const auto& types = application_.types;
        const auto known = std::ranges::find(types, type, &AttributeType::type);
        const bool readable = known != types.end() && length == known->valueLength;
        if (known != types.end() && !readable) flaw(Malformed::wrongLength, start + 1);
        const auto index = static_cast<std::uint8_t>(known - types.begin());
        while (in.left() >= endMarkLength) {
            const std::size_t vectorStart = in.offset();
            const std::uint16_t header = in.u16();
            if (header == 0) return true;
            if (readable && !vector(index, *known, header, in)) {
                flaw(Malformed::vectorPastEnd, vectorStart);
                return false;
            }
            if (!readable) in.bytes(length + (header % leaveAllUnit + 2U) / 3);
        }
        return in.left() > 0 || in.ok();
    }

    /// False when the list has no room for it.
    bool vector(std::uint8_t index, const AttributeType& type, std::uint16_t header, Reader& list) {
        const std::size_t values = header % leaveAllUnit;
        const bool leaveAll = header / leaveAllUnit == 1;  // other numbers are events of later versions
        if (values == 0) {
            // Some senders leave the FirstValue out where there is no value.
            if (list.left() >= type.valueLength + endMarkLength) list.bytes(type.valueLength);
            if (tornEndMark(list)) return false;
            if (leaveAll) out_.leaveAll.set(index);
            return true;
        }
        const auto first = list.bytes(type.valueLength);
        const std::size_t eventsAt = list.offset();
        const auto threePacked = list.bytes((values + 2) / 3);
        const auto fourPacked = list.bytes(type.fourPacked ? (values + 3) / 4 : 0);
        if (!list.ok() || tornEndMark(list)) return false;
        if (leaveAll) out_.leaveAll.set(index);

        // A flaw takes the values from its place on.
        std::size_t good = std::min(values - 1, type.successors(first)) + 1;
        const auto readable = threePacked.first(good < values ? good / 3 + 1 : threePacked.size());
        const auto broken = std::ranges::find_if(readable, [](auto o) { return o >= threePackedLimit; });
        if (broken != readable.end()) {
            const auto octet = static_cast<std::size_t>(broken - readable.begin());
            good = 3 * octet;
            flaw(Malformed::eventPastRange, eventsAt + octet);
        } else if (good < values) {
            flaw(Malformed::valuePastRange, eventsAt + good / 3);
        }
        if (good == 0) return true;
        const std::span<std::uint8_t> said = out_.events.add(type, index, first, good);
        auto next = said.begin();
        for (const std::uint8_t three : threePacked.first(good / 3))
            next = std::copy_n(threeEvents[three].begin(), 3, next);
        if (good % 3 > 0) std::copy_n(threeEvents[threePacked[good / 3]].begin(), good % 3, next);
        for (std::size_t k = 0; k < (type.fourPacked ? good : 0); ++k)
            said[k] |= static_cast<std::uint8_t>((fourPacked[k / 4] >> (6 - 2 * (k % 4)) & 3) << 3);
        return true;
    }

    /// One octet left of the list is half of its EndMark: the other half was taken for events.
    static bool tornEndMark(const Reader& list) { return list.left() == 1; }

    void flaw(Malformed reason, std::size_t offset) { out_.flaws.push_back({reason, offset}); }

    const ApplicationInfo& application_;
    DecodedPdu& out_;
};

}  // namespace

std::span<std::uint8_t> DecodedEvents::add(const AttributeType& type, std::uint8_t typeIndex,
                                           std::span<const std::uint8_t> first, std::size_t values) {
    Vector& vector = vectors_.emplace_back(Vector{&type, typeIndex, values, {}});
    std::ranges::copy(first, vector.first.begin());
    said_.resize(said_.size() + values);
    return std::span{said_}.last(values);
}

void decode(std::span<const std::uint8_t> pdu, const ApplicationInfo& application, DecodedPdu& out) {
    out.events.clear();
    out.leaveAll.reset();
    out.flaws.clear();
    PduDecoder{application, out}.pdu(Reader{pdu});
}

}  // namespace Mrp
