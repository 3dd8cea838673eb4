#!/usr/bin/env python3
"""emulated_e2e.py BUILD: what a switch does on a kernel with VLAN filtering and shaping by credits, but without marks
of who made a group.

Boots an emulated machine and goes through everything inside.  That takes minutes, so exit code 77 unless the
environment has MSRP_EMULATE=1.
"""
import json
import os
import pathlib
import subprocess
import sys
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts"))
from testbed import DESTINATION, STREAM, VLAN, Testbed  # noqa: E402
from traffic import Counter, Sender, measure  # noqa: E402

BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()
STREAM_B, DESTINATION_B = f"0x{int(STREAM, 16) + 1:X}", "91:e0:f0:00:00:02"
# One octet in each interval, 42 around it: (1 + 42) * 8 * 8000 bit/s, and half of that.  Little, so that this machine
# can offer more.
TALK = [f"{STREAM},{DESTINATION},{VLAN},A,1,1", f"{STREAM_B},{DESTINATION_B},{VLAN},B,1,1"]
RESERVED = {3: 2_752_000, 2: 1_376_000}
OFFERED = {3: 6e6, 2: 4e6, 0: 4e6}
OTHERS = "91:e0:f0:00:00:77"
PATIENCE = 60  # seconds


class Switch(Testbed):
    """A bridge that filters VLANs."""

    def __init__(self):
        super().__init__(BUILD, bridge="br0", queues=4)

    def make_bridge(self):
        self.switch_ip("link", "add", self.bridge, "up", "type", "bridge", "vlan_filtering", "1")

    def cable(self, port):
        super().cable(port)
        self.vlan("add", port)

    def vlan(self, verb, port):
        subprocess.run(["bridge", "-n", self.switch, "vlan", verb, "dev", port, "vid", str(VLAN)], check=True)

    def config(self):
        return super().config() | {"msrp/cliConfig": {"srClassBBandwidthPercent": 25}}

    def groups(self):
        """{(address, VLAN): [port, ...]}, as the kernel has them."""
        done = subprocess.run(["bridge", "-n", self.switch, "-j", "mdb", "show"], text=True, check=True,
                              stdout=subprocess.PIPE)
        groups = {}
        for entry in (json.loads(done.stdout) or [{}])[0].get("mdb", []):
            if entry["grp"].startswith("91:"):
                groups.setdefault((entry["grp"], entry["vid"]), []).append(entry["port"])
        return groups

    def until_groups(self, port, why):
        """Where both streams go; to the talker's own port, which is to nobody, when they may go nowhere."""
        self.wait(lambda: [self.groups().get((mac, VLAN)) for mac in (DESTINATION, DESTINATION_B)]
                  == [[port], [port]], PATIENCE, why)


class Reservations(unittest.TestCase):
    def setUp(self):
        bed = self.bed = self.enterContext(Switch())
        self.daemon = bed.daemon()
        bed.station("swp1", *(word for talk in TALK for word in ("--talk", talk)))
        self.listener = bed.station("swp2", "--listen", STREAM, "--listen", STREAM_B)
        bed.until_groups("swp2", "the streams are not forwarded")

    def test_classes_get_what_they_reserved(self):
        bed = self.bed
        self.assertEqual(bed.read("get", "linux/capabilities/shaping/swp2/shaper"), "software")
        with Sender(bed.station_of("swp1"), "eth0", DESTINATION, OFFERED, VLAN) as sender, \
                Counter(bed.station_of("swp2"), "eth0") as counter:
            rates = measure(sender, counter, 10, settle=2)
        print({priority: f"{rates.arrived[priority] / 1e6:.3f} of {rates.offered[priority] / 1e6:.3f} Mbit/s"
               for priority in OFFERED})
        for priority, reserved in RESERVED.items():
            self.assertGreater(rates.offered[priority], 1.2 * reserved, "the machine is too slow for this test")
            # The kernel does not count the four octets of a tag.
            shaped = reserved * sender.octets / (sender.octets - 4)
            self.assertAlmostEqual(rates.arrived[priority], shaped, delta=0.05 * shaped)
        self.assertAlmostEqual(rates.arrived[0], rates.offered[0], delta=0.05 * rates.offered[0])

    def test_streams_stay_in_their_vlan(self):
        bed = self.bed
        self.assertEqual(bed.groups().keys(), {(DESTINATION, VLAN), (DESTINATION_B, VLAN)})
        tagged = {vlan: [port["tagged"] for port in fields["intf"].values()]
                  for vlan, fields in bed.read("get", "bridging/config/vlanConfig").items()}
        self.assertEqual(tagged, {"1": [False] * 3, str(VLAN): [True] * 3})
        bed.vlan("del", "swp2")
        bed.until_groups("swp1", "a port that left the VLAN still gets streams")
        bed.vlan("add", "swp2")
        bed.until_groups("swp2", "a port that came back gets no streams")
        self.assertEqual(bed.shown("audit"), "records and kernel agree\n")

    def test_a_restarted_daemon_knows_its_own_groups(self):
        bed = self.bed
        subprocess.run(["bridge", "-n", bed.switch, "mdb", "add", "dev", bed.bridge, "port", "swp3", "grp", OTHERS,
                        "permanent", "vid", str(VLAN)], check=True)
        self.daemon.kill()
        self.daemon.wait()
        self.listener.kill()
        bed.daemon()
        bed.until_groups("swp1", "entries of the killed daemon stay")
        self.assertEqual(bed.groups()[OTHERS, VLAN], ["swp3"])


class Emulated(unittest.TestCase):
    def test_the_doctor_knows_this_kernel(self):
        done = subprocess.run([sys.executable, TOP / "tests/ports/doctor_e2e.py", BUILD], check=False, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    if "--inside" in sys.argv:
        unittest.main(argv=sys.argv[:1] + [word for word in sys.argv[2:] if word != "--inside"])
    if os.environ.get("MSRP_EMULATE") != "1":
        print("skipped: takes minutes; MSRP_EMULATE=1 runs it")
        sys.exit(77)
    sys.exit(subprocess.run([TOP / "scripts/emulate", "--time", "1100", sys.executable, __file__, BUILD, "--inside",
                             *sys.argv[2:]], check=False).returncode)
