#include "Linux/bridge/VlanTable.h"

namespace Linux {

void enter(VlanTable& table, const VlanMessage& message) {
    PortVlans& port = table[message.ifindex];
    for (const VlanRange& range : message.ranges) {
        const bool member = !message.gone && range.forwarding;
        for (unsigned id = range.first; id <= range.last; ++id) {
            port.member.set(id, member);
            port.tagged.set(id, member && !range.untagged);
        }
        // A port has one such VLAN at most.  When another becomes it, the kernel tells of that one only.
        if (!message.gone && range.pvid) {
            port.pvid = VlanId{range.first};
        } else if (port.pvid && port.pvid->value() >= range.first && port.pvid->value() <= range.last) {
            port.pvid.reset();
        }
    }
}

}  // namespace Linux
