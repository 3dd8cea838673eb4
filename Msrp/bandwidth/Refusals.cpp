/// What the switch could not carry out: the streams that counted on it fail until it can.
#include "Msrp/MsrpSm.h"
#include "Msrp/types/Format.h"

namespace Msrp {

namespace {
using Code = TalkerFailureCode;
}

bool MsrpSm::groupRefused(const Switch::GroupId& group) const {
    return inputs_.refusals && inputs_.refusals->group(group);
}

bool MsrpSm::shapingRefused(const StreamData& stream, IntfId intf) const {
    return inputs_.refusals && stream.bandwidth() != 0 && inputs_.refusals->port(intf);
}

void MsrpSm::tellGroupRefused(U64 streamId, IntfId intf, const Switch::GroupId& group) const {
    error(Runtime::format("StreamId 0x%s failed on %s because its Mac DA %s cannot be forwarded: %s",
                          HexId{streamId}, intf, group.addr, inputs_.refusals->group(group)->why()));
}

void MsrpSm::handleRefusal(const State::Change& change) {
    if (!initialized() || standbyMode()) return;
    if (const auto* group = change.key<Switch::GroupId>()) reviewGroup(*group);
    // A take-over looks at all ports when it has all streams.
    const auto* intf = change.key<IntfId>();
    if (intf != nullptr && !takingOver_) reviewShaping(*intf);
}

void MsrpSm::reviewGroup(const Switch::GroupId& group) {
    // Several can come at once, and each means something for every port.
    chores_.add(switchLane, [this, group](unsigned& units) {
        // One of them has the group; the others wait for it.
        unsigned looked = 0;
        std::shared_ptr<StreamData> holder;
        for (const auto& [address, id] : streams_.withAddress(group.addr)) {
            ++looked;
            const auto stream = streamList(id);
            if (!stream->ethGroup() || stream->vlanId() != group.vlan.value()) continue;
            holder = stream;
            break;
        }
        const unsigned before = spent_;
        if (holder) reviewGroupOf(*holder);
        units -= std::min(units, 1 + (spent_ - before));
        chores_.spend(looked / 8);
        return true;
    });
}

void MsrpSm::reviewGroupOf(StreamData& stream) {
    const IntfId ingress = stream.ingressIntf();
    if (!ingress || !stream.ethGroup() || getTalkerState(stream, ingress) != TalkerState::Advertise) return;
    const Code code = stream.talkerFailureCode(ingress);
    const Switch::GroupId group{VlanId{stream.vlanId()}, stream.macDa()};
    const bool refused = groupRefused(group);
    if (refused && code == Code::noFailure) {
        tellGroupRefused(stream.streamId(), ingress, group);
        stream.failedBridgeIdIs(failureBridgeId(ingress));
        failIngress(stream, Code::cannotStoreAddress);
    } else if (!refused && code == Code::cannotStoreAddress &&
               isActive(status()->intfStatus(ingress)->srClassState(stream.srClass()))) {
        processTalkerAdvertiseJoin(ingress, streamDataTalkerAttribute(stream.streamId()));
    }
}

void MsrpSm::reviewShaping(IntfId intf) {
    const auto refusal = inputs_.refusals->port(intf);
    if (refusal) {
        error(Runtime::format("%s cannot be shaped: %s", intf, refusal->why()));
    } else {
        log(MSRP_NOTIF, Runtime::format("%s can be shaped", intf));
    }
    chores_.add(portLane(intf), [this, intf, next = U64{0}](unsigned& units) mutable {
        const bool done =
            walkStreams(0, next, units, [&](U64, StreamData& stream) { reviewShapingOf(stream, intf); });
        if (done && status()->intfStatus(intf)) {
            // Who waited for bandwidth may have been passed over meanwhile.
            bandwidthReleasedIs(intf, true);
            reprocessBandwidthFailedStreams(intf);
        }
        return done;
    });
}

void MsrpSm::reviewShapingOf(StreamData& stream, IntfId intf) {
    const IntfId ingress = stream.ingressIntf();
    if (!ingress || ingress == intf || !status()->intfStatus(intf)) return;
    if (shapingRefused(stream, intf)) {
        failEgress(stream, intf, Code::insufficientResources);
    } else if (stream.talkerFailureCode(intf) == Code::insufficientResources &&
               stream.talkerFailureCode(ingress) == Code::noFailure &&
               getTalkerState(stream, ingress) == TalkerState::Advertise) {
        propagateTalkerAdvertiseJoin(ingress, stream.streamId(), intf);
    }
}

}  // namespace Msrp
