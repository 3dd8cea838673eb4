#!/usr/bin/env python3
"""bridge_e2e.py BUILD: a Linux bridge forwards what the daemon decides, counted in data frames.

Needs root; exit code 77 without.
"""
import collections
import contextlib
import pathlib
import socket
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, DESTINATION, STREAM, TALK, VLAN, Testbed, main  # noqa: E402
from traffic import inside, tagged_frame  # noqa: E402

MANY = range(1, 1001)

class Traffic:
    """Stream data at the station behind a port."""

    def __init__(self, bed, port):
        self.heard = collections.Counter()
        with inside(bed.station_of(port)):
            self.wire, self.ear = (socket.socket(socket.AF_PACKET, socket.SOCK_RAW) for _ in range(2))
        self.wire.bind(("eth0", 0))
        self.ear.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE
        self.ear.bind(("eth0", 3))
        self.ear.setblocking(False)

    def close(self):
        self.wire.close()
        self.ear.close()

    def send(self, address, count):
        for _ in range(count):
            self.wire.send(tagged_frame(address, 3, VLAN, 100))

    def count(self, address):
        """Frames so far."""
        with contextlib.suppress(BlockingIOError):
            while True:
                frame, (_, _, kind, _, _) = self.ear.recvfrom(18)
                # The kernel has taken the tag out, or has not.
                if kind != socket.PACKET_OUTGOING and b"\x22\xf0" in frame[12:]:
                    self.heard[frame[:6].hex(":")] += 1
        return self.heard[address]


class OnABridge(unittest.TestCase):
    def setUp(self):
        bed = self.bed = self.enterContext(Testbed(BUILD, bridge="br0"))
        self.traffic = {port: Traffic(bed, port) for port in bed.ports}
        for traffic in self.traffic.values():
            self.addCleanup(traffic.close)
        self.rounds = 0

    def arrived(self):
        """Sends a hundred frames of the stream from behind swp1; how many came in at swp2 and swp3."""
        listeners = [self.traffic[port] for port in ("swp2", "swp3")]
        before = [traffic.count(DESTINATION) for traffic in listeners]
        self.traffic["swp1"].send(DESTINATION, 100)
        # Broadcast reaches everybody, and nothing that was sent before it comes later.
        self.traffic["swp1"].send("ff:ff:ff:ff:ff:ff", 1)
        self.rounds += 1
        self.bed.wait(lambda: all(traffic.count("ff:ff:ff:ff:ff:ff") == self.rounds for traffic in listeners), 5,
                      "a broadcast does not arrive")
        return tuple(traffic.count(DESTINATION) - then for traffic, then in zip(listeners, before))

    def until_carried(self, *ports):
        self.bed.wait(lambda: self.bed.carriers() == list(ports), 10, f"the stream is not carried to {ports}")

    def entries(self):
        """Where the kernel forwards stream addresses: {address: {port, ...}}."""
        groups = collections.defaultdict(set)
        for entry in self.bed.multicast_entries("91:e0:"):
            groups[entry["grp"]].add(entry["port"])
        return groups

    def test_data_goes_where_listeners_are_and_nowhere_else(self):
        bed = self.bed
        bed.daemon()
        bed.station("swp1", "--talk", TALK)
        bed.wait(lambda: DESTINATION in self.entries(), 10, "the talker's address is not filtered")
        self.assertEqual(self.arrived(), (0, 0), "nobody is Ready")
        first = bed.station("swp2", "--listen", STREAM)
        self.until_carried("swp2")
        # A host that asks who listens to IP multicasts (IGMP, general query) does not get the stream for that.
        self.traffic["swp3"].wire.send(bytes.fromhex(
            "01005e000001 020000000202 0800 46c00020000100000102 3a14 0a000002e0000001 94040000 1164ee9b00000000"))
        self.assertEqual(self.arrived(), (100, 0))
        self.assertEqual(bed.shown("audit"), "records and kernel agree\n")
        second = bed.station("swp3", "--listen", STREAM)
        self.until_carried("swp2", "swp3")
        self.assertEqual(self.arrived(), (100, 100))
        first.terminate()
        self.until_carried("swp3")
        self.assertEqual(self.arrived(), (0, 100))
        second.terminate()
        self.until_carried()
        self.assertEqual(self.arrived(), (0, 0), "nobody is Ready any more")
        self.assertEqual(bed.shown("audit"), "records and kernel agree\n")

    def test_the_records_follow_the_kernel(self):
        bed = self.bed
        bed.daemon()
        bed.station("swp1", "--talk", TALK)
        bed.station("swp2", "--listen", STREAM)
        self.until_carried("swp2")

        def members():
            return list(bed.read("get", "bridging/config/vlanConfig").get(str(VLAN), {}).get("intf", {}))

        for leave, back in ((["link", "set", "swp2", "nomaster"], ["link", "set", "swp2", "master", "br0"]),
                            (["link", "set", "swp2", "name", "other"], ["link", "set", "other", "name", "swp2"])):
            bed.switch_ip(*leave)
            self.until_carried()
            self.assertNotIn("swp2", members())
            bed.wait(lambda: bed.read("show", "stream", STREAM)["record"]["listenerState"] == {}, 5,
                     "the talker still hears of a listener whom nothing reaches")
            bed.switch_ip(*back)
            self.until_carried("swp2")
            self.assertEqual(self.arrived(), (100, 0))
        # A port that the bridge blocks carries nothing, and says so within one look.
        bed.tool("bridge link set dev swp2 state 1")
        self.until_carried()
        self.assertIn("blocked by the spanning tree", bed.shown("show", "stream", STREAM))
        bed.tool("bridge link set dev swp2 state 3")
        self.until_carried("swp2")

    def test_what_finds_no_room_is_told_and_comes_when_there_is(self):
        bed = self.bed
        bed.switch_ip("link", "set", "br0", "type", "bridge", "mcast_hash_max", "48")
        bed.daemon()
        streams = [f"0x{0x200000002020000 + number:x}" for number in range(1, 41)]
        bed.station("swp1", *(f"--talk={stream},91:e0:f0:00:02:{stream[-2:]},{VLAN},A,1,1" for stream in streams))
        bed.station("swp2", *(f"--listen={stream}" for stream in streams))

        def carried():
            return sum("swp2" in ports for ports in self.entries().values())

        # Hosts have groups of their own, and some places are theirs.
        bed.wait(lambda: carried() + len(bed.read("get", "switch/refusals/group")) == 40 and carried() <= 32, 10,
                 "the table does not fill up")
        refused = next(iter(bed.read("get", "switch/refusals/group"))).split("-")[1]
        stream = streams[int(refused[-2:], 16) - 1]
        bed.wait(lambda: "the bridge's multicast table is full" in bed.control("show", "stream", stream).stdout, 5,
                 "nobody tells why a stream has no place")
        bed.switch_ip("link", "set", "br0", "type", "bridge", "mcast_snooping", "0")
        for what in (["streams"], ["ports"]):
            bed.wait(lambda: "Every stream goes to every port" in bed.shown("show", *what), 5,
                     f"show {what[0]} does not tell of the flood")
        bed.switch_ip("link", "set", "br0", "type", "bridge", "mcast_snooping", "1")
        bed.switch_ip("link", "set", "br0", "type", "bridge", "mcast_hash_max", "128")
        bed.wait(lambda: (carried(), bed.read("get", "switch/refusals/group")) == (40, {}), 30, "room is not used")

    def test_what_a_killed_daemon_left_can_be_cleaned_away(self):
        bed = self.bed
        daemon = bed.daemon()
        bed.station("swp1", "--talk", TALK)
        bed.wait(self.entries, 10, "the talker's address is not filtered")
        clean = ["ip", "netns", "exec", bed.switch, bed.build / "msrpctl", "--socket", bed.socket, "clean"]
        self.assertEqual(subprocess.run([*clean, "--yes"], check=False, stderr=subprocess.PIPE).returncode, 1)
        daemon.kill()
        daemon.wait()
        self.assertIn("br0: 1 entries", subprocess.run(clean, check=True, stdout=subprocess.PIPE, text=True).stdout)
        self.assertEqual(len(self.entries()), 1)
        subprocess.run([*clean, "--protocol", "9", "--yes"], check=True, stdout=subprocess.PIPE)
        self.assertEqual(len(self.entries()), 1, "that is not ours")
        subprocess.run([*clean, "--yes"], check=True, stdout=subprocess.PIPE)
        self.assertEqual(self.entries(), {})

    def test_a_daemon_that_is_killed_leaves_no_gap_and_nothing_stale(self):
        bed = self.bed
        daemon = bed.daemon()
        streams = [f"0x{0x200000002010000 + number:X}" for number in MANY]
        address = [f"91:e0:f0:00:{number >> 8:02x}:{number & 255:02x}" for number in MANY]
        bed.station("swp1", *(f"--talk={stream},{da},{VLAN},A,1,1" for stream, da in zip(streams, address)))
        _, other = (bed.station(port, *(f"--listen={stream}" for stream in streams[:100])) for port in ("swp2", "swp3"))

        def forwarded(port):
            return sum(port in ports for ports in self.entries().values())

        bed.wait(lambda: (len(self.entries()), forwarded("swp2"), forwarded("swp3")) == (1000, 100, 100), 30,
                 "not everything is forwarded")
        daemon.kill()
        daemon.wait()
        other.kill()  # what happens meanwhile counts, too
        begun = time.monotonic()
        bed.daemon()
        answers = time.monotonic() - begun
        stale, sent = None, 0
        while time.monotonic() < begun + answers + 2.0:
            self.traffic["swp1"].send(address[0], 20)
            sent += 20
            if stale is None and forwarded("swp3") == 0:
                stale = time.monotonic() - begun
        print(f"1,000 groups: stale entries gone {stale or -1:.1f} s after the restart, which took {answers:.1f} s; "
              f"{sent} frames sent meanwhile")
        self.assertIsNotNone(stale, "stale entries stay")
        self.assertEqual(self.traffic["swp2"].count(address[0]), sent, "frames are missing")
        self.assertEqual(forwarded("swp2"), 100)


if __name__ == "__main__":
    main()
