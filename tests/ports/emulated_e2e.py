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
from testbed import BUILD, DESTINATION, STREAM, VLAN, Testbed, tshark  # noqa: E402

STREAM_B, DESTINATION_B = f"0x{int(STREAM, 16) + 1:X}", "91:e0:f0:00:00:02"
TALK = [f"--talk={STREAM},{DESTINATION},{VLAN},A,1,1", f"--talk={STREAM_B},{DESTINATION_B},{VLAN},B,1,1"]
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
        self.tool(f"bridge vlan {verb} dev {port} vid {VLAN}")

    def config(self):
        return super().config() | {"msrp/cliConfig": {"srClassBBandwidthPercent": 25}}

    def groups(self):
        """{(address, VLAN): [port, ...]}, as the kernel has them."""
        groups = {}
        for entry in self.multicast_entries("91:"):
            groups.setdefault((entry["grp"], entry.get("vid", 0)), []).append(entry["port"])
        return groups

    def until_groups(self, port, why):
        """Where both streams go; to the talker's own port, which is to nobody, when they may go nowhere."""
        self.wait(lambda: [self.groups().get((mac, VLAN)) for mac in (DESTINATION, DESTINATION_B)]
                  == [[port], [port]], PATIENCE, why)


class Reservations(unittest.TestCase):
    def setUp(self):
        bed = self.bed = self.enterContext(Switch())
        self.daemon = bed.daemon()
        bed.station("swp1", *TALK)
        self.listener = bed.station("swp2", "--listen", STREAM, "--listen", STREAM_B)
        bed.until_groups("swp2", "the streams are not forwarded")

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

    def test_a_blocked_vlan_costs_its_own_streams_alone(self):
        bed = self.bed
        bed.tool("bridge vlan add dev swp2 vid 3")
        bed.tool("bridge vlan set dev swp2 vid 3 state blocking")
        bed.tool(f"bridge vlan set dev swp2 vid {VLAN} state blocking")
        bed.until_groups("swp1", "a port that blocks the VLAN still gets streams")
        ports = [stream["ports"] for stream in bed.read("show", "streams").values()]
        self.assertIn("VLAN is blocked", ports[0]["swp2"]["reason"])
        bed.tool(f"bridge vlan set dev swp2 vid {VLAN} state forwarding")
        bed.until_groups("swp2", "a port that blocks another VLAN gets no streams")

    def test_filtering_may_be_switched_while_streams_run(self):
        bed = self.bed

        def filtering(on):
            bed.switch_ip("link", "set", bed.bridge, "type", "bridge", "vlan_filtering", on)

        def everywhere(port, vlan):
            return {(mac, vlan): [port] for mac in (DESTINATION, DESTINATION_B)}

        filtering("0")
        bed.wait(lambda: bed.groups() == everywhere("swp2", 0), PATIENCE, "entries for VLANs stay without filtering")
        filtering("1")
        bed.until_groups("swp2", "the streams are not forwarded in their VLAN")
        self.listener.terminate()
        bed.until_groups("swp1", "a listener that left still gets streams")
        # Nothing deletes them by name now, and what stays is told.
        self.assertIn("it stays until the bridge does not filter VLANs", bed.control("audit").stdout)
        filtering("0")
        bed.wait(lambda: bed.groups() == everywhere("swp1", 0), PATIENCE, "a listener that left gets streams again")

    def test_a_restarted_daemon_knows_its_own_groups(self):
        bed = self.bed
        bed.tool(f"bridge mdb add dev {bed.bridge} port swp3 grp {OTHERS} permanent vid {VLAN}")
        self.daemon.kill()
        self.daemon.wait()
        self.listener.kill()
        bed.daemon()
        bed.until_groups("swp1", "entries of the killed daemon stay")
        self.assertEqual(bed.groups()[OTHERS, VLAN], ["swp3"])


    def filters(self, port):
        """The priorities that filters of incoming frames on a port look for, or nothing without a place for them."""
        if "clsact" not in self.bed.tool(f"tc qdisc show dev {port}"):
            return None
        rules = json.loads(self.bed.tool(f"tc -j filter show dev {port} ingress"))
        return sorted(rule["options"]["keys"]["vlan_prio"] for rule in rules if "keys" in rule.get("options", {}))

    def test_filters_of_others_stay_and_the_place_of_a_killed_life_goes(self):
        bed = self.bed
        bed.wait(lambda: [self.filters(port) for port in bed.ports] == [[2, 3]] * 3, PATIENCE, "no filters")
        bed.tool("tc filter add dev swp3 ingress pref 33 protocol 802.1Q handle 3 flower vlan_prio 5 action skbedit "
                 "priority 5")
        self.daemon.kill()
        self.daemon.wait()
        daemon = bed.daemon()
        bed.until_groups("swp2", "the streams are not forwarded again")
        self.assertEqual(bed.shown("audit"), "records and kernel agree\n")
        daemon.terminate()
        daemon.wait()
        self.assertEqual([self.filters(port) for port in bed.ports], [None, None, [5]])


class Vlans(unittest.TestCase):
    """Stations whose kernels ask for VLANs: an applicant that is none of ours, judged by another decoder."""

    def setUp(self):
        bed = self.bed = self.enterContext(Switch())
        for port in bed.ports[1:]:
            bed.vlan("del", port)
        self.frames = bed.directory / "frames"
        self.capture = bed.dumpcap("ether proto 0x88f5", self.frames)
        self.addCleanup(self.capture.kill)
        self.daemon = bed.daemon(bed.config() | {"mvrp/config": {"intfEnable": {port: True for port in bed.ports}}})

    def station(self, port, *arguments):
        self.bed._ip("-n", self.bed.station_of(port), "link", *arguments)

    def carried(self, port):
        return [entry["vlan"] for entry in json.loads(self.bed.tool(f"bridge -j vlan show dev {port}"))[0]["vlans"]]

    def until_carried(self, port, *vlans):
        self.bed.wait(lambda: self.carried(port) == list(vlans), PATIENCE, f"{port} does not carry {vlans}")

    def test_a_listener_gets_its_stream_with_the_vlan_that_its_kernel_asks_for(self):
        bed = self.bed
        bed.station("swp1", *TALK)
        bed.station("swp2", "--listen", STREAM)
        bed.wait(lambda: "code 17" in bed.said("swp2"), PATIENCE, "the stream does not fail for want of its VLAN")
        self.station("swp2", "add", "link", "eth0", "name", "vlan2", "up", "type", "vlan", "id", str(VLAN), "mvrp", "on")
        self.station("swp3", "add", "link", "eth0", "name", "vlan9", "up", "type", "vlan", "id", "9", "mvrp", "on")
        self.until_carried("swp2", 1, VLAN)
        bed.wait(lambda: bed.carriers() == ["swp2"], PATIENCE, "the stream is not carried")
        bed.wait(lambda: bed.read("show", "vlans")["swp3"]["refused"] == "9", PATIENCE, "VLAN 9 is not refused")
        self.assertEqual(self.carried("swp3"), [1])
        self.assertEqual(bed.shown("audit"), "records and kernel agree\n")
        # Who is killed comes back to what it has given.
        self.daemon.kill()
        self.daemon.wait()
        self.daemon = bed.daemon(bed.config() | {"mvrp/config": {"intfEnable": {port: True for port in bed.ports}}})
        bed.wait(lambda: bed.read("show", "vlans")["swp2"]["registered"] == str(VLAN), PATIENCE, "it is not asked for")
        self.assertEqual(self.carried("swp2"), [1, VLAN])
        self.station("swp2", "del", "vlan2")
        self.until_carried("swp2", 1)
        bed.wait(lambda: bed.carriers() == [], PATIENCE, "the stream is still carried")
        self.station("swp2", "add", "link", "eth0", "name", "vlan2", "up", "type", "vlan", "id", str(VLAN), "mvrp", "on")
        self.until_carried("swp2", 1, VLAN)
        self.daemon.terminate()
        self.daemon.wait()
        self.until_carried("swp2", 1)
        self.capture.terminate()
        self.capture.wait()
        seen = tshark(self.frames, "-T", "fields", "-e", "eth.src", "-e", "mrp-mvrp.three_packed_event",
                      "-e", "_ws.expert").splitlines()
        self.assertGreater(len(seen), 10)
        self.assertEqual([line for line in seen if line.split("\t")[2]], [], "frames with faults")


class Modules(unittest.TestCase):
    def test_the_doctors_cure_reaches_the_running_daemon(self):
        subprocess.run(["modprobe", "-r", "sch_cbs"], check=False)
        blocked = pathlib.Path("/etc/modprobe.d/blocked.conf")
        blocked.write_text("install sch_cbs /bin/false\n", encoding="utf-8")
        self.addCleanup(blocked.unlink, missing_ok=True)
        bed = self.enterContext(Switch())
        bed.daemon()
        self.assertEqual(bed.read("get", "linux/capabilities/cbs"), "absent")
        subprocess.run(["modprobe", "-i", "sch_cbs"], check=True)
        bed.wait(lambda: bed.read("get", "linux/capabilities/cbs") == "present", PATIENCE, "the module is not noticed")


class Emulated(unittest.TestCase):
    def test_what_other_kernels_can_is_the_same_here(self):
        for name in ("doctor", "shaping", "fence"):
            done = subprocess.run([sys.executable, TOP / f"tests/ports/{name}_e2e.py", BUILD], check=False, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            print(done.stdout)
            self.assertEqual(done.returncode, 0, name)
            self.assertNotIn("skipped", done.stdout)


if __name__ == "__main__":
    if "--inside" in sys.argv:
        unittest.main(argv=sys.argv[:1] + [word for word in sys.argv[2:] if word != "--inside"])
    if os.environ.get("MSRP_EMULATE") != "1":
        print("skipped: takes minutes; MSRP_EMULATE=1 runs it")
        sys.exit(77)
    sys.exit(subprocess.run([TOP / "scripts/emulate", "--time", "1100", sys.executable, __file__, BUILD, "--inside",
                             *sys.argv[2:]], check=False).returncode)
