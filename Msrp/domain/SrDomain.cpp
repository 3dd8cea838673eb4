/// SR domain: the classes' parameters, the Domain attribute, and the class state of each port.
#include "Msrp/MsrpSm.h"
#include "Msrp/domain/SrClassTransition.h"
#include "Msrp/types/Format.h"

namespace Msrp {

namespace {
bool isClass(SrClassId srClass) { return srClass == SrClassId::SrClassA || srClass == SrClassId::SrClassB; }
}  // namespace

bool MsrpSm::srClassSupported(SrClassId srClass) const {
    if (srClass == SrClassId::SrClassA) return inputs_.cliConfig->srClassASupported();
    if (srClass == SrClassId::SrClassB) return inputs_.cliConfig->srClassBSupported();
    return false;
}

U8 MsrpSm::srClassPriority(SrClassId srClass) const {
    Runtime::require(isClass(srClass), "0 && \"Invalid SR class\"");
    return srClass == SrClassId::SrClassA ? inputs_.cliConfig->srClassAPriority()
                                          : inputs_.cliConfig->srClassBPriority();
}

U16 MsrpSm::intfSrPvid(IntfId intf) const { return inputs_.cliConfig->streamVlan(intf); }

void MsrpSm::transmitSrDomainVector(IntfId intf, SrClassId srClass, bool join) {
    trace("MsrpSm::transmitSrDomainVector( ", intf, ", ", srClassName(srClass), ", ", join, " )");
    send(intf, typeDomain, join ? Mrp::requestDeclare : Mrp::requestWithdraw,
         domainOf(intf, srClass).octets());
}

MsrpDomainAttribute MsrpSm::domainOf(IntfId intf, SrClassId srClass) const {
    return {srClass, srClassPriority(srClass), intfSrPvid(intf)};
}

// 35.2.2.9.  Both ends of a link must give a class the same priority, or the frames of its streams would
// arrive in another queue: then the port is the domain's boundary.  A different VLAN only makes talkers
// choose another one.
bool MsrpSm::processDomainVectorJoin(IntfId intf, const MsrpDomainAttribute& attr) {
    const SrClassId srClass = attr.srClassId();
    trace("MsrpSm::processDomainVectorJoin( ", intf, ", class ", number(srClass), " )");
    ringTrace("processDomainJoin", intf.number(), number(srClass), attr.srClassPriority());
    if (!isClass(srClass)) {
        discard(Runtime::format("Discard DomainVectorJoin on %s as SR Class %d is invalid", intf,
                                number(srClass)));
        return true;
    }
    const auto intfStatus = status()->intfStatus(intf);
    const SrClassState state = intfStatus->srClassState(srClass);
    if (state == SrClassState::NotSupported) {
        discard(Runtime::format("Discard DomainVectorJoin on %s as %s is not supported", intf,
                                srClassName(srClass)));
        return true;
    }
    // The port's streams are still under way to the state before: the last word is kept for then.
    if (busy(intf, srClass)) {
        trace("DomainVectorJoin for ", srClassName(srClass), " waits for the port's streams");
        domainDue_.insert_or_assign({intf, srClass}, std::pair{attr, true});
        return false;
    }
    domainDue_.erase({intf, srClass});
    SrClassState next = SrClassState::Boundary;
    if (attr.srClassPriority() == srClassPriority(srClass)) {
        if (state == SrClassState::Core) {
            trace("DomainVectorJoin for ", srClassName(srClass), " did not result in any changes");
            return false;
        }
        trace(intf, " is ", srClassName(srClass), " Core port due to Join message");
        log(MSRP_DOMAIN_JOIN, "received", intf, number(srClass), attr.srClassPriority(), attr.srClassVid());
        next = SrClassState::Core;
    } else {
        error(Runtime::format("Interface %s is %s Boundary port due to priority mismatch", intf,
                              srClassName(srClass)));
    }
    setSrClassState(intf, srClass, next);
    return false;
}

void MsrpSm::processDomainVectorLeave(IntfId intf, const MsrpDomainAttribute& attr) {
    const SrClassId srClass = attr.srClassId();
    trace("MsrpSm::processDomainVectorLeave( ", intf, ", class ", number(srClass), " )");
    ringTrace("processDomainLeave", intf.number(), number(srClass), attr.srClassPriority());
    // Both discards are worded as those of a join.
    if (!isClass(srClass)) {
        discard(Runtime::format("Discard DomainVectorJoin on %s as SR Class %d is invalid", intf,
                                number(srClass)));
        return;
    }
    const SrClassState state = status()->intfStatus(intf)->srClassState(srClass);
    if (state == SrClassState::NotSupported) {
        discard(Runtime::format("Discard DomainVectorJoin on %s as %s is not supported", intf,
                                srClassName(srClass)));
        return;
    }
    if (busy(intf, srClass)) {
        trace("DomainVectorLeave for ", srClassName(srClass), " waits for the port's streams");
        domainDue_.insert_or_assign({intf, srClass}, std::pair{attr, false});
        return;
    }
    domainDue_.erase({intf, srClass});
    if (state == SrClassState::WaitingForPeer) {
        trace("DomainVectorLeave for ", srClassName(srClass), " did not result in any changes");
        return;
    }
    trace(intf, " is ", srClassName(srClass), " WaitingForPeer port due to Leave message");
    log(MSRP_DOMAIN_LV, "received", intf, number(srClass), attr.srClassPriority(), attr.srClassVid());
    setSrClassState(intf, srClass, SrClassState::WaitingForPeer);
}

void MsrpSm::setSrClassState(IntfId intf, SrClassId srClass, SrClassState state) {
    const auto intfStatus = status()->intfStatus(intf);
    Runtime::require(intfStatus != nullptr, "intfStatus");
    const SrClassState old = intfStatus->srClassState(srClass);
    if (state == old) return;
    trace("MsrpSm::setSrClassState( ", intf, ", ", srClassName(srClass), " ) from ", number(old), " to ",
          number(state));
    ringTrace("setSrClassState", intf.number(), number(srClass), number(old) << 8 | number(state));
    log(MSRP_SR_CLASS_TRANSITION, number(srClass), intf, number(old), number(state));
    intfStatus->srClassStateIs(srClass, state);
    // The engine offers what the peer said again when the class is back.
    if (state == SrClassState::NotSupported) domainDue_.erase({intf, srClass});

    switch (srClassTransition(old, state)) {
        case SrClassAction::none:
            break;
        case SrClassAction::declareDomain:
            transmitSrDomainVector(intf, srClass, true);
            break;
        case SrClassAction::withdrawDomain:
            transmitSrDomainVector(intf, srClass, false);
            break;
        case SrClassAction::registerStreams:
            registerSrClassStreams(intf, srClass, 0);
            break;
        case SrClassAction::failStreams:
            deregisterSrClassStreams(intf, srClass, 0, TalkerFailureCode::egressPortNotAvbCapable);
            break;
        case SrClassAction::removeStreams:
            deregisterSrClassStreams(intf, srClass, 0, TalkerFailureCode::noFailure);
            break;
        case SrClassAction::removeAndWithdraw:
            deregisterSrClassStreams(intf, srClass, 0, TalkerFailureCode::noFailure);
            addClassWork(intf, srClass, [this, intf, srClass](unsigned&) {
                transmitSrDomainVector(intf, srClass, false);
                return true;
            });
            break;
        case SrClassAction::invalid:
            trace("ERROR: Invalid SR class state transition from ", number(old), " to ", number(state));
            log(MSRP_ERROR,
                Runtime::format("Invalid SR class transition from %d to %d", number(old), number(state)));
            intfStatus->srClassStateIs(srClass, old);
            Runtime::require(false, "0 && \"Invalid SR class state transition\"");
    }
}

}  // namespace Msrp
