#!/usr/bin/env python3
"""reservation_e2e.py BUILD: the programs on real (virtual Ethernet) ports, seen by an independent decoder.

Needs root and tshark; exit code 77 without them.
"""
import json
import os
import pathlib
import signal
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, DESTINATION, STREAM, STREAM_KBPS, TALK, VLAN, Testbed, main, tshark  # noqa: E402

# A second stream of the same talker, for which no gigabit port has room: 8000 x 10 x 1542 octets a second.
GREEDY = "0x200000002010002"
GREEDY_DESTINATION = "91:e0:f0:00:00:02"
GREEDY_TALK = f"{GREEDY},{GREEDY_DESTINATION},{VLAN},A,1500,10"
READY, LEAVE = 2, 5  # declaration and event
RECEIVED, SENT = 1, 2


def frames(file):
    """Direction (0 where the file does not tell), octets in hexadecimal, time and port of each frame."""
    found = []
    for packet in json.loads(tshark(file, "-T", "json", "-x")):
        layers = packet["_source"]["layers"]
        flags = layers["frame"].get("frame.packet_flags_tree", {}).get("frame.packet_flags_direction", "0")
        found.append((int(flags, 0), layers["frame_raw"][0], float(layers["frame"]["frame.time_epoch"]),
                      layers["frame"]["frame.interface_id_tree"]["frame.interface_name"]))
    return found


class Reservation(unittest.TestCase):
    """One life of a switch with three ports, from its start to its end, captured by `msrpctl` and by another
    program; the tests look at what remains."""

    @classmethod
    def setUpClass(cls):
        bed = cls.bed = cls.enterClassContext(Testbed(BUILD))
        cls.talker_port, *cls.listener_ports = bed.ports
        cls.reference = bed.directory / "reference"
        dumpcap = bed.dumpcap("ether proto 0x22ea", cls.reference)
        daemon = bed.daemon()
        cls.captures = {"one": cls.capture("one", "swp1", bed.directory / "one"),
                        "two": cls.capture("two", "swp2", "-"),
                        "three": cls.capture("three", "swp3", bed.directory / "three", "--count", "2"),
                        "last": cls.capture("last", "swp3", bed.directory / "last")}
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
        cls.groups = bed.read("get", "bridging/input/config/msrp/fdbConfig")[str(VLAN)]["ethGroup"]
        cls.ports = bed.read("get", "msrp/status/intfStatus")
        cls.streams = bed.shown("show", "streams")
        cls.engine = bed.shown("show", "mrp", cls.talker_port)
        cls.engines = bed.read("show", "mrp")
        cls.captures["one"].send_signal(signal.SIGINT)
        cls.captures["two"].send_signal(signal.SIGTERM)
        daemon.terminate()
        cls.exit_codes = {name: process.wait(10) for name, process in (cls.captures | {"daemon": daemon}).items()}
        for port, what in ((cls.talker_port, f"listener {STREAM}"), (cls.listener_ports[0], f"talker {GREEDY}"),
                           *((port, f"talker {STREAM}") for port in cls.listener_ports),
                           *((port, f"domain class {letter}") for port in bed.ports for letter in "AB")):
            bed.wait(lambda p=port, w=what: f"{w} gone\n" in bed.said(p), 5, f"{port} hears no Leave of {what}")
        cls.frames = {name: frames(bed.directory / name) for name in cls.captures}
        # The other program writes what it sees only now and then.
        bed.wait(lambda: all(cls.seen(frame, name) for name in ("one", "two") for frame in cls.frames[name]), 10,
                 "another program does not see the same frames")
        dumpcap.terminate()
        dumpcap.wait()

    @classmethod
    def capture(cls, name, port, file, *options):
        """Starts one and waits until it has begun."""
        process = cls.bed.spawn(f"{name}.log" if file != "-" else name, cls.bed.switch, BUILD / "msrpctl", "--socket",
                                cls.bed.socket, "capture", port, file, *options)
        path = cls.bed.directory / name
        cls.bed.wait(lambda: path.exists() and path.stat().st_size > 0, 10, f"no capture on {port}")
        return process

    @classmethod
    def seen(cls, frame, name):
        """Whether the other program has written a frame at least as often as it stands in a capture."""
        written = cls.reference.read_bytes().count(bytes.fromhex(frame[1]))
        return written >= [other[1] for other in cls.frames[name]].count(frame[1])

    def fields(self, condition, *names):
        """The fields of each frame that meets a condition, in the order of time; each is a list."""
        columns = [word for name in names for word in ("-e", name if "." in name else f"mrp-msrp.{name}")]
        lines = tshark(self.reference, "-Y", condition, "-T", "fields", *columns).splitlines()
        return [[column.split(",") for column in line.split("\t")] for line in lines]

    def first(self, port, condition, *names):
        """The same of the first frame in which the daemon said that on a port."""
        return self.fields(f"eth.src == {self.bed.address(port)} && mrp-msrp.{condition}", *names)[0]

    def test_group_and_bandwidth_are_those_of_the_listeners_ports(self):
        self.assertEqual({address: sorted(group["intf"]) for address, group in self.groups.items()
                          if set(group["intf"]) & set(self.listener_ports)}, {DESTINATION: self.listener_ports})
        self.assertEqual({port: state["classBandwidthAllocated"]["SrClassA"] for port, state in self.ports.items()},
                         {self.talker_port: 0} | {port: STREAM_KBPS for port in self.listener_ports})

    def test_tables_say_why_the_greedy_stream_is_not_carried_and_what_the_engine_knows(self):
        self.assertIn("not to swp2: insufficient bandwidth (found by this bridge)", self.streams)
        rows = {tuple(line.split()[:-4]) for line in self.engine.splitlines() if "02:00:00:00:02:01/" in line}
        self.assertIn(("Talker", "Advertise", "02:00:00:00:02:01/1", "VO", "IN", "-"), rows)
        self.assertIn(("Listener", "02:00:00:00:02:01/1"), {row[:2] for row in rows})
        self.assertRegex(self.engine, r"frames +[1-9]\d* received, [1-9]\d* sent, 0 dropped, 0 by the kernel")
        self.assertEqual({port: engine["registered"] for port, engine in self.engines.items()},
                         {self.talker_port: 4, self.listener_ports[0]: 4, self.listener_ports[1]: 3})

    def test_decoder_finds_no_fault_in_any_frame(self):
        self.assertEqual(tshark(self.reference, "-Y", "_ws.malformed || _ws.expert"), "")
        for name in self.captures:
            self.assertEqual(tshark(self.bed.directory / name, "-Y", "_ws.malformed || _ws.expert || !mrp-msrp"), "")

    def test_declarations_say_what_they_should(self):
        for port in self.listener_ports:
            said = self.first(port, f"stream_id == {STREAM}", "stream_id", "stream_da", "vlan_id", "tspec_max_frame_size",
                              "tspec_max_interval_frames", "priority", "rank")
            self.assertEqual([values[0] for values in said],
                             [f"0x{int(STREAM, 16):016x}", DESTINATION, "0x0002", "100", "1", "3", "1"])
        said = self.first(self.listener_ports[0], "failure_code > 0", "failure_bridge_id", "failure_code", "stream_id")
        self.assertEqual([values[-1] for values in said], ["0x8000020000000001", "1", f"0x{int(GREEDY, 16):016x}"])
        for port in self.bed.ports:
            said = self.first(port, "sr_class_id > 0", "sr_class_id", "sr_class_priority", "sr_class_vid", "number_of_values")
            self.assertEqual(([values[-1] for values in said]), ["5", "2", "2", "2"])

    def test_talker_hears_ready_soon(self):
        def ready(port, direction):
            times = self.fields(f"frame.interface_name == {port} && eth.src {direction} {self.bed.address(port)} && "
                                f"mrp-msrp.four_packed_event == {READY}", "frame.time_epoch")
            return float(times[0][0][0])

        took = ready(self.talker_port, "==") - max(ready(port, "!=") for port in self.listener_ports)
        print(f"Listener Ready {1e3 * took:.1f} ms after the last declaration")
        self.assertTrue(0 < took < 0.05, took)

    def test_each_direction_of_a_capture_holds_the_frames_that_another_program_sees(self):
        reference = frames(self.reference)
        for name, port in {"one": "swp1", "two": "swp2"}.items():
            ours = self.bed.address(port).replace(":", "")
            for direction in (RECEIVED, SENT):
                mine = [frame for frame in self.frames[name] if frame[0] == direction]
                others = [frame for frame in reference
                          if frame[3] == port and (frame[1][12:24] == ours) == (direction == SENT)]
                # The other program began earlier and ends later.
                first = [frame[1] for frame in others].index(mine[0][1])
                others = others[first:first + len(mine)]
                self.assertEqual([frame[1] for frame in mine], [frame[1] for frame in others])
                self.assertEqual({frame[3] for frame in mine}, {port})
                for frame, other in zip(mine, others):
                    self.assertAlmostEqual(frame[2], other[2], delta=0.5)

    def test_an_end_by_signal_or_count_is_a_good_one_and_that_of_the_daemon_ends_a_capture(self):
        self.assertEqual(self.exit_codes, {"one": 0, "two": 0, "three": 0, "last": 1, "daemon": 0})
        self.assertEqual(len(self.frames["three"]), 2)
        self.assertEqual([self.bed.said(f"{name}.log") for name in ("one", "three")], ["", ""])
        self.assertRegex(self.bed.said("last.log"), r"\Amsrpctl: .*closed it\n\Z")
        self.assertNotEqual("", tshark(self.bed.directory / "last", "-Y", f"frame.packet_flags_direction == {SENT} && "
                                       f"mrp-msrp.three_packed_event == {LEAVE}"))


class Troubles(unittest.TestCase):
    """What the programs say to an operator when they cannot do what they are told."""

    def setUp(self):
        self.bed = self.enterContext(Testbed(BUILD, ports=1))

    def refused(self, code, line, *command):
        """Runs a command that must end with that exit code and one line that holds all of these pieces."""
        done = subprocess.run(["ip", "netns", "exec", self.bed.switch, *command], capture_output=True, text=True,
                              timeout=20, check=False, env={**os.environ, "RINGLOGDIR": str(self.bed.directory)})
        self.assertEqual((done.returncode, done.stderr.count("\n")), (code, 1), done.stderr)
        for piece in line:
            self.assertIn(piece, done.stderr)

    def test_bad_configuration_is_named(self):
        file = self.bed.directory / "bad.json"
        command = [BUILD / "msrpd", "--config", file, "--socket", self.bed.socket]
        self.refused(2, [str(file)], *command)
        file.write_text('{"msrp/config": {"intfEnable": {"swp1": 1}}}', encoding="utf-8")
        self.refused(2, [str(file), "intfEnable", "swp1"], *command)

    def test_wrong_usage_and_missing_privileges_are_named(self):
        self.refused(2, ["--config"], BUILD / "msrpd", "--config")
        self.refused(2, ["--clown"], *self.bed.daemon_command(), "--clown")
        station = [BUILD / "msrp-station", "--interface", "eth0"]
        self.refused(2, ["--talk", "VLAN", "4095"], *station, "--talk", TALK.replace(f",{VLAN},", ",4095,"))
        self.refused(2, ["--listen", "clown"], *station, "--listen", "clown")
        without = ["setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw"]
        self.refused(1, ["CAP_NET_RAW"], *without, *self.bed.daemon_command())
        self.refused(1, ["CAP_NET_RAW"], *without, *station, "--watch")
        self.bed.bridge = "br0"
        self.refused(1, ["cannot change the bridge: ", "CAP_NET_ADMIN"], "setpriv", "--bounding-set=-net_admin",
                     "--inh-caps=-net_admin", *self.bed.daemon_command())

    def test_socket_in_use_stays_with_its_owner_and_a_missing_interface_is_waited_for(self):
        config = self.bed.config()
        config["msrp/config"]["intfEnable"]["late1"] = True
        daemon = self.bed.daemon(config)
        self.bed.wait(lambda: "late1 does not exist yet" in self.bed.said("msrpd.log"), 5, "no word of late1")
        self.bed.tool("ip link add late1 up type veth peer name late2")
        self.bed.tool("ip link set late2 up")
        self.bed.wait(lambda: self.bed.read("show", "ports")["late1"]["link"] == "up", 5, "late1 is not taken up")
        self.refused(1, [str(self.bed.socket)], *self.bed.daemon_command({"mrp/config": {}}))
        self.assertEqual(self.bed.control("list").returncode, 0)
        file = self.bed.directory / "none"
        for arguments, code, pieces in ((("swp9", file), 1, ["swp9"]),
                                        (("swp1", "/nowhere/file"), 1, ["/nowhere/file", "No such file"]),
                                        (("swp1", "/dev/full"), 1, ["/dev/full", "No space"]),
                                        (("swp1", file, "--count", "0"), 2, ["--count", "0"]),
                                        (("swp1",), 2, ["FILE"])):
            self.refused(code, pieces, BUILD / "msrpctl", "--socket", self.bed.socket, "capture", *arguments)
        self.assertFalse(file.exists())
        daemon.terminate()
        self.assertEqual(daemon.wait(10), 0)
        self.assertFalse(self.bed.socket.exists())



if __name__ == "__main__":
    main("tshark")
