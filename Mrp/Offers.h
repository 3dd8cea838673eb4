/// What is to be offered to the application again.  Ports take turns, and so do a port's attributes: whoever
/// keeps asking for offers keeps nobody else from theirs.
#pragma once

#include "Mrp/Participant.h"
#include "Switch/IntfId.h"

#include <map>
#include <optional>

namespace Mrp {

class Offers {
public:
    struct Offer {
        IntfId intf;
        AttributeRef ref;
        bool always = false;  ///< also when it was accepted before
    };

    /// `always`: also when it is not refused any more by then.
    void add(const Offer& offer);
    /// It was made, or is not to be made any more.
    void erase(IntfId intf, const AttributeRef& ref);
    [[nodiscard]] bool empty() const { return ports_.empty(); }
    /// The one whose turn it is; there must be one.
    Offer take();

private:
    struct Port {
        std::map<AttributeRef, bool> due;  ///< and whether always
        std::optional<AttributeRef> last;  ///< of this round
    };
    std::map<IntfId, Port> ports_;  ///< that have some
    std::optional<IntfId> last_;    ///< that had its turn
};

}  // namespace Mrp
