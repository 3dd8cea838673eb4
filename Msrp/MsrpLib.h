/// The MSRP application of the MRP engine: takes the engine's indications, picks the attribute out of its
/// slot and hands it to the state machine.
#pragma once

#include "Mrp/MrpLib.h"
#include "Msrp/types/Attributes.h"

namespace Msrp {

class MsrpSm;

class MsrpLib : public Mrp::MrpLib {
public:
    MsrpLib() : Mrp::MrpLib{Msrp::application()} {}

    [[nodiscard]] MsrpSm* msrpSm() const { return msrpSm_; }
    /// The state machine that handles the attributes; it binds itself, and unbinds itself when it goes.
    void msrpSmIs(MsrpSm* sm) { msrpSm_ = sm; }

    [[nodiscard]] const std::type_info& fwkType() const override;
    std::uint8_t mrpJoinIndication(const Mrp::MrpParameters& params) override;
    void mrpLeaveIndication(const Mrp::MrpParameters& params) override;

    /// The attribute in the incoming slot of its type.
    [[nodiscard]] MsrpTalkerAdvertiseAttribute talkerAdvertise() const;
    [[nodiscard]] MsrpTalkerFailedAttribute talkerFailed() const;
    [[nodiscard]] MsrpListenerAttribute listener() const;
    [[nodiscard]] MsrpDomainAttribute domain() const;

private:
    /// Traces the indication and makes sure that its port has a status.
    void indicated(std::string_view what, const Mrp::MrpParameters& params);

    MsrpSm* msrpSm_ = nullptr;
};

/// The key of the attribute that `params` indicates: the stream id of types 1 to 3, the SRclassID of type 4,
/// else 0.
U64 getAttributeKey(const MsrpLib& msrpLib, const Mrp::MrpParameters& params);

}  // namespace Msrp
