#include "Plan/replay/CaptureFile.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace Plan {

using Runtime::concat;

namespace {

using Octets = std::span<const std::uint8_t>;

/// Reads front to back in the file's order of octets.  A read past the end gives zeros, and clears `ok`.
class OctetReader {
public:
    OctetReader(Octets octets, bool big) : rest_{octets}, big_{big} {}
    std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }
    std::uint64_t u64() { return number(8); }
    Octets bytes(std::size_t length) {
        if (length > rest_.size()) {
            ok_ = false;
            rest_ = {};
            return {};
        }
        const Octets taken = rest_.first(length);
        rest_ = rest_.subspan(length);
        return taken;
    }
    /// And what fills it up to a multiple of four octets, which the last one may lack.
    Octets padded(std::size_t length) {
        const Octets taken = bytes(length);
        rest_ = rest_.subspan(std::min((4 - length % 4) % 4, rest_.size()));
        return taken;
    }
    [[nodiscard]] std::size_t left() const { return rest_.size(); }
    [[nodiscard]] bool ok() const { return ok_; }

private:
    std::uint64_t number(std::size_t width) {
        const Octets taken = bytes(width);
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < taken.size(); ++i)
            value = value << 8 | taken[big_ ? i : taken.size() - 1 - i];
        return value;
    }

    Octets rest_;
    bool big_;
    bool ok_ = true;
};

/// What one interface's times count.
struct TimeUnit {
    std::uint64_t perSecond = 1'000'000;
    std::int64_t offset = 0;  ///< seconds to be added
};

constexpr std::uint64_t billion = 1'000'000'000;

Pcapng::WallTime wallTime(std::uint64_t seconds, std::uint64_t nanoseconds, std::int64_t offset) {
    // Seconds that a time can hold, and a bit less.
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max() / 1'000'000'000 - 1;
    const auto near = static_cast<std::int64_t>(std::min<std::uint64_t>(seconds, most));
    const std::int64_t sum = std::clamp(near + std::clamp(offset, -most, most), -most, most);
    return Pcapng::WallTime{
        std::chrono::nanoseconds{sum * 1'000'000'000 + static_cast<std::int64_t>(nanoseconds)}};
}

Pcapng::WallTime wallTime(std::uint64_t ticks, const TimeUnit& unit) {
    const std::uint64_t rest = ticks % unit.perSecond;
    // A unit that is too fine for whole numbers is finer than what is kept.
    const std::uint64_t nanoseconds =
        unit.perSecond <= billion ? rest * billion / unit.perSecond
                                  : static_cast<std::uint64_t>(static_cast<double>(rest) /
                                                               static_cast<double>(unit.perSecond) * 1e9);
    return wallTime(ticks / unit.perSecond, std::min(nanoseconds, billion - 1), unit.offset);
}

class CaptureReader {
public:
    CaptureReader(Octets file, const std::function<void(const Capture&, const CapturedFrame&)>& each)
        : file_{file}, each_{each} {}

    Capture read() {
        const std::uint32_t little = OctetReader{file_, false}.u32();
        const std::uint32_t big = OctetReader{file_, true}.u32();
        constexpr std::uint32_t microseconds = 0xA1B2C3D4;
        constexpr std::uint32_t nanoseconds = 0xA1B23C4D;
        if (little == Pcapng::sectionBlock) {
            out_.format = "pcapng";
            while (at_ < file_.size() && block()) {
            }
        } else if (little == microseconds || big == microseconds) {
            classic(big == microseconds, 1'000'000);
        } else if (little == nanoseconds || big == nanoseconds) {
            classic(big == nanoseconds, billion);
        } else {
            stop(file_.empty() ? "is empty" : "begins as neither a pcapng nor a pcap file does");
        }
        return std::move(out_);
    }

private:
    bool stop(std::string why) {
        out_.broken = CaptureBreak{at_, std::move(why)};
        return false;
    }
    [[nodiscard]] OctetReader rest() const { return {file_.subspan(at_), big_}; }

    bool block() {
        OctetReader in = rest();
        const std::uint32_t type = in.u32();
        // A section says its order of octets behind its length.
        if (type == Pcapng::sectionBlock && !order()) return false;
        in = rest();
        (void)in.u32();
        const std::uint32_t length = in.u32();
        if (!in.ok())
            return stop(concat("ends within the header of a block, ", file_.size() - at_, " octets"));
        constexpr std::uint32_t around = 12;  // type and length before it, and length behind it
        if (length < around || length % 4 != 0) return stop(concat("a block has a length of ", length));
        const Octets body = in.bytes(length - around);
        const std::uint32_t again = in.u32();
        if (!in.ok())
            return stop(concat("ends within a block, after ", file_.size() - at_, " of ", length, " octets"));
        if (again != length)
            return stop(concat("a block of ", length, " octets says at its end that it has ", again));
        if (!take(type, OctetReader{body, big_})) return false;
        at_ += length;
        return true;
    }
    bool take(std::uint32_t type, OctetReader body) {
        switch (type) {
            case Pcapng::sectionBlock:
                return section(body);
            case Pcapng::interfaceBlock:
                return interface(body);
            case Pcapng::packetBlock:
                return packet(body);
            case Pcapng::simplePacketBlock:
                return simplePacket(body);
            default:
                return true;
        }
    }
    bool order() {
        OctetReader in = rest();
        (void)in.bytes(8);
        const std::uint32_t mark = OctetReader{in.bytes(4), false}.u32();
        if (!in.ok()) return stop("ends within the header of a section");
        big_ = mark != Pcapng::orderMark;
        OctetReader again = rest();
        (void)again.bytes(8);
        if (again.u32() == Pcapng::orderMark) return true;
        return stop("a section does not tell its order of octets");
    }
    bool section(OctetReader in) {
        (void)in.u32();
        const std::uint16_t major = in.u16();
        if (!in.ok() || major != 1)
            return stop(concat("a section of version ", major, ", which is not known"));
        first_ = out_.interfaces.size();
        units_.clear();
        return true;
    }
    /// Calls `each` with code and value of what is left; what runs past the block ends it.
    template <class F>
    static void options(OctetReader& in, F&& each) {
        while (in.left() >= 4) {
            const std::uint16_t code = in.u16();
            const std::uint16_t length = in.u16();
            if (code == Pcapng::endOfOptions) return;
            const Octets value = in.padded(length);
            if (!in.ok()) return;
            each(code, value);
        }
    }
    bool interface(OctetReader in) {
        CapturedInterface found{.linkType = in.u16()};
        (void)in.u16();
        const std::uint32_t cutAt = in.u32();
        if (!in.ok()) return stop("the description of an interface is too short");
        if (out_.interfaces.size() == mostInterfaces)
            return stop(concat("has more than ", mostInterfaces, " interfaces"));
        TimeUnit unit;
        bool fits = true;
        options(in, [&](std::uint16_t code, Octets value) {
            if (code == Pcapng::ifName) {
                found.name.assign(value.begin(), std::find(value.begin(), value.end(), 0));
            } else if (code == Pcapng::ifTsresol && value.size() == 1) {
                fits = resolution(value[0], unit);
            } else if (code == Pcapng::ifTsoffset && value.size() == 8) {
                unit.offset = static_cast<std::int64_t>(OctetReader{value, big_}.u64());
            }
        });
        if (!fits) return stop("an interface counts time in units that are too small");
        out_.interfaces.push_back(std::move(found));
        units_.push_back(unit);
        cutAt_ = units_.size() == 1 ? cutAt : cutAt_;
        return true;
    }
    /// A power of ten, or with the highest bit set of two.
    static bool resolution(std::uint8_t option, TimeUnit& unit) {
        const unsigned power = option & 0x7FU;
        const bool ofTwo = (option & 0x80U) != 0;
        if (power > (ofTwo ? 63U : 19U)) return false;
        unit.perSecond = 1;
        for (unsigned i = 0; i < power; ++i) unit.perSecond *= ofTwo ? 2 : 10;
        return true;
    }
    bool packet(OctetReader in) {
        const std::uint32_t number = in.u32();
        const std::uint64_t high = in.u32();
        const std::uint64_t ticks = high << 32 | in.u32();
        const std::uint32_t length = in.u32();
        CapturedFrame frame{.onWire = in.u32()};
        frame.octets = in.padded(length);
        if (!in.ok()) return stop(concat("a frame of ", length, " octets is longer than its block"));
        if (number >= units_.size())
            return stop(concat("a frame is of interface ", number, ", which is not described before it"));
        frame.interface = first_ + number;
        frame.time = time_ = wallTime(ticks, units_[number]);
        options(in, [&](std::uint16_t code, Octets value) {
            OctetReader option{value, big_};
            if (code == Pcapng::epbFlags && value.size() == 4) {
                const std::uint32_t way = option.u32() & 3U;
                if (way < 3) frame.direction = Pcapng::Direction{static_cast<std::uint8_t>(way)};
            } else if (code == Pcapng::epbDropcount && value.size() == 8) {
                frame.missing = option.u64();
            }
        });
        tell(frame);
        return true;
    }
    /// It has no time of its own: that of the one before it.
    bool simplePacket(OctetReader in) {
        CapturedFrame frame{.interface = first_, .time = time_, .onWire = in.u32()};
        if (units_.empty()) return stop("a frame is of interface 0, which is not described before it");
        std::size_t length = frame.onWire;
        if (cutAt_ != 0) length = std::min<std::size_t>(length, cutAt_);
        frame.octets = in.padded(length);
        if (!in.ok()) return stop(concat("a frame of ", length, " octets is longer than its block"));
        tell(frame);
        return true;
    }

    void classic(bool big, std::uint64_t perSecond) {
        out_.format = "pcap";
        big_ = big;
        OctetReader in = rest();
        (void)in.u32();
        const std::uint16_t major = in.u16();
        (void)in.bytes(14);  // minor version, zone, accuracy, longest frame
        const auto linkType = static_cast<std::uint16_t>(in.u32());
        if (!in.ok()) {
            stop("ends within its header");
            return;
        }
        if (major != 2) {
            stop(concat("is of version ", major, ", which is not known"));
            return;
        }
        out_.interfaces.push_back({.linkType = linkType});
        constexpr std::size_t header = 24;
        for (at_ = header; at_ < file_.size();) {
            OctetReader record = rest();
            const std::uint64_t seconds = record.u32();
            const std::uint64_t part = record.u32();
            const std::uint32_t length = record.u32();
            CapturedFrame frame{.onWire = record.u32()};
            if (!record.ok()) {
                stop(concat("ends within the header of a frame, ", file_.size() - at_, " octets"));
                return;
            }
            frame.octets = record.bytes(length);
            if (!record.ok()) {
                stop(concat("ends within a frame of ", length, " octets"));
                return;
            }
            if (part >= perSecond) {
                stop(concat("a frame's time has ", part, " parts of a second of ", perSecond));
                return;
            }
            frame.time = wallTime(seconds, part * (billion / perSecond), 0);
            tell(frame);
            at_ += record_ + length;
        }
    }
    void tell(const CapturedFrame& frame) {
        ++out_.frames;
        each_(out_, frame);
    }

    static constexpr std::size_t record_ = 16;  ///< octets before a frame in a classic file
    Octets file_;
    const std::function<void(const Capture&, const CapturedFrame&)>& each_;
    Capture out_;
    std::size_t at_ = 0;
    bool big_ = false;
    std::size_t first_ = 0;  ///< of the section's interfaces
    std::vector<TimeUnit> units_;
    std::uint32_t cutAt_ = 0;  ///< octets of a frame that the section's first interface keeps; 0: all
    Pcapng::WallTime time_{};
};

}  // namespace

Capture readCapture(std::span<const std::uint8_t> file,
                    const std::function<void(const Capture&, const CapturedFrame&)>& each) {
    return CaptureReader{file, each}.read();
}

}  // namespace Plan
