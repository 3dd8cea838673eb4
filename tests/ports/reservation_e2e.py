#!/usr/bin/env python3
"""reservation_e2e.py BUILD: the programs on real (virtual Ethernet) ports, seen by an independent decoder.

Needs root and tshark; exit code 77 without them.
"""
import os
import pathlib
import shutil
import subprocess
import sys
import time
import unittest
import xml.etree.ElementTree

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import DESTINATION, STREAM, STREAM_KBPS, TALK, VLAN, Testbed  # noqa: E402

BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()
# A second stream of the same talker, for which no gigabit port has room: 8000 x 10 x 1542 octets a second.
GREEDY = "0x200000002010002"
GREEDY_DESTINATION = "91:e0:f0:00:00:02"
GREEDY_TALK = f"{GREEDY},{GREEDY_DESTINATION},{VLAN},A,1500,10"
JOINS = {"New", "JoinIn", "JoinMt"}
EVENTS = ["New", "JoinIn", "In", "JoinMt", "Mt", "Lv"]
DECLARATIONS = ["Ignore", "AskingFailed", "Ready", "ReadyFailed"]
TALKER_ADVERTISE, TALKER_FAILED, LISTENER, DOMAIN = 1, 2, 3, 4


class Capture:
    """All MSRP frames on the switch's ports."""

    def __init__(self, bed):
        self.bed = bed
        self.file = bed.directory / "capture.pcapng"
        ports = [argument for port in bed.ports for argument in ("-i", port)]
        self.process = bed.spawn("dumpcap", bed.switch, "dumpcap", "-q", "-f", "ether proto 0x22ea", *ports, "-w",
                                 self.file)
        bed.wait(lambda: "File:" in bed.said("dumpcap"), 10, "no capture has begun")

    def stop(self):
        self.process.terminate()
        self.process.wait()

    def tshark(self, *arguments):
        return subprocess.run(["tshark", "-r", self.file, *arguments], check=True, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout

    def said(self):
        """What was said, in the order of time: one dictionary for each attribute event."""
        events = []
        for packet in xml.etree.ElementTree.fromstring(self.tshark("-Y", "mrp-msrp", "-T", "pdml")):
            events += self.events_of(packet)
        return sorted(events, key=lambda event: event["time"])

    @staticmethod
    def events_of(packet):
        def fields(node, name):
            return [field.get("show") for field in node.iter("field") if field.get("name") == name]

        source, = fields(packet, "eth.src")
        base = {"time": float(fields(packet, "frame.time_epoch")[0]), "from": source,
                "port": fields(packet, "frame.interface_name")[0]}
        for message in packet.iter("field"):
            if message.get("name") != "mrp-msrp.message":
                continue
            kind = int(fields(message, "mrp-msrp.attribute_type")[0])
            for vector in message.iter("field"):
                if vector.get("name") != "mrp-msrp.vector_attribute":
                    continue
                first = {field.get("name").removeprefix("mrp-msrp."): field.get("show")
                         for field in vector.iter("field")}
                declarations = fields(vector, "mrp-msrp.four_packed_event")
                for number, event in enumerate(fields(vector, "mrp-msrp.three_packed_event")):
                    said = {**base, "type": kind, "event": EVENTS[int(event)], "offset": number, "value": first}
                    if kind == LISTENER:
                        said["declaration"] = DECLARATIONS[int(declarations[number])]
                    yield said


def stream_of(said):
    """The stream that an event is about: the first one of its vector, counted on."""
    return int(said["value"]["stream_id"], 16) + said["offset"]


class Reservation(unittest.TestCase):
    """One life of a switch with three ports, from its start to its end; the tests look at what remains."""

    @classmethod
    def setUpClass(cls):
        bed = cls.bed = cls.enterClassContext(Testbed(BUILD))
        cls.talker_port, *cls.listener_ports = bed.ports
        capture = Capture(bed)
        daemon = bed.daemon()
        bed.station(cls.listener_ports[0], "--listen", STREAM, "--listen", GREEDY)
        bed.station(cls.listener_ports[1], "--listen", STREAM)
        bed.wait(lambda: all(bed.read("show", "domain")[port]["A"]["state"] == "Core" for port in cls.listener_ports),
                 10, "the listeners' ports are not in the domain")
        # A port speaks at most three times in 300 ms (802.1Q 10.7.4.1).  What it has to say at its start shall not
        # count against what is measured: Asking Failed, Ready Failed and Ready, as the listeners answer.
        time.sleep(0.5)
        bed.station(cls.talker_port, "--talk", TALK, "--talk", GREEDY_TALK)
        bed.wait(lambda: bed.carriers() == cls.listener_ports, 10, "no reservation")
        bed.wait(lambda: f"listener {STREAM} Ready\n" in bed.said(cls.talker_port), 10, "the talker hears no Ready")
        bed.wait(lambda: f"talker {GREEDY} failed" in bed.said(cls.listener_ports[0]), 10, "the greedy one is let in")
        groups = bed.read("get", "bridging/input/config/msrp/fdbConfig")[str(VLAN)]["ethGroup"]
        cls.groups = {address: sorted(group["intf"]) for address, group in groups.items()}
        cls.ports = bed.read("get", "msrp/status/intfStatus")
        cls.streams = bed.shown("show", "streams")
        cls.engine = bed.shown("show", "mrp", cls.talker_port)
        cls.engines = bed.read("show", "mrp")
        cls.told = time.time()
        daemon.terminate()
        cls.exit_code = daemon.wait(10)
        bed.wait(lambda: f"listener {STREAM} gone\n" in bed.said(cls.talker_port), 10, "the talker hears no Leave")
        for port in cls.listener_ports:
            bed.wait(lambda p=port: f"talker {STREAM} gone\n" in bed.said(p), 10, "a listener hears no Leave")
        capture.stop()
        cls.flaws = capture.tshark("-Y", "_ws.malformed || _ws.expert")
        cls.said = capture.said()

    def daemon_said(self, port, **which):
        """What the daemon said on a port, in the order of time."""
        return [said for said in self.said
                if said["from"] == self.bed.address(port) and which.items() <= said.items()]

    def joined(self, **which):
        """When all of that was first declared, by whomever."""
        return min(said["time"] for said in self.said
                   if said["event"] in JOINS and which.items() <= said.items())

    def test_group_holds_exactly_the_listeners_ports(self):
        self.assertEqual(self.groups[DESTINATION], self.listener_ports)
        self.assertFalse(set(self.groups.get(GREEDY_DESTINATION, [])) & set(self.listener_ports))

    def test_bandwidth_is_reserved_on_the_listeners_ports_only(self):
        self.assertEqual({port: state["classBandwidthAllocated"]["SrClassA"] for port, state in self.ports.items()},
                         {self.talker_port: 0} | {port: STREAM_KBPS for port in self.listener_ports})

    def test_table_says_why_the_greedy_stream_is_not_carried(self):
        self.assertIn("not to swp2: insufficient bandwidth (found by this bridge)", self.streams)

    def test_engine_is_shown_with_the_states_of_each_attribute(self):
        rows = {tuple(line.split()[:-4]) for line in self.engine.splitlines() if "02:00:00:00:02:01/" in line}
        self.assertIn(("Talker", "Advertise", "02:00:00:00:02:01/1", "VO", "IN", "-"), rows)
        self.assertIn(("Listener", "02:00:00:00:02:01/1"), {row[:2] for row in rows})
        self.assertRegex(self.engine, r"frames +[1-9]\d* received, [1-9]\d* sent, 0 dropped, 0 by the kernel")
        self.assertEqual({port: engine["registered"] for port, engine in self.engines.items()},
                         {self.talker_port: 4, self.listener_ports[0]: 4, self.listener_ports[1]: 3})

    def test_decoder_finds_no_fault_in_any_frame(self):
        self.assertEqual(self.flaws, "")
        self.assertGreater(len(self.said), 0)

    def test_talker_advertise_arrives_unchanged(self):
        for port in self.listener_ports:
            value = self.daemon_said(port, type=TALKER_ADVERTISE)[0]["value"]
            self.assertEqual({name: value[name] for name in (
                "stream_id", "stream_da", "vlan_id", "tspec_max_frame_size", "tspec_max_interval_frames", "priority",
                "rank")}, {
                    "stream_id": f"0x{int(STREAM, 16):016x}", "stream_da": DESTINATION, "vlan_id": "0x0002",
                    "tspec_max_frame_size": "100", "tspec_max_interval_frames": "1", "priority": "3", "rank": "1"})

    def test_talker_failed_names_bridge_and_reason(self):
        value = self.daemon_said(self.listener_ports[0], type=TALKER_FAILED)[0]["value"]
        self.assertEqual((value["stream_id"], value["failure_bridge_id"], value["failure_code"]),
                         (f"0x{int(GREEDY, 16):016x}", "0x8000020000000001", "1"))

    def test_domains_of_both_classes_are_declared(self):
        for port in self.bed.ports:
            said = self.daemon_said(port, type=DOMAIN)[0]["value"]
            self.assertEqual((said["number_of_values"], said["sr_class_id"], said["sr_class_priority"],
                              said["sr_class_vid"]), ("2", "5", "2", "2"))

    def test_talker_hears_ready_in_the_end_and_soon(self):
        heard = [said for said in self.daemon_said(self.talker_port, type=LISTENER)
                 if said["event"] in JOINS and stream_of(said) == int(STREAM, 16)]
        self.assertEqual(heard[-1]["declaration"], "Ready")
        ready = next(said["time"] for said in heard if said["declaration"] == "Ready")
        last = max(self.joined(port=port, type=LISTENER, declaration="Ready") for port in self.listener_ports)
        since_talker = ready - self.joined(port=self.talker_port, type=TALKER_ADVERTISE)
        print(f"Listener Ready {1e3 * (ready - last):.1f} ms after the last declaration, "
              f"{1e3 * since_talker:.1f} ms after the talker's")
        self.assertTrue(0 < ready - last < 0.05, ready - last)

    def test_daemon_withdraws_what_it_declared_and_ends_well(self):
        self.assertEqual(self.exit_code, 0)
        for port in self.bed.ports:
            kinds = {said["type"] for said in self.daemon_said(port, event="Lv") if said["time"] > self.told}
            expected = {self.talker_port: {LISTENER, DOMAIN},
                        self.listener_ports[0]: {TALKER_ADVERTISE, TALKER_FAILED, DOMAIN},
                        self.listener_ports[1]: {TALKER_ADVERTISE, DOMAIN}}
            self.assertEqual(kinds, expected[port], port)


class Troubles(unittest.TestCase):
    """What the daemon says to an operator when it cannot do what it is told."""

    def setUp(self):
        self.bed = self.enterContext(Testbed(BUILD, ports=1))

    def refused(self, code, line, *command):
        """Runs a command that must end with that exit code and one line that holds all of these pieces."""
        done = subprocess.run(["ip", "netns", "exec", self.bed.switch, *command], capture_output=True, text=True,
                              timeout=20, check=False, env={**os.environ, "RINGLOGDIR": str(self.bed.directory)})
        self.assertEqual(done.returncode, code, done.stderr)
        self.assertEqual(done.stderr.count("\n"), 1, done.stderr)
        for piece in line:
            self.assertIn(piece, done.stderr)

    def test_bad_configuration_is_named(self):
        file = self.bed.directory / "bad.json"
        command = [BUILD / "msrpd", "--config", file, "--socket", self.bed.socket]
        self.refused(2, [str(file)], *command)
        for text, pieces in {'{"msrp/cliConfig": ': [],
                             '{"msrp/clownConfig": {}}': ["msrp/clownConfig"],
                             '{"msrp/cliConfig": {"srClassAPriority": 9}}': ["srClassAPriority", "9"],
                             '{"msrp/config": {"intfEnable": {"swp1": 1}}}': ["intfEnable", "swp1"]}.items():
            file.write_text(text, encoding="utf-8")
            self.refused(2, [str(file), *pieces], *command)

    def test_wrong_usage_is_named(self):
        self.refused(2, ["--config"], BUILD / "msrpd")
        self.refused(2, ["--clown"], *self.bed.daemon_command(), "--clown")
        station = [BUILD / "msrp-station", "--interface", "eth0"]
        self.refused(2, ["--talk", "VLAN", "4095"], *station, "--talk", TALK.replace(f",{VLAN},", ",4095,"))
        self.refused(2, ["--listen", "clown"], *station, "--listen", "clown")

    def test_missing_privileges_are_named(self):
        without = ["setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw"]
        self.refused(1, ["CAP_NET_RAW"], *without, *self.bed.daemon_command())
        self.refused(1, ["CAP_NET_RAW"], *without, BUILD / "msrp-station", "--interface", "eth0", "--watch")

    def test_socket_in_use_is_named_and_stays_with_its_owner(self):
        self.bed.daemon()
        self.refused(1, [str(self.bed.socket)], *self.bed.daemon_command())
        self.assertEqual(self.bed.control("list").returncode, 0)

    def test_missing_interface_is_waited_for(self):
        config = self.bed.config()
        config["msrp/config"]["intfEnable"]["late1"] = True
        self.bed.daemon(config)
        self.bed.wait(lambda: "late1 does not exist yet" in self.bed.said("msrpd.log"), 5, "no word of late1")
        subprocess.run(["ip", "-n", self.bed.switch, "link", "add", "late1", "up", "type", "veth", "peer", "name",
                        "late2"], check=True)
        subprocess.run(["ip", "-n", self.bed.switch, "link", "set", "late2", "up"], check=True)
        self.bed.wait(lambda: self.bed.read("show", "ports")["late1"]["link"] == "up", 5, "late1 is not taken up")

    def test_programs_do_not_leave_the_socket_behind(self):
        daemon = self.bed.daemon()
        daemon.terminate()
        self.assertEqual(daemon.wait(10), 0)
        self.assertFalse(self.bed.socket.exists())


if __name__ == "__main__":
    if os.geteuid() != 0 or not shutil.which("tshark"):
        print("skipped: needs root and tshark")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
