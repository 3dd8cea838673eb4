/// "switch/streams": the frames that each registered stream's talker may send (its TSpec, IEEE 802.1Q
/// 35.2.2.8.4), for whoever looks after frames.  Written by the agent that reserves, while somebody wants it.
#pragma once

#include "State/Record.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace Switch {

/// One stream; the key is its id.  No two have the same VLAN and address.
class Stream : public State::Record<Stream> {
public:
    static constexpr std::string_view type = "Switch::Stream";
    explicit Stream(std::uint64_t streamId) : streamId_{streamId} {}

    [[nodiscard]] std::uint64_t streamId() const { return streamId_; }
    /// Where its frames come in.
    [[nodiscard]] IntfId talkerIntf() const { return talkerIntf_; }
    void talkerIntfIs(IntfId v) { assign(talkerIntf_, v, "talkerIntf"); }
    [[nodiscard]] EthAddr macDa() const { return macDa_; }
    void macDaIs(EthAddr v) { assign(macDa_, v, "macDa"); }
    [[nodiscard]] std::uint16_t vlanId() const { return vlanId_; }
    void vlanIdIs(std::uint16_t v) { assign(vlanId_, v, "vlanId"); }
    [[nodiscard]] std::uint8_t priority() const { return priority_; }
    void priorityIs(std::uint8_t v) { assign(priority_, v, "priority"); }
    /// Octets behind a frame's tag.
    [[nodiscard]] std::uint16_t maxFrameSize() const { return maxFrameSize_; }
    void maxFrameSizeIs(std::uint16_t v) { assign(maxFrameSize_, v, "maxFrameSize"); }
    /// What is reserved for it wherever somebody listens, with what is around its frames on the wire.
    [[nodiscard]] std::uint64_t kbps() const { return kbps_; }
    void kbpsIs(std::uint64_t v) { assign(kbps_, v, "kbps"); }
    /// The class measurement interval (34.3), in nanoseconds.
    [[nodiscard]] std::uint32_t interval() const { return interval_; }
    void intervalIs(std::uint32_t v) { assign(interval_, v, "interval"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("talkerIntf", &Stream::talkerIntf_));
        each(State::scalar("macDa", &Stream::macDa_));
        each(State::scalar("vlanId", &Stream::vlanId_));
        each(State::scalar("priority", &Stream::priority_));
        each(State::scalar("maxFrameSize", &Stream::maxFrameSize_));
        each(State::scalar("kbps", &Stream::kbps_));
        each(State::scalar("interval", &Stream::interval_));
    }

private:
    std::uint64_t streamId_;
    IntfId talkerIntf_;
    EthAddr macDa_;
    std::uint16_t vlanId_ = 0;
    std::uint8_t priority_ = 0;
    std::uint16_t maxFrameSize_ = 0;
    std::uint64_t kbps_ = 0;
    std::uint32_t interval_ = 0;
};

class Streams : public State::Record<Streams> {
public:
    static constexpr std::string_view type = "Switch::Streams";

    /// Whether anybody reads it; without that there are no streams in it.
    [[nodiscard]] bool wanted() const { return wanted_; }
    void wantedIs(bool v) { assign(wanted_, v, "wanted"); }
    [[nodiscard]] const State::Collection<std::uint64_t, Stream>& stream() const { return stream_; }
    [[nodiscard]] std::shared_ptr<const Stream> stream(std::uint64_t id) const { return stream_.get(id); }
    std::shared_ptr<Stream> streamIs(std::uint64_t id) { return makeChild(stream_, id, "stream"); }
    void streamDel(std::uint64_t id) { delChild(stream_, id, "stream"); }
    void streamDelAll() { delChildren(stream_, "stream"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("wanted", &Streams::wanted_));
        each(State::collection<State::HexKey>("stream", &Streams::stream_));
    }

private:
    bool wanted_ = false;
    State::Collection<std::uint64_t, Stream> stream_;
};

}  // namespace Switch

// Made once, in the source file beside this header.
extern template class State::Record<Switch::Stream>;
extern template class State::Record<Switch::Streams>;
