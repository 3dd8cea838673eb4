#!/usr/bin/env python3
"""recovery_e2e.py BUILD: what becomes of reservations when programs die and cables are pulled, on real ports.

Needs root; exit code 77 without.
"""
import pathlib
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, VLAN, Testbed, main  # noqa: E402

STREAMS = [f"0x{0x200000002010000 + number:X}" for number in range(1, 51)]
TALK = [f"--talk={stream},91:e0:f0:00:01:{int(stream, 16) & 0xff:02x},{VLAN},A,100,1" for stream in STREAMS]
LISTEN = [f"--listen={stream}" for stream in STREAMS]
LEAVE_ALL, LEAVE = 2.0, 0.6  # seconds


class Recovery(unittest.TestCase):
    """A talker behind swp1, a listener behind swp2 and swp3 each, 50 streams, all of them reserved."""

    def setUp(self):
        bed = self.bed = self.enterContext(Testbed(BUILD))
        self.daemon = self.start()
        self.talker = bed.station("swp1", *TALK)
        self.listeners = {port: bed.station(port, *LISTEN) for port in ("swp2", "swp3")}
        self.bed.wait(self.all_reserved, 10, "not all streams are reserved")

    def start(self):
        return self.bed.daemon(self.bed.config() | {"mrp/config": {"leaveAllTime": int(1000 * LEAVE_ALL),
                                                                   "leaveTime": int(1000 * LEAVE)}})

    def carriers(self):
        return {stream: [port for port, state in report["ports"].items() if state["carried"]]
                for stream, report in self.bed.read("show", "streams").items()}

    def all_reserved(self, ports=("swp2", "swp3")):
        return self.carriers() == {stream: list(ports) for stream in STREAMS}

    def test_a_talker_that_is_killed_disappears_within_a_leave_all_round(self):
        self.talker.kill()
        took = self.bed.wait(lambda: all(not stream["from"] for stream in self.bed.read("show", "streams").values()),
                          1.5 * LEAVE_ALL + LEAVE + 1, "the dead talker's streams stay")
        for listener in self.listeners.values():
            listener.kill()
        gone = self.bed.wait(lambda: self.bed.read("show", "streams") == {}, 1.5 * LEAVE_ALL + LEAVE + 1,
                          "streams stay that nobody wants")
        print(f"dead talker gone after {took:.1f} s, dead listeners after another {gone:.1f} s")
        # A quarter of a second is for msrpctl itself and the reviews.
        self.assertLess(took, 1.5 * LEAVE_ALL + LEAVE + 0.25)
        self.assertEqual(self.bed.read("get", "bridging/input/config/msrp/fdbConfig"), {})
        self.assertEqual(self.bed.read("get", "qos/input/config/msrp/intfConfig"), {})

    def test_a_link_flap_brings_all_streams_back(self):
        for port in ("swp2", "swp1"):
            self.bed.link(port, "down")
            self.bed.wait(lambda: not self.all_reserved(), 5, "nobody notices the link")
            self.bed.link(port, "up")
            took = self.bed.wait(self.all_reserved, 10, "not all streams come back")
            print(f"{port}: reserved again {took:.1f} s after the link came back")

    def test_a_daemon_that_is_killed_and_started_again_finds_everything(self):
        self.daemon.kill()
        self.daemon.wait()
        # What happens meanwhile counts, too.
        self.listeners["swp3"].kill()
        self.start()
        # The daemon's first words on a port are a LeaveAll, which the peers answer.
        took = self.bed.wait(lambda: self.all_reserved(["swp2"]), 1.5 * LEAVE_ALL, "not all streams come back")
        print(f"reserved again {took:.1f} s after the restart")
        groups = self.bed.read("get", "bridging/input/config/msrp/fdbConfig")[str(VLAN)]["ethGroup"]
        self.assertEqual({tuple(group["intf"]) for group in groups.values()}, {("swp2",)})
        self.assertEqual(len(groups), len(STREAMS))
        # The peers' own LeaveAll rounds change nothing either.
        time.sleep(2 * LEAVE_ALL)
        self.assertTrue(self.all_reserved(["swp2"]))
        said = self.bed.said("swp1")
        for stream in STREAMS:
            heard = [line for line in said.splitlines() if line.startswith(f"listener {stream} ")]
            self.assertTrue(heard[-1].endswith("Ready"), heard)


# Sends MSRP frames of all kinds as fast as it can: joins, leaves and LeaveAlls of thousands of values, and noise.
FLOOD = """
import random, socket, struct
random.seed(1)
wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
wire.bind(("eth0", 0))
head = bytes.fromhex("0180c200000e") + bytes.fromhex("020000000299") + bytes.fromhex("22ea")
LENGTH = {1: 25, 2: 34, 3: 8, 4: 4}
def message(kind, count, event, leave_all):
    first = bytes([2]) + random.randbytes(5) + struct.pack(">H", random.randrange(60000))
    first = (first + bytes.fromhex("91e0f0") + random.randbytes(3) + bytes.fromhex("0002006400017000000000") + bytes(9))
    if kind == 4: first = bytes([6, 3, 0, 2])
    events = bytes([event * 43]) * -(-count // 3) + (bytes([0xAA]) * -(-count // 4) if kind == 3 else b"")
    body = struct.pack(">H", count + (8192 if leave_all else 0)) + first[:LENGTH[kind]] + events + bytes(2)
    return bytes([kind, LENGTH[kind]]) + struct.pack(">H", len(body)) + body
def frame():
    if random.random() < 0.1: return head + random.randbytes(random.randrange(46, 1500))
    kind = random.choice([1, 1, 2, 3, 3, 4])
    count = random.choice([1, 1, 20, 2000]) if kind != 4 else 1
    return head + bytes(1) + message(kind, count, random.choice([0, 1, 3, 3, 4, 5]), random.random() < 0.2) + bytes(2)
domains = head + bytes(1) + bytes.fromhex("04040009000205020002810000") + bytes(2) + bytes(40)
frames = [domains, *(frame() for _ in range(5000))]
while True:
    for octets in frames:
        try:
            wire.send(octets)
        except OSError:
            pass
"""


class Flood(unittest.TestCase):
    def test_other_ports_make_their_reservations_while_a_peer_floods(self):
        bed = self.enterContext(Testbed(BUILD, ports=4))
        daemon = bed.daemon()
        bed.spawn("flood", bed.station_of("swp4"), "python3", "-c", FLOOD)
        bed.wait(lambda: bed.received("swp4") > 20000, 30, "no flood")
        before = bed.received("swp4")
        begun = time.monotonic()
        bed.station("swp1", *TALK)
        for port in ("swp2", "swp3"):
            bed.station(port, *LISTEN)
        bed.wait(lambda: all(f"listener {stream} Ready\n" in bed.said("swp1") for stream in STREAMS), 10,
                 "not all streams are reserved")
        took = time.monotonic() - begun
        arrived = bed.received("swp4") - before
        memory = int(next(line.split()[1] for line in pathlib.Path(f"/proc/{daemon.pid}/status").read_text().splitlines()
                          if line.startswith("VmRSS")))
        print(f"50 streams reserved {took:.2f} s after the stations' start, while {arrived / took:.0f} frames a second "
              f"come in elsewhere; the daemon has {memory // 1024} MiB")
        self.assertLess(memory, 1024 * 1024, "with room for the sanitizers' own")
        reports = [line for line in bed.said("msrpd.log").splitlines() if "MRPDUs are dropped" in line]
        self.assertLessEqual(len(reports), 3, "at most one in ten seconds")


if __name__ == "__main__":
    main()
