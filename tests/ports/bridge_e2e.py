#!/usr/bin/env python3
"""bridge_e2e.py BUILD: a Linux bridge forwards what the daemon decides, counted in data frames.

Needs root; exit code 77 without.
"""
import json
import os
import pathlib
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import DESTINATION, STREAM, TALK, VLAN, Testbed  # noqa: E402

BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()
MANY = range(1, 1001)

# Sends and counts stream data behind a port, by words on its standard input: "send ADDRESS FIRST COUNT",
# "count ADDRESS" (frames so far), "gaps ADDRESS" (numbers that are missing).
TRAFFIC = """
import socket, struct, sys
VLAN = %d
mac = lambda text: bytes.fromhex(text.replace(":", ""))
wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
wire.bind(("eth0", 0))
ear = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
ear.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE
ear.bind(("eth0", 3))
ear.setblocking(False)
heard = {}
def listen():
    while True:
        try: frame, (_, _, kind, _, _) = ear.recvfrom(2048)
        except BlockingIOError: return
        at = frame.find(b"DATA")  # the kernel has taken the tag out, or has not
        if kind != 4 and at > 0:
            heard.setdefault(frame[:6], set()).add(struct.unpack(">I", frame[at + 4:at + 8])[0])
for line in sys.stdin:
    word, address, *numbers = line.split()
    if word == "send":
        first, count = map(int, numbers)
        head = mac(address) + bytes.fromhex("020000000201") + struct.pack(">HHH", 0x8100, 3 << 13 | VLAN, 0x22F0)
        for number in range(first, first + count):
            wire.send(head + bytes(28) + b"DATA" + struct.pack(">I", number) + bytes(40))
        print(count, flush=True)
    elif word == "raw":
        print(wire.send(bytes.fromhex(address)), flush=True)
    else:
        listen()
        numbers = heard.get(mac(address), set())
        print(len(numbers) if word == "count" else max(numbers, default=0) - min(numbers, default=1) + 1 - len(numbers), flush=True)
""" % VLAN


class Traffic:
    """Stream data at the station behind a port."""

    def __init__(self, bed, port):
        self.process = subprocess.Popen(
            ["ip", "netns", "exec", bed.station_of(port), "python3", "-c", TRAFFIC], text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        bed.processes.append(self.process)

    def say(self, *words):
        print(*words, file=self.process.stdin, flush=True)
        return int(self.process.stdout.readline())


class OnABridge(unittest.TestCase):
    def setUp(self):
        bed = self.bed = self.enterContext(Testbed(BUILD, bridge="br0"))
        self.traffic = {port: Traffic(bed, port) for port in bed.ports}
        for traffic in self.traffic.values():
            self.addCleanup(traffic.process.communicate)
        self.sent = 0

    def arrived(self, *addresses):
        """Sends a hundred frames of the stream from behind swp1; how many came in at swp2 and swp3."""
        address = addresses[0] if addresses else DESTINATION
        before = self.heard(address)
        self.traffic["swp1"].say("send", address, self.sent, 100)
        # Broadcast reaches everybody, and nothing that was sent before it comes later.
        self.traffic["swp1"].say("send", "ff:ff:ff:ff:ff:ff", self.sent, 1)
        self.sent += 100
        rounds = self.sent // 100
        self.bed.wait(lambda: all(self.traffic[port].say("count", "ff:ff:ff:ff:ff:ff") >= rounds
                                  for port in ("swp2", "swp3")), 5, "a broadcast does not arrive")
        return tuple(now - then for now, then in zip(self.heard(address), before))

    def heard(self, address):
        return [self.traffic[port].say("count", address) for port in ("swp2", "swp3")]

    def until_carried(self, *ports):
        self.bed.wait(lambda: self.bed.carriers() == list(ports), 10, f"the stream is not carried to {ports}")

    def entries(self):
        """Where the kernel forwards stream addresses: {address: {port, ...}}."""
        done = subprocess.run(["bridge", "-n", self.bed.switch, "-j", "mdb", "show"], text=True, check=True,
                              stdout=subprocess.PIPE)
        groups = {}
        for entry in (json.loads(done.stdout) or [{}])[0].get("mdb", []):
            if entry["grp"].startswith("91:e0:"):
                groups.setdefault(entry["grp"], set()).add(entry["port"])
        return groups

    def test_data_goes_where_listeners_are_and_nowhere_else(self):
        bed = self.bed
        bed.daemon()
        bed.station("swp1", "--talk", TALK)
        bed.wait(lambda: DESTINATION in self.entries(), 10, "the talker's address is not filtered")
        self.assertEqual(self.arrived(), (0, 0), "nobody is Ready")
        first = bed.station("swp2", "--listen", STREAM)
        self.until_carried("swp2")
        self.assertEqual(self.arrived(), (100, 0))
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
        subprocess.run(["bridge", "-n", bed.switch, "link", "set", "dev", "swp2", "state", "1"], check=True)
        self.until_carried()
        self.assertIn("blocked by the spanning tree", bed.shown("show", "stream", STREAM))
        subprocess.run(["bridge", "-n", bed.switch, "link", "set", "dev", "swp2", "state", "3"], check=True)
        self.until_carried("swp2")

    def test_nobody_else_gets_a_stream_by_asking_for_routers_packets(self):
        bed = self.bed
        bed.daemon()
        bed.station("swp1", "--talk", TALK)
        bed.station("swp2", "--listen", STREAM)
        self.until_carried("swp2")
        # A host asks who listens to IP multicasts: IGMP, general query.
        query = bytes.fromhex("01005e000001 020000000202 0800 46c00020000100000102 3a14 0a000002e0000001 94040000"
                              "1164ee9b00000000")
        self.traffic["swp3"].say("raw", query.hex(), 1, 1)
        self.assertEqual(self.arrived(), (100, 0), "a port without listener gets the stream")
        self.assertEqual(bed.shown("audit"), "records and kernel agree\n")

    def test_what_finds_no_room_is_told_and_comes_when_there_is(self):
        bed = self.bed
        bed.switch_ip("link", "set", "br0", "type", "bridge", "mcast_hash_max", "48")
        bed.daemon()
        streams = [f"0x{0x200000002020000 + number:X}" for number in range(1, 41)]
        bed.station("swp1", *(word for number, stream in enumerate(streams, 1)
                              for word in ("--talk", f"{stream},91:e0:f0:00:02:{number:02x},{VLAN},A,1,1")))
        bed.station("swp2", *(word for stream in streams for word in ("--listen", stream)))

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

    def test_without_the_right_to_change_bridges_it_does_not_start(self):
        done = subprocess.run(["ip", "netns", "exec", self.bed.switch, "setpriv", "--bounding-set", "-net_admin",
                               "--inh-caps", "-net_admin", *self.bed.daemon_command()], check=False, timeout=10,
                              stderr=subprocess.PIPE, text=True)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, "^msrpd: cannot change the bridge: .*CAP_NET_ADMIN\\)\n$")

    def test_a_daemon_that_is_killed_leaves_no_gap_and_nothing_stale(self):
        bed = self.bed
        daemon = bed.daemon()
        streams = [f"0x{0x200000002010000 + number:X}" for number in MANY]
        address = [f"91:e0:f0:00:{number >> 8:02x}:{number & 255:02x}" for number in MANY]
        bed.station("swp1", *(word for stream, da in zip(streams, address)
                              for word in ("--talk", f"{stream},{da},{VLAN},A,1,1")))
        listen = [word for stream in streams for word in ("--listen", stream)]
        bed.station("swp2", *listen[:200])
        other = bed.station("swp3", *listen[:200])

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
        stale = None
        while time.monotonic() < begun + answers + 2.0:
            self.traffic["swp1"].say("send", address[0], self.sent, 20)
            self.sent += 20
            if stale is None and forwarded("swp3") == 0:
                stale = time.monotonic() - begun
        print(f"1,000 groups: stale entries gone {stale or -1:.1f} s after the restart, which took {answers:.1f} s; "
              f"{self.sent} frames sent meanwhile")
        self.assertIsNotNone(stale, "stale entries stay")
        self.assertEqual(self.traffic["swp2"].say("count", address[0]), self.sent, "frames are missing")
        self.assertEqual(forwarded("swp2"), 100)


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("skipped: needs root")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
