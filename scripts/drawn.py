"""Networks that are drawn, with real daemons: for scripts/network and tests."""
import json
import subprocess

from testbed import Bed, Failure

MEGABITS = {"M": 1, "G": 1000}
# What daemons tell that differs from one reading to the next, though nothing has changed.
PASSING = ("statusTime", "creationTime", "rxCounters", "txCounters")


def without(value, names):
    """The value without the members of these names, wherever they are."""
    if not isinstance(value, dict):
        return value
    return {name: without(member, names) for name, member in value.items() if name not in names}


class Bridge:
    """One that runs: its namespace, its daemon's socket, and its ports with their links and VLANs."""

    def __init__(self, namespace, socket):
        self.namespace = namespace
        self.socket = socket
        self.ports = {}


class Network(Bed):
    """The network of a drawing, whose daemons run."""

    def __init__(self, build, file):
        super().__init__(build)
        done = subprocess.run([self.build / "msrpsim", "--json", "check", file], text=True, capture_output=True, check=False)
        if done.returncode != 0:
            raise Failure(done.stderr.strip())
        self.drawn = json.loads(done.stdout)
        self.bridges = {}
        self.stations = {}

    def set_up(self):
        for number, (name, device) in enumerate(self.drawn["devices"].items(), 1):
            namespace = f"{self.prefix}{number}"
            self.namespace(namespace)
            if device["kind"] == "bridge":
                self.bridges[name] = Bridge(namespace, self.directory / f"{number}.control")
                self.make_bridge(namespace, device)
            else:
                self.stations[name] = namespace
        for number, link in self.drawn["links"].items():
            self.cable(int(number), link)
        for name, bridge in self.bridges.items():
            self._ip("-n", bridge.namespace, "link", "set", "br0", "up")
            self.msrpd(bridge.socket.stem, bridge.namespace, bridge.socket, self.config(name))
        for name, namespace in self.stations.items():
            if words := self.words(name):
                self.spawn(f"{namespace}.station", namespace, self.build / "msrp-station", "--interface", "eth0", *words)

    def loops(self):
        """Whether the bridges' links close a ring, so that a spanning tree is needed."""
        group = {name: name for name, device in self.drawn["devices"].items() if device["kind"] == "bridge"}
        for link in self.drawn["links"].values():
            ends = [end["device"] for end in link["ends"].values()]
            if not all(end in group for end in ends):
                continue
            first, second = (group[end] for end in ends)
            if first == second:
                return True
            group = {name: first if of == second else of for name, of in group.items()}
        return False

    def make_bridge(self, namespace, device):
        # In the units of the kernel: 2 s, which is the least.
        tree = ["stp_state", "1", "forward_delay", "200", "priority", str(device["priority"])] if self.loops() else []
        self._ip("-n", namespace, "link", "add", "br0", "address", device["address"], "type", "bridge", "mcast_snooping", "1",
                 *tree)

    def cable(self, number, link):
        """Joins the two ends; a bridge's ports have addresses of their own, by number of the link."""
        ends = []
        for side, end in enumerate(link["ends"].values()):
            if bridge := self.bridges.get(end["device"]):
                bridge.ports[end["port"]] = (link["speed"], [str(vlan) for vlan in end["vlans"].values()])
                ends.append((bridge.namespace, end["port"], f"02:00:02:{side:02x}:{number >> 8:02x}:{number & 255:02x}"))
            else:
                ends.append((self.stations[end["device"]], "eth0", self.drawn["devices"][end["device"]]["address"]))
        (namespace, name, address), (far, far_name, far_address) = ends
        self._ip("link", "add", name, "netns", namespace, "address", address, "type", "veth",
                 "peer", "name", far_name, "address", far_address, "netns", far)
        # As in a spanning tree that is drawn, only that the kernel counts no higher than 65535.
        cost = 200_000 // int(float(link["speed"][:-1]) * MEGABITS[link["speed"][-1]]) or 1
        for namespace, name, _ in ends:
            if name != "eth0" or namespace not in self.stations.values():
                self._ip("-n", namespace, "link", "set", name, "master", "br0")
                self._ip("-n", namespace, "link", "set", name, "type", "bridge_slave", "cost", str(min(cost, 65535)))
            self._ip("-n", namespace, "link", "set", name, "up")

    def config(self, name):
        """That of one daemon.  Where all ports have the same VLANs, its switch is the kernel's bridge.  One that keeps
        them apart needs VLAN filtering, which not every kernel has; then the daemon is told its switch instead."""
        ports = self.bridges[name].ports
        members = [vlans for _, vlans in ports.values()]
        if members and members[0] and all(vlans == members[0] for vlans in members):
            switch = {"linux/config": {"bridge": "br0", "srVlan": dict.fromkeys(members[0], True)}}
        else:
            if self.loops():
                raise Failure(f"{name}: ports of different VLANs in a network with loops need a kernel that filters VLANs")
            switch = {"bridging/config": {
                "bridgeMac": self.drawn["devices"][name]["address"],
                "vlanConfig": {vlan: {"intf": {port: {"tagged": True} for port, (_, own) in ports.items() if vlan in own}}
                               for vlan in sorted(set().union(*members))}}}
        return switch | self.drawn["devices"][name]["configuration"] | {
            "msrp/config": {"intfEnable": dict.fromkeys(ports, True)},
            "interface/status/eth/phy/all": {"intfStatus": {port: {"speedEnum": speed} for port, (speed, _) in ports.items()}}}

    def words(self, station):
        """What a station is told to do."""
        words = []
        for stream in self.drawn["streams"].values():
            if stream["talker"] == station:
                words += ["--talk", ",".join(str(stream[part]) for part in (
                    "id", "destination", "vlan", "class", "maxFrameSize", "maxIntervalFrames", "rank"))]
            if station in stream["listeners"].values():
                words += ["--listen", stream["id"]]
        return words

    def read(self, bridge, *arguments):
        """What msrpctl says of that bridge, as a value."""
        done = self.msrpctl(self.bridges[bridge].socket, "--json", *arguments)
        if done.returncode != 0:
            raise Failure(f"{bridge}: {done.stderr.strip()}")
        return json.loads(done.stdout)

    def settle(self, seconds=60, quiet=3):
        """Until nothing has changed for a while."""
        seen = [None, 0]

        def rests():
            now = {name: without(self.read(name, "get", "msrp/status"), PASSING) for name in self.bridges}
            seen[:] = (now, seen[1] + 1) if now == seen[0] else (now, 0)
            return seen[1] >= quiet * 4

        # Four readings in a second, at most.
        return self.wait(rests, seconds, "the network has not come to rest", every=0.25)

    def show(self):
        for name, bridge in self.bridges.items():
            print(f"{name}, ip netns exec {bridge.namespace} {self.build}/msrpctl --socket {bridge.socket}")
            print(self.msrpctl(bridge.socket, "show", "streams").stdout, flush=True)
