/// Several bridges and stations with the cables between them, under one virtual clock.
///
/// A network is drawn in lines of text:
///
///     Network net{"talker - sw1 - sw2 = listener"};
///     Network ring{"sw1 - sw2 - sw3 - sw1", "talker - sw1", "sw3 = listener"};
///
/// `-` is a cable of 1 Gbit/s, `=` one of 100 Mbit/s.  "sw" and a number is a bridge, any other name a
/// station, which has one cable; a name that comes again is the same device.  A bridge's port is called after
/// the device at its other end, so that "talker -> sw2" in a stream's line reads as the way it takes.  Bridge
/// 7 has address 02:00:00:00:00:07.
#pragma once

#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "Sim/MrpPeer.h"

#include <initializer_list>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace Sim {

class Network {
public:
    /// Every bridge runs, a spanning tree with all ports forwarding, the stations are in both classes'
    /// domains, and a second has passed.  Throws std::invalid_argument, with the line and what is wrong in
    /// it, for a drawing that is none; so does what asks for a device or cable that is not there.
    Network(std::initializer_list<std::string_view> lines);

    /// Of a bridge; "sw1" or the like.
    Bridge& operator[](const std::string& name) { return *node(name, true).bridge; }
    MrpPeer& station(const std::string& name) { return *node(name, false).station; }

    /// Pulls the cable out, or puts it back: both ends see their link fall or rise.
    void cableIs(const std::string& a, const std::string& b, bool plugged);
    /// Another speed is agreed on over the cable.
    void speedIs(const std::string& a, const std::string& b, Interface::Speed speed);
    /// The station's cable is put into a port of another bridge, a new one.
    void move(const std::string& station, const std::string& bridge);
    /// What the spanning tree says of a bridge's port.
    void portStateIs(const std::string& bridge, const std::string& port, Bridging::Topology::PortState state);
    /// The bridge is switched off without a word, and on again after `dark`, with nothing of what it knew or
    /// was told after the drawing.  With no time between, its neighbours see no link fall, as when only the
    /// agent's process has died.
    void restart(const std::string& bridge, Runtime::Duration dark);

    /// A line for each bridge that has streams ("sw1: 0x1 SrClassA 9088 talker -> sw2") and then for each
    /// station that hears more than domains ("talker: Advertise 0x2, Listener 0x1 Ready"), by name.  A bridge
    /// whose forwarding is not sound says that too.
    [[nodiscard]] std::string picture() const;

    Runtime::VirtualLoop loop;

private:
    struct Node {
        unsigned number = 0;  ///< of a bridge; 0 for a station
        std::unique_ptr<Bridge> bridge;
        std::unique_ptr<MrpPeer> station;
    };
    struct Cable {
        std::string a;
        std::string b;
        Interface::Speed speed;
        bool plugged = true;
        [[nodiscard]] bool at(const std::string& name) const { return a == name || b == name; }
        [[nodiscard]] const std::string& other(const std::string& end) const { return end == a ? b : a; }
    };
    void draw(std::string_view line);
    void connect(const std::string& a, const std::string& b, Interface::Speed speed);
    Node& node(const std::string& name, bool bridge);
    Cable& cable(const std::string& a, const std::string& b);
    std::list<Cable>::iterator onlyCable(const std::string& station);
    /// Makes the bridge, with its ends of its cables, and starts it.
    void make(const std::string& name, Node& node);
    /// The bridge's end of the cable.
    void plugIn(const std::string& name, Bridge& bridge, const Cable& cable);

    std::map<std::string, Node> nodes_;
    std::list<Cable> cables_;
};

}  // namespace Sim
