#!/usr/bin/env python3
"""shaping_e2e.py BUILD: what the queues of a busy port let through, counted behind the port.

The shaper is the best one that this machine has: credits where its kernel knows them, else token buckets.  Needs
root; exit code 77 without.
"""
import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, DESTINATION, STREAM, VLAN, Testbed, main  # noqa: E402
from traffic import Counter, Sender, measure  # noqa: E402

STREAM_B, DESTINATION_B = f"0x{int(STREAM, 16) + 1:X}", "91:e0:f0:00:00:02"
A, B, REST = 3, 2, 0
# One octet in each interval, 42 around it: (1 + 42) * 8 * 8000 bit/s, and half of that.  Little enough for an
# emulated machine to offer more.
TALK = [f"--talk={STREAM},{DESTINATION},{VLAN},A,1,1", f"--talk={STREAM_B},{DESTINATION_B},{VLAN},B,1,1"]
RESERVED = {A: 2_752_000, B: 1_376_000}
OFFERED = {A: 6e6, B: 4e6, REST: 4e6}
OCTETS = 500
# What one of these frames counts, its tag being kept beside it: token buckets add check sequence, preamble and gap.
COUNTED = {"htb": OCTETS - 4 + 24, "software": OCTETS - 4}


class Shaping(unittest.TestCase):
    """A talker behind swp1, and a listener behind swp2, whose port is shaped."""

    def test_each_class_gets_what_it_reserved_and_the_rest_is_untouched(self):
        bed = self.enterContext(Testbed(BUILD, ports=2, bridge="br0", queues=4))
        # Credits need the real speed of a port, 10 Gbit/s; so none is given.
        config = bed.config() | {"msrp/cliConfig": {"srClassBBandwidthPercent": 25}}
        bed.daemon({path: fields for path, fields in config.items() if not path.startswith("interface/")})
        bed.station("swp1", *TALK)
        listener = bed.station("swp2", "--listen", STREAM, "--listen", STREAM_B)
        self.until_carried(bed, [True, True])
        counted = COUNTED[bed.read("get", "linux/capabilities/shaping/swp2/shaper")]
        with Sender(bed.station_of("swp1"), "eth0", DESTINATION, OFFERED, octets=OCTETS) as sender, \
                Counter(bed.station_of("swp2"), "eth0", OFFERED) as counter:
            self.check(sender, counter, RESERVED, counted)
            listener.terminate()
            self.until_carried(bed, [False, False])
            bed.station("swp2", "--listen", STREAM)
            self.until_carried(bed, [True, False])
            self.check(sender, counter, {A: RESERVED[A]}, counted)

    def test_what_somebody_else_does_to_the_queues_is_told_and_mended(self):
        bed = self.enterContext(Testbed(BUILD, ports=2, bridge="br0", queues=4))
        bed.daemon()
        bed.talker_and_listeners()
        bed.wait(lambda: bed.carriers() == ["swp2"], 60, "no reservation")
        htb = bed.read("get", "linux/capabilities/shaping/swp2/shaper") == "htb"
        bed.tool("tc filter del dev swp2 " + ("parent 100:" if htb else "ingress pref 33"))
        bed.wait(lambda: "swp2: " in bed.said("msrpd.log") and
                 "; somebody else changed the queues" in bed.said("msrpd.log"), 20, "the flush is not noticed")
        self.assertEqual(bed.shown("audit"), "records and kernel agree\n")
        self.assertEqual(bed.read("get", "switch/refusals/port"), {})

    @staticmethod
    def until_carried(bed, carried):
        bed.wait(lambda: [stream["ports"].get("swp2", {}).get("carried")
                          for stream in bed.read("show", "streams").values()] == carried, 60, f"not {carried}")

    def check(self, sender, counter, reserved, counted):
        # A machine that is busy with something else serves sender and queues late: it gets some tries.
        for _ in range(6):
            rates = measure(sender, counter, seconds=4)
            told = {priority: f"{rates.arrived[priority] / 1e6:.3f} of {rates.offered[priority] / 1e6:.3f} Mbit/s"
                    for priority in OFFERED}
            if any(rates.offered[priority] < 1.2 * rate for priority, rate in reserved.items()):
                self.skipTest(f"this machine is too slow to keep a port busy: {told}")
            expected = {priority: reserved[priority] * OCTETS / counted if priority in reserved else offered
                        for priority, offered in rates.offered.items()}
            if all(abs(rates.arrived[priority] - rate) <= 0.05 * rate for priority, rate in expected.items()):
                return
        self.fail(f"{told}, expected {expected}")



if __name__ == "__main__":
    main()
