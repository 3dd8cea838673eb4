/// What streams of audio and video formats reserve: MaxFrameSize and MaxIntervalFrames of their TSpec
/// (IEEE 802.1Q 35.2.2.8.4) out of what people know of them.
///
/// A frame carries the format's headers and a part of the stream.  Its size counts from behind the EtherType,
/// as MaxFrameSize does.  What does not fit into one frame of 1500 octets is spread evenly over several in
/// each class measurement interval.
#pragma once

#include "Msrp/types/Enums.h"

#include <array>
#include <string>
#include <string_view>

namespace Msrp {

enum class MediaFormat : U8 { aafInt16, aafInt24, aafInt32, am824, crf, h264, mjpeg, mpegTs };
constexpr auto mediaFormatNames =
    std::to_array<State::EnumName<MediaFormat>>({{MediaFormat::aafInt16, "aaf-int16"},
                                                 {MediaFormat::aafInt24, "aaf-int24"},
                                                 {MediaFormat::aafInt32, "aaf-int32"},
                                                 {MediaFormat::am824, "am824"},
                                                 {MediaFormat::crf, "crf"},
                                                 {MediaFormat::h264, "h264"},
                                                 {MediaFormat::mjpeg, "mjpeg"},
                                                 {MediaFormat::mpegTs, "mpeg-ts"}});
constexpr const auto& enumNames(MediaFormat) { return mediaFormatNames; }

struct Tspec {
    U16 maxFrameSize = 0;
    U16 maxIntervalFrames = 0;
    bool operator==(const Tspec&) const = default;
};

/// One stream.  A format looks at what is its own: audio at the first three, the clock reference (CRF) at
/// `timestamps`, video at `kbps`.
struct MediaStream {
    MediaFormat format{};
    U32 channels = 0;
    U32 rate = 0;        ///< samples per second of each channel
    U32 samples = 0;     ///< of each channel, in one interval; 0: as the rate asks for
    U32 timestamps = 1;  ///< in a frame
    U32 kbps = 0;        ///< of what is coded, without headers
};

struct MediaTspec {
    Tspec tspec{};
    U32 samples = 0;        ///< of each channel in one interval, for audio
    std::string problem{};  ///< what is wrong, and then nothing else counts; else empty
};

/// Largest payload of an Ethernet frame, and so the largest MaxFrameSize there is.
inline constexpr U32 maxMsdu = 1500;

/// Of a stream of that class.
MediaTspec mediaTspec(const MediaStream& stream, SrClassId srClass);

}  // namespace Msrp
