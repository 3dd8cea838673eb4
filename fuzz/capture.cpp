/// Any octets as a capture file: what is read of it is inside it, a shorter file says nothing else, and an
/// agent survives what it is given of it.
#include "Plan/replay/CaptureFile.h"
#include "Plan/replay/ReplayReport.h"
#include "fuzz/Check.h"

#include <algorithm>
#include <vector>

namespace Fuzz {
namespace {

using Octets = std::span<const std::uint8_t>;

struct Read {
    Plan::Capture capture{};
    /// Where each frame lies in the file.
    std::vector<std::pair<std::size_t, std::size_t>> frames{};
};

Read readOf(Octets file) {
    Read out;
    out.capture =
        Plan::readCapture(file, [&](const Plan::Capture& capture, const Plan::CapturedFrame& frame) {
            check(frame.interface < capture.interfaces.size(), "a frame of no interface");
            const auto at =
                static_cast<std::size_t>(frame.octets.empty() ? 0 : frame.octets.data() - file.data());
            check(at <= file.size() && frame.octets.size() <= file.size() - at, "a frame outside its file");
            out.frames.emplace_back(at, frame.octets.size());
        });
    check(!out.capture.broken || out.capture.broken->at <= file.size(), "a break outside its file");
    return out;
}

void checkCut(Octets file, const Read& whole) {
    if (file.empty()) return;
    const std::size_t length = file[file.size() / 2] * std::size_t{31} % file.size();
    const std::vector<std::uint8_t> cut{file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length)};
    const Read part = readOf(cut);
    check(part.frames.size() <= whole.frames.size() &&
              std::equal(part.frames.begin(), part.frames.end(), whole.frames.begin()),
          "a file cut to ", length, " octets has other frames");
}

void checkReplay(Octets file) {
    Plan::TrafficReader reader{{}};
    reader.read("capture", file);
    std::string problem;
    const Plan::Traffic traffic = reader.traffic({EthAddr::fromNumber(0x02'00'00'00'00'01)}, problem);
    if (!problem.empty()) return;
    std::size_t written = 0;
    Plan::AnnotatedFile out{traffic.ports, [&](Octets octets) { written += octets.size(); }};
    const auto result = Plan::replay(traffic, {}, [&](const Plan::Annotated& frame) { out.add(frame); });
    check(!Plan::replayText(traffic, result).empty() && written > 0, "nothing is told of a capture");
}

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Fuzz;
    const Octets file{data, size};
    checkCut(file, readOf(file));
    checkReplay(file);
    return 0;
}
