#include "Control/Captures.h"

#include "Control/HexOctets.h"

#include <utility>

namespace Control {

using State::Value;

Captures::Captures(const Runtime::Loop& loop, FrameSource& source, Budget& budget,
                   std::function<void()> notice)
    : loop_{loop}, source_{source}, budget_{budget}, notice_{std::move(notice)} {}

Captures::Capture::Capture(Captures& owner, const std::string& port)
    : subscription{owner.source_, port,
                   [&owner, this](Direction direction, std::span<const std::uint8_t> frame) {
                       owner.keep(*this, direction, frame);
                   }} {}

std::string Captures::add(const std::string& port) {
    if (!source_.knows(port)) return "no port \"" + port + "\"";
    if (captures_.size() == portLimit)
        return "a client has at most " + std::to_string(portLimit) + " captures";
    captures_.emplace_back(*this, port);
    return {};
}

void Captures::clear() {
    waiting_.clear();
    budget_.giveBack(std::exchange(memory_, 0));
    captures_.clear();
}

void Captures::keep(Capture& capture, Direction direction, std::span<const std::uint8_t> frame) {
    Frame kept{capture, loop_.now(), direction, capture.dropped, {frame.begin(), frame.end()}};
    if (memory_ + kept.memory() > waitingLimit || !budget_.take(kept.memory())) {
        ++capture.dropped;
        return;
    }
    capture.dropped = 0;
    memory_ += kept.memory();
    waiting_.push_back(std::move(kept));
    if (waiting_.size() == 1) notice_();
}

State::Object Captures::next() {
    const Frame& frame = waiting_.front();
    State::Object told{{"capture", Value{frame.capture.subscription.port()}},
                       {"time", Value{Runtime::seconds(frame.time)}},
                       {"direction", Value{frame.direction == Direction::sent ? "sent" : "received"}},
                       {"frame", Value{hexOctets(frame.octets)}}};
    if (frame.dropped > 0) told.emplace_back("dropped", frame.dropped);
    memory_ -= frame.memory();
    budget_.giveBack(frame.memory());
    waiting_.pop_front();
    return told;
}

}  // namespace Control
