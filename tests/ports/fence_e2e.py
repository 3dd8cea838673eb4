#!/usr/bin/env python3
"""fence_e2e.py BUILD: what a host that reserves nothing can do to those who do.

Needs root; exit code 77 without.
"""
import pathlib
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, DESTINATION, STREAM, TALK, Testbed, main  # noqa: E402
from traffic import Counter, Sender  # noqa: E402

A, REST = 3, 0
EVERYBODY = "03:00:00:00:00:01"
OCTETS = 104  # as many as are reserved: the tag is beside them


def rate(frames):
    """Of so many frames a second."""
    return {A: frames * OCTETS * 8}


class Fence(unittest.TestCase):
    """A talker behind swp1, a listener behind swp2, and somebody behind swp3."""

    def setUp(self):
        self.bed = self.enterContext(Testbed(BUILD, ports=3, bridge="br0", queues=4))
        self.arrived = self.enterContext(Counter(self.bed.station_of("swp2"), "eth0"))

    def daemon(self):
        # Credits, where there are some, need the real speed of a port; so none is given.
        return self.bed.daemon({path: fields for path, fields in self.bed.config().items()
                                if not path.startswith("interface/")})

    def send(self, port, frames, destination=DESTINATION):
        """Frames of class A's priority."""
        return Sender(self.bed.station_of(port), "eth0", destination, rate(frames), octets=OCTETS)

    def reserve(self):
        self.bed.station("swp1", "--talk", TALK)
        self.bed.station("swp2", "--listen", STREAM)
        self.bed.wait(lambda: self.bed.carriers() == ["swp2"], 60, "no reservation")

    def test_a_stream_loses_nothing_to_a_port_that_waits_for_its_peer(self):
        self.daemon()
        self.reserve()
        self.arrived.frames()
        with self.send("swp3", 16_000):
            with self.send("swp1", 4_000) as stream:
                time.sleep(4)
        time.sleep(0.3)
        arrived = self.arrived.frames()
        self.assertIn(self.bed.read("get", "linux/capabilities/shaping/swp2/shaper"), ("software", "htb"))
        self.assertEqual((arrived[A], arrived[REST] > 2000), (stream.sent()[A], True))

    def test_it_stands_from_start_to_end_whatever_happens_between(self):
        bed = self.bed
        daemon = self.daemon()
        self.arrived.frames()
        with self.send("swp3", 1000, EVERYBODY):
            for _ in range(3):
                time.sleep(0.3)
                daemon.kill()
                daemon.wait()
                time.sleep(0.3)
                daemon = self.daemon()
            bed.shown("set", "msrp/config", "intfEnable", '{"swp3": false}')
            bed.switch_ip("link", "set", "swp3", "down")
            bed.switch_ip("link", "set", "swp3", "up")
            time.sleep(0.3)
            arrived = self.arrived.frames()
            self.assertEqual((arrived[A], arrived[REST] > 500), (0, True))
            self.assertEqual(bed.shown("audit"), "records and kernel agree\n")
            # Who takes part gets his priority.
            bed.shown("set", "msrp/config", "intfEnable", '{"swp3": true}')
            station = bed.station("swp3", "--listen", STREAM)
            bed.wait(lambda: self.arrived.frames()[A] > 0, 10, "the port is in the domain, and its frames are not")
            station.terminate()
            bed.wait(lambda: self.arrived.frames()[A] == 0, 20, "the port has left the domain, and its frames have not")
        daemon.terminate()
        daemon.wait()
        self.assertNotIn("clsact", bed.tool("tc qdisc show"))


if __name__ == "__main__":
    main()
