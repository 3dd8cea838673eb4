#include "Linux/fence/StreamMeter.h"

#include "Linux/fence/BpfCall.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

namespace Linux {

namespace {

/// Streams that are read in one turn of the loop.
constexpr std::size_t readingsPerTurn = 256;
/// Frames of up to so many intervals come together where busy bridges before this one held them up: 2 ms in
/// class A.
constexpr std::uint64_t intervalsHeldUp = 17;
/// So long may this machine take until it looks at frames that have come in.
constexpr std::uint64_t looksAfter = 10'000'000;
/// The clocks of talker and bridge may differ by 100 ppm each.
constexpr std::uint64_t million = 1'000'000;
constexpr std::uint64_t clocksDiffer = 200;
/// For a stream without bandwidth: longer than any burst for a single octet.
constexpr std::uint64_t foreverAnOctet = std::uint64_t{1} << 40;

/// The counters of both.
MeterEntry together(const MeterEntry& before, MeterEntry since) {
    since.frames += before.frames;
    since.octets += before.octets;
    since.over += before.over;
    since.otherPriority += before.otherPriority;
    since.last = std::max(since.last, before.last);
    return since;
}

/// kbit/s between two readings.
std::uint64_t flowing(const MeterEntry& before, const MeterEntry& now, Runtime::Duration span) {
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(span).count();
    const std::uint64_t octets =
        (now.octets - before.octets) + (now.frames - before.frames) * MeterEntry::overhead;
    return milliseconds > 0 ? octets * 8 / static_cast<std::uint64_t>(milliseconds) : 0;
}

}  // namespace

MeterEntry meterEntry(std::uint64_t kbps, std::uint8_t priority, std::uint16_t maxFrameSize,
                      std::uint32_t interval) {
    MeterEntry entry;
    // 8,000,000 / kbps nanoseconds an octet.
    constexpr std::uint64_t octetAtOneKbps = 8 * (million - clocksDiffer);
    entry.octetTime = kbps > 0 ? (octetAtOneKbps << MeterEntry::timeShift) / kbps : foreverAnOctet;
    entry.burst = intervalsHeldUp * interval + looksAfter;
    entry.priority = priority;
    entry.smallest = std::min<std::uint32_t>(maxFrameSize, MeterEntry::padded);
    return entry;
}

StreamMeter::StreamMeter(Runtime::Loop& loop, std::shared_ptr<const Switch::Streams> streams,
                         std::shared_ptr<TrafficStatus> status, std::function<void()> stirred, Report report,
                         std::uint32_t room)
    : loop_{loop},
      streams_{std::move(streams)},
      status_{std::move(status)},
      stirred_{std::move(stirred)},
      report_{std::move(report)},
      table_{room},
      timer_{loop, [this] { readSome(); }} {}

void StreamMeter::start() {
    const int error = table_.make();
    answered(error);
    if (error != 0) return;
    reactor_ = streams_->watch([this](const State::Change& change) { streamChanged(change); });
    streams_->stream().each([this](std::uint64_t id, const auto&) { due_.insert(id); });
    timer_.armIn(period);
    stirred_();
}

void StreamMeter::stop() {
    reactor_ = {};
    timer_.cancel();
    metering_.clear();
    owners_.clear();
    indexes_.clear();
    behind_.clear();
    due_.clear();
    refused_.clear();
    programRefused_.clear();
    status_->streamDelAll();
    status_->problemIs({});
}

void StreamMeter::portIs(IntfId port, unsigned ifindex) {
    if (ifindex != 0) {
        indexes_[port] = ifindex;
    } else {
        indexes_.erase(port);
    }
    const auto streams = behind_.find(port);
    if (streams == behind_.end()) return;
    due_.insert(streams->second.begin(), streams->second.end());
    stirred_();
}

void StreamMeter::streamChanged(const State::Change& change) {
    if (const auto* stream = dynamic_cast<const Switch::Stream*>(&change.entity)) {
        due_.insert(stream->streamId());
    } else if (const auto* id = change.key<std::uint64_t>()) {
        due_.insert(*id);
    }
    stirred_();
}

bool StreamMeter::carryOut(std::size_t changes) {
    for (; !due_.empty() && changes > 0; --changes) look(due_.extract(due_.begin()).value());
    return due_.empty();
}

void StreamMeter::look(std::uint64_t id) {
    const auto limits = streams_->stream(id);
    Metered& stream = metering_[id];
    const IntfId port = limits ? limits->talkerIntf() : IntfId{};
    if (port != stream.port) {
        if (const auto before = behind_.find(stream.port); before != behind_.end()) {
            before->second.erase(id);
            if (before->second.empty()) behind_.erase(before);
        }
        if (port) behind_[port].insert(id);
        stream.port = port;
    }
    const auto index = indexes_.find(port);
    takeOut(id, stream);
    refused_.erase(id);
    if (limits && index != indexes_.end()) {
        putIn(id, stream, {limits->macDa().octets(), limits->vlanId(), index->second}, *limits);
    } else if (!limits) {
        metering_.erase(id);
        status_->streamDel(id);
    } else if (status_->stream(id)) {
        status_->streamIs(id)->kbpsIs(0);
    }
    if (refused_.empty()) answered(0);
}

void StreamMeter::takeOut(std::uint64_t id, Metered& stream) {
    if (!stream.key) return;
    if (const auto owner = owners_.find(*stream.key); owner != owners_.end() && owner->second == id) {
        if (const auto counted = table_.read(*stream.key)) stream.before = together(stream.before, *counted);
        (void)table_.remove(*stream.key);
        owners_.erase(owner);
        // There is room for another one.
        if (!refused_.empty()) due_.insert(*refused_.begin());
    }
    stream.key.reset();
}

void StreamMeter::putIn(std::uint64_t id, Metered& stream, const FenceKey& key,
                        const Switch::Stream& limits) {
    const MeterEntry entry =
        meterEntry(limits.kbps(), limits.priority(), limits.maxFrameSize(), limits.interval());
    if (const int error = table_.enter(key, entry); error != 0) {
        refused_.insert(id);
        return answered(error);
    }
    stream.key = key;
    owners_[key] = id;
    stream.read = loop_.now();
    stream.told = stream.before;
    publish(id, stream);
    if (!refused_.empty()) due_.insert(*refused_.begin());
}

void StreamMeter::readSome() {
    if (readNext_ == 0 && !refused_.empty()) {
        due_.insert(*refused_.begin());
        stirred_();
    }
    auto at = metering_.lower_bound(readNext_);
    for (std::size_t i = 0; i < readingsPerTurn && at != metering_.end(); ++i, ++at) {
        Metered& stream = at->second;
        // Another stream may have come to its address before this one was taken out.
        if (!stream.key) continue;
        if (const auto owner = owners_.find(*stream.key);
            owner == owners_.end() || owner->second != at->first)
            continue;
        const auto counted = table_.read(*stream.key);
        if (!counted) {
            // Somebody else has taken it out.
            stream.before = stream.told;
            owners_.erase(*stream.key);
            stream.key.reset();
            due_.insert(at->first);
            stirred_();
            continue;
        }
        const MeterEntry all = together(stream.before, *counted);
        const Runtime::Time now = loop_.now();
        status_->streamIs(at->first)->kbpsIs(flowing(stream.told, all, now - stream.read));
        stream.told = all;
        stream.read = now;
        publish(at->first, stream);
    }
    readNext_ = at == metering_.end() ? 0 : at->first;
    const std::size_t pieces = metering_.size() / readingsPerTurn + 1;
    timer_.armIn(period / pieces);
}

void StreamMeter::publish(std::uint64_t id, Metered& stream) {
    const auto record = status_->streamIs(id);
    record->framesIs(stream.told.frames);
    record->octetsIs(stream.told.octets);
    record->overIs(stream.told.over);
    record->otherPriorityIs(stream.told.otherPriority);
    record->lastFrameIs(static_cast<double>(stream.told.last) / 1e9);
}

void StreamMeter::answered(int error) {
    std::string problem = programRefused_;
    if (error == E2BIG) {
        problem = Runtime::concat("there are more than ", table_.room(), " streams, not all are measured");
    } else if (error != 0) {
        problem = bpfProblem("the kernel does not measure all streams", error);
    }
    problemIs(problem);
}

void StreamMeter::refused(const std::string& why) {
    programRefused_ = why.empty() ? why : Runtime::concat("streams are not measured: ", why);
    answered(0);
}

void StreamMeter::problemIs(const std::string& problem) {
    if (problem == status_->problem()) return;
    status_->problemIs(problem);
    report_(problem.empty() ? Tone::informational : Tone::warning,
            problem.empty() ? "all streams are measured again" : problem);
}

}  // namespace Linux
