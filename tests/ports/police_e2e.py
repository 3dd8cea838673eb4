#!/usr/bin/env python3
"""police_e2e.py BUILD: what a talker that sends more than it has reserved can do to others.

Needs root; exit code 77 without.
"""
import pathlib
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import Testbed, main  # noqa: E402
from traffic import Counter, Sender  # noqa: E402

BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()
OCTETS = 118  # as many as are reserved, 100, behind the tag
RESERVED = 4000  # frames a second of class B
OTHERS = "91:e0:f0:00:00:0"  # of streams, but for the last digit


class Police(unittest.TestCase):
    """Talkers behind swp1 and swp2, a listener to both behind swp3."""

    def setUp(self):
        self.bed = self.enterContext(Testbed(BUILD, ports=3, bridge="br0", queues=4))
        self.arrived = [self.enterContext(Counter(self.bed.station_of("swp3"), "eth0", destination=OTHERS + last))
                        for last in "12"]

    def reserve(self, streams):
        bed = self.bed
        config = bed.config()
        config["linux/config"]["streams"] = streams
        bed.daemon({path: fields for path, fields in config.items() if not path.startswith("interface/")})
        for last in "12":
            bed.station("swp" + last, "--talk", f"0x20000000201000{last},{OTHERS}{last},2,B,100,1")
        bed.station("swp3", "--listen", "0x200000002010001", "--listen", "0x200000002010002")
        bed.wait(lambda: [stream["ports"]["swp3"]["carried"] for stream in bed.read("show", "streams").values()]
                 == [True, True], 60, "no reservations")

    def send(self, last, frames, priority=2):
        return Sender(self.bed.station_of("swp" + last), "eth0", OTHERS + last, {priority: frames * OCTETS * 8},
                      octets=OCTETS)

    def traffic(self):
        return self.bed.read("show", "streams", "--traffic").values()

    def test_a_stream_loses_nothing_to_one_that_sends_three_times_its_reservation(self):
        self.reserve("police")
        with self.send("1", RESERVED * 0.6) as good, self.send("2", RESERVED * 3) as bad:
            time.sleep(4)
        time.sleep(2.5)
        first, second = self.traffic()
        arrived = [counter.frames()[2] for counter in self.arrived]
        self.assertEqual((arrived[0], first["over"]), (first["frames"], 0))
        self.assertEqual(first["frames"], good.sent()[2])
        self.assertEqual(second["frames"], bad.sent()[2])
        self.assertEqual((arrived[1], arrived[1] < RESERVED * 5), (second["frames"] - second["over"], True))

    def test_what_flows_is_told(self):
        self.reserve("measure")
        with self.send("1", RESERVED * 0.5), self.send("2", 100, priority=0):
            time.sleep(3.5)
            first, second = self.traffic()
        self.assertEqual((first["reserved"], first["over"], first["silent"]), (4544, 0, None))
        self.assertAlmostEqual(first["flowing"], 4544 / 2, delta=4544 / 8)
        self.assertEqual((second["frames"], second["flowing"], second["otherPriority"] > 200), (0, 0, True))
        time.sleep(2.5)
        self.assertGreater(next(iter(self.traffic()))["silent"], 1)


if __name__ == "__main__":
    main()
