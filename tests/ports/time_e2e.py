#!/usr/bin/env python3
"""time_e2e.py BUILD: streams are offered only where a ptp4l process says that ports keep common time.

Needs root and linuxptp; exit code 77 without them.
"""
import json
import pathlib
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, STREAM, TALK, Testbed, main  # noqa: E402

# As of IEEE 802.1AS, with clocks in software: a virtual cable seems longer than a real one may be.
PTP = """[global]
gmCapable 1
transportSpecific 0x1
ptp_dst_mac 01:80:C2:00:00:0E
p2p_dst_mac 01:80:C2:00:00:0E
network_transport L2
delay_mechanism P2P
time_stamping software
neighborPropDelayThresh 20000000
follow_up_info 1
assume_two_step 1
free_running 1
clock_servo nullf
uds_address {socket}
"""


class CommonTime(unittest.TestCase):
    def setUp(self):
        self.bed = self.enterContext(Testbed(BUILD, ports=2, bridge="br0"))
        self.clock_socket = self.bed.directory / "ptp4l"
        self.switch_clock = self.clock("clock", self.bed.switch, self.clock_socket, *self.bed.ports)

    def clock(self, name, namespace, socket, *interfaces):
        file = self.bed.directory / (name + ".cfg")
        file.write_text(PTP.format(socket=socket), encoding="utf-8")
        return self.bed.spawn(name, namespace, "ptp4l", "-f", file, "-m",
                              *(word for port in interfaces for word in ("-i", port)))

    def station_clock(self, port):
        return self.clock("clock-" + port, self.bed.station_of(port), self.bed.directory / ("ptp4l-" + port), "eth0")

    def times(self):
        return {port: row["time"] for port, row in self.bed.read("show", "ports").items()}

    def doctor(self):
        done = subprocess.run(["ip", "netns", "exec", self.bed.switch, BUILD / "msrpctl", "--json", "doctor",
                               "--ptp4l", self.clock_socket], text=True, stdout=subprocess.PIPE, check=False)
        return {device: checks["time"]["severity"] for device, checks in json.loads(done.stdout).items()
                if "time" in checks}

    def until(self, condition, what):
        return self.bed.wait(condition, 40, what)

    def capable(self, *ports):
        def told():
            capable = self.bed.read("get", "switch/time/port")
            return sorted(port for port, entry in capable.items() if entry["capable"])
        return lambda: told() == list(ports)

    def test_streams_stand_on_ports_whose_neighbours_keep_common_time(self):
        bed = self.bed
        bed.daemon(bed.config() | {"linux/config": {"bridge": "br0",
                                                    "gptp": {"socket": str(self.clock_socket)}}})
        bed.station("swp1", "--talk", TALK)
        bed.station("swp2", "--listen", STREAM)
        talker, listener = self.station_clock("swp1"), self.station_clock("swp2")
        self.until(self.capable("swp1", "swp2"), "the ports do not become capable")
        self.until(lambda: bed.carriers() == ["swp2"], "the stream is not carried")
        self.assertEqual(self.doctor(), {"swp1": "note", "swp2": "note"})
        listener.send_signal(signal.SIGKILL)
        self.until(self.capable("swp1"), "the port of a killed clock stays capable")
        self.until(lambda: bed.carriers() == [], "a port without common time carries a stream")
        self.assertEqual(self.times()["swp2"], "not capable")
        self.assertEqual(self.doctor(), {"swp1": "note", "swp2": "warning"})
        self.station_clock("swp2")
        self.until(lambda: bed.carriers() == ["swp2"], "the stream does not come back with the clock")
        self.switch_clock.send_signal(signal.SIGSTOP)
        gone = self.until(self.capable(), "a clock that does not answer counts")
        self.assertLess(gone, 12)
        self.assertEqual(self.doctor(), {"br0": "warning"})
        self.assertIn("does not answer, so no port is capable of common time", bed.said("msrpd.log"))
        self.switch_clock.send_signal(signal.SIGCONT)
        self.until(lambda: bed.carriers() == ["swp2"], "the stream does not come back with the answers")
        talker.terminate()


if __name__ == "__main__":
    main("ptp4l")
