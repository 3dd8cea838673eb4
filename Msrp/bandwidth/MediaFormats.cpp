#include "Msrp/bandwidth/MediaFormats.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Msrp {

namespace {

enum class Kind : U8 { audio, clock, video };

/// How frames are built: headers, then whole pieces of the stream.
struct Layout {
    Kind kind;
    U32 headers;  ///< octets before the first piece
    U32 piece;    ///< octets of one: a channel's sample, a timestamp, or what a coded stream is cut into
    U32 coded;    ///< octets of the coded stream that one such piece carries
};

// IEEE 1722: stream header of 24 octets (AAF, CVF) or 20 (CRF); IEC 61883 adds its CIP header of 8.
constexpr auto layouts = [] {
    std::array<Layout, mediaFormatNames.size()> table{};
    const auto put = [&](MediaFormat format, const Layout& layout) {
        table[static_cast<std::size_t>(format)] = layout;
    };
    put(MediaFormat::aafInt16, {Kind::audio, 24, 2, 0});
    put(MediaFormat::aafInt24, {Kind::audio, 24, 3, 0});
    put(MediaFormat::aafInt32, {Kind::audio, 24, 4, 0});
    put(MediaFormat::am824, {Kind::audio, 24 + 8, 4, 0});
    put(MediaFormat::crf, {Kind::clock, 20, 8, 0});
    put(MediaFormat::h264, {Kind::video, 24 + 4, 1, 1});
    put(MediaFormat::mjpeg, {Kind::video, 24 + 8, 1, 1});
    // A source packet: 4 octets of time before each transport stream packet.
    put(MediaFormat::mpegTs, {Kind::video, 24 + 8, 192, 188});
    return table;
}();

constexpr U64 ceiling(U64 a, U64 b) { return (a + b - 1) / b; }

constexpr U32 intervalsPerSecond(SrClassId srClass) { return srClass == SrClassId::SrClassA ? 8000 : 4000; }

/// Samples in an interval.  AAF talkers send frames of one size whatever the rate is a multiple of: those of
/// 44.1 kHz and its multiples are as long as those of 48 kHz, and come somewhat more seldom.
U32 samplesPerInterval(const MediaStream& s, SrClassId srClass) {
    if (s.samples != 0) return s.samples;
    const bool aaf = s.format != MediaFormat::am824;
    const U32 rate = aaf && s.rate % 44'100 == 0 ? s.rate / 44'100 * 48'000 : s.rate;
    return static_cast<U32>(ceiling(rate, intervalsPerSecond(srClass)));
}

std::string outOfRange(const char* what, U64 value, U64 min, U64 max) {
    return std::string{what} + " " + std::to_string(value) + " is not from " + std::to_string(min) + " to " +
           std::to_string(max);
}

/// So many units, none of which is divided, in as few frames as hold them.
MediaTspec spread(U32 headers, U32 unit, U64 units) {
    const U64 most = (maxMsdu - headers) / unit;
    if (most == 0) {
        return {.problem = "one sample of all channels has " + std::to_string(unit) +
                           " octets, and a frame has room for " + std::to_string(maxMsdu - headers)};
    }
    const U64 frames = ceiling(units, most);
    if (frames > std::numeric_limits<U8>::max())
        return {.problem = "it needs " + std::to_string(frames) + " frames in an interval; 255 is the most"};
    const U64 size = headers + ceiling(units, frames) * unit;
    return {.tspec = {static_cast<U16>(size), static_cast<U16>(frames)}};
}

MediaTspec audio(const MediaStream& s, const Layout& layout, SrClassId srClass) {
    constexpr U32 maxChannels = 1024;
    constexpr U32 maxRate = 192'000;
    constexpr U32 maxSamples = 4096;
    if (s.channels == 0 || s.channels > maxChannels)
        return {.problem = outOfRange("channels", s.channels, 1, maxChannels)};
    if (s.samples > maxSamples) return {.problem = outOfRange("samples", s.samples, 1, maxSamples)};
    if (s.samples == 0 && (s.rate < 8000 || s.rate > maxRate))
        return {.problem = outOfRange("rate", s.rate, 8000, maxRate)};
    const U32 samples = samplesPerInterval(s, srClass);
    MediaTspec found = spread(layout.headers, layout.piece * s.channels, samples);
    found.samples = samples;
    return found;
}

MediaTspec video(const MediaStream& s, const Layout& layout, SrClassId srClass) {
    constexpr U32 maxKbps = 4'000'000;
    if (s.kbps == 0 || s.kbps > maxKbps) return {.problem = outOfRange("kbps", s.kbps, 1, maxKbps)};
    const U64 octetsPerSecond = U64{s.kbps} * 1000 / 8;
    return spread(layout.headers, layout.piece,
                  ceiling(octetsPerSecond, U64{layout.coded} * intervalsPerSecond(srClass)));
}

}  // namespace

MediaTspec mediaTspec(const MediaStream& s, SrClassId srClass) {
    const auto index = static_cast<std::size_t>(s.format);
    if (index >= layouts.size()) return {.problem = "no such format"};
    const Layout& layout = layouts[index];
    if (layout.kind == Kind::audio) return audio(s, layout, srClass);
    if (layout.kind == Kind::video) return video(s, layout, srClass);
    const U32 most = (maxMsdu - layout.headers) / layout.piece;
    if (s.timestamps == 0 || s.timestamps > most)
        return {.problem = outOfRange("timestamps", s.timestamps, 1, most)};
    return {.tspec = {static_cast<U16>(layout.headers + s.timestamps * layout.piece), 1}};
}

}  // namespace Msrp
