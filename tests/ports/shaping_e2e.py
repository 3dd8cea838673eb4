#!/usr/bin/env python3
"""shaping_e2e.py BUILD: what the queues of a busy port let through, counted behind the port.

The shaper is the best one that this machine has: credits where its kernel knows them, else token buckets.  Needs
root; exit code 77 without.
"""
import os
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import DESTINATION, Testbed  # noqa: E402
from traffic import Counter, Sender, measure  # noqa: E402

BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()
A, B, REST = 3, 2, 0
OFFERED = {A: 4e6, B: 2e6, REST: 2e6}  # little enough for an emulated machine
OCTETS = 500
# What one of these frames counts, its tag being kept beside it: token buckets add check sequence, preamble and gap.
COUNTED = {"htb": OCTETS - 4 + 24, "software": OCTETS - 4}


class Shaping(unittest.TestCase):
    """A bridge with a talker behind swp1, and a listener behind swp2, whose port is shaped."""

    def setUp(self):
        bed = self.bed = self.enterContext(Testbed(BUILD, ports=2, queues=4))
        self.ip("link", "add", "br0", "up", "type", "bridge", "mcast_snooping", "0")
        for port in bed.ports:
            self.ip("link", "set", port, "master", "br0")
        self.shaper = self.enterContext(subprocess.Popen(
            ["ip", "netns", "exec", bed.switch, BUILD / "drive_shaper", "br0", "automatic"], text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=1))
        self.addCleanup(self.shaper.stdin.close)

    def ip(self, *arguments):
        subprocess.run(["ip", "-n", self.bed.switch, *arguments], check=True)

    def ask(self, line):
        self.shaper.stdin.write(line + "\n")
        answer = []
        while (said := self.shaper.stdout.readline()) != ".\n":
            self.assertTrue(said, "the shaper has ended")
            answer.append(said.rstrip("\n"))
        return answer

    def reserve(self, a, b):
        """kbit/s"""
        self.ask(f"swp2 {a} {b}")
        self.assertEqual(self.ask("audit"), [])

    def passed(self, sender, counter):
        """What went through, in kbit/s as the shaper counts."""
        rates = measure(sender, counter, seconds=3)
        print({priority: f"{rates.offered[priority] / 1e6:.2f} -> {rate / 1e6:.2f} Mbit/s"
               for priority, rate in rates.arrived.items()})
        if any(rates.offered[priority] < rate / 2 for priority, rate in OFFERED.items()):
            self.skipTest("this machine is too slow to keep a port busy")
        self.assertGreater(rates.arrived[REST], 0.95 * rates.offered[REST])
        return {priority: rates.arrived[priority] * self.counted / OCTETS / 1000 for priority in (A, B)}

    def test_each_class_gets_what_it_reserved_and_the_rest_is_untouched(self):
        bed = self.bed
        self.reserve(2000, 1000)
        self.counted = COUNTED[next(line for line in self.ask("show") if line.startswith("swp2 ")).split()[1]]
        with Sender(bed.station_of("swp1"), "eth0", DESTINATION, OFFERED, octets=OCTETS) as sender, \
                Counter(bed.station_of("swp2"), "eth0", (A, B, REST)) as counter:
            for a, b in ((2000, 1000), (3000, 1000), (3000, 0)):
                self.reserve(a, b)
                passed = self.passed(sender, counter)
                self.assertAlmostEqual(passed[A], a, delta=0.05 * a)
                if b:
                    self.assertAlmostEqual(passed[B], b, delta=0.05 * b)
                else:
                    self.assertGreater(passed[B], 1500, "without a reservation nothing holds class B back")


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("needs root")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
