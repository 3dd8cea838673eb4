#include "Msrp/MsrpLib.h"

#include "Msrp/MsrpSm.h"

namespace Msrp {

MsrpTalkerAdvertiseAttribute MsrpLib::talkerAdvertise() const {
    return MsrpTalkerAdvertiseAttribute{incoming(typeTalkerAdvertise).value};
}
MsrpTalkerFailedAttribute MsrpLib::talkerFailed() const {
    return MsrpTalkerFailedAttribute{incoming(typeTalkerFailed).value};
}
MsrpListenerAttribute MsrpLib::listener() const {
    const Mrp::AttributeSlot& slot = incoming(typeListener);
    return {slot.value, slot.declaration};
}
MsrpDomainAttribute MsrpLib::domain() const { return MsrpDomainAttribute{incoming(typeDomain).value}; }

const std::type_info& MsrpLib::fwkType() const { return typeid(MsrpSm); }

U64 getAttributeKey(const MsrpLib& msrpLib, const Mrp::MrpParameters& params) {
    switch (params.attributeType) {
        case typeTalkerAdvertise:
            return msrpLib.talkerAdvertise().streamId();
        case typeTalkerFailed:
            return msrpLib.talkerFailed().streamId();
        case typeListener:
            return msrpLib.listener().streamId();
        case typeDomain:
            return number(msrpLib.domain().srClassId());
        default:
            return 0;
    }
}

void MsrpLib::indicated(std::string_view what, const Mrp::MrpParameters& params) {
    MsrpSm& sm = *msrpSm();
    sm.trace(what, "( ", params.intf, ", ", params.attributeType, " )");
    sm.ringTrace(what, params.intf.number(), params.attributeType, getAttributeKey(*this, params));
    // The answer is not needed here; asking lets the log drain.
    (void)sm.isAttrLogOutClogged();
    Runtime::require(sm.status()->intfStatus(params.intf) != nullptr,
                     "msrpSm()->status()->intfStatus( intfId )");
}

std::uint8_t MsrpLib::mrpJoinIndication(const Mrp::MrpParameters& params) {
    indicated("mrpJoinIndication", params);
    switch (params.attributeType) {
        case typeTalkerAdvertise:
            return msrpSm()->processTalkerAdvertiseJoin(params.intf, talkerAdvertise()) ? 1 : 0;
        case typeTalkerFailed:
            return msrpSm()->processTalkerFailedJoin(params.intf, talkerFailed()) ? 1 : 0;
        case typeListener:
            return msrpSm()->processListenerJoin(params.intf, listener()) ? 1 : 0;
        case typeDomain:
            return msrpSm()->processDomainVectorJoin(params.intf, domain()) ? 1 : 0;
        default:
            return 0;
    }
}

void MsrpLib::mrpLeaveIndication(const Mrp::MrpParameters& params) {
    indicated("mrpLeaveIndication", params);
    switch (params.attributeType) {
        case typeTalkerAdvertise:
            msrpSm()->processTalkerAdvertiseLeave(params.intf, talkerAdvertise());
            break;
        case typeTalkerFailed:
            msrpSm()->processTalkerFailedLeave(params.intf, talkerFailed());
            break;
        case typeListener:
            msrpSm()->processListenerLeave(params.intf, listener());
            break;
        case typeDomain:
            msrpSm()->processDomainVectorLeave(params.intf, domain());
            break;
        default:
            break;
    }
}

}  // namespace Msrp
