#!/usr/bin/env python3
"""why_e2e.py BUILD: what msrpctl foretells and explains, on real (virtual Ethernet) ports of a kernel's bridge.

Needs root; exit code 77 without.
"""
import json
import os
import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, Testbed, main  # noqa: E402

STREAMS = [f"0x20000000201000{n}" for n in range(1, 4)]
LLDP = {"lldp": {"interface": [{"swp3": {"chassis": {"balcony": {"id": {"type": "mac", "value": "02:00:00:00:02:03"}}}}}]}}


class Why(unittest.TestCase):
    def test_what_is_foretold_happens_and_is_explained(self):
        bed = self.enterContext(Testbed(BUILD, ports=3, bridge="br0"))
        bed.daemon()
        bed.station("swp2", *(word for stream in STREAMS for word in ("--listen", stream)))
        talker = bed.station("swp1", "--watch")
        bed.wait(lambda: all(bed.read("show", "domain")[port]["A"]["state"] == "Core" for port in ("swp1", "swp2")), 10,
                 "no domain")
        foretold = bed.read("what-if", "--from", "swp1", "--to", "swp2", "swp3", "--frame-size", "1500", "--frames", "3")
        self.assertEqual({port: (p["fits"], p["streams"], p["verdict"]["rule"]) for port, p in foretold["ports"].items()},
                         {"swp2": (True, 2, "fits"), "swp3": (False, 0, "waitingForPeer")})
        talker.kill()
        talker.wait()
        bed.station("swp1", *(word for n, stream in enumerate(STREAMS, 1)
                              for word in ("--talk", f"{stream},91:e0:f0:00:00:0{n},2,A,1500,3")))
        explained = {}

        def settled():
            explained.update({stream: bed.read("explain", stream, "swp2")["ports"]["swp2"] for stream in STREAMS})
            return sorted(verdict["rule"] for verdict in explained.values()) == ["bandwidth", "carried", "carried"]

        bed.wait(settled, 10, "two streams of three are not carried")
        stream, verdict = next(item for item in explained.items() if item[1]["rule"] == "bandwidth")
        self.assertEqual(verdict["code"], 1)
        self.assertEqual(set(verdict["holders"]), set(STREAMS) - {stream})
        # With the least share that is said to be enough it is let in.
        mend = verdict["mend"]["1"]
        self.assertEqual(mend["set"], {"srClassABandwidthPercent": 89})
        bed.shown("set", mend["record"], "srClassABandwidthPercent", "89")
        bed.wait(lambda: bed.read("explain", stream, "swp2")["ports"]["swp2"]["rule"] == "carried", 10, "still refused")

        names = bed.directory / "names"
        names.write_text("02:00:00:00:02:01 mic 1\n", encoding="utf-8")
        tool = bed.directory / "lldpctl"
        tool.write_text(f"#!/bin/sh\necho '{json.dumps(LLDP)}'\n", encoding="utf-8")
        tool.chmod(0o755)
        before = os.environ["PATH"]
        os.environ["PATH"] = f"{bed.directory}:{before}"
        self.addCleanup(os.environ.update, PATH=before)
        text = bed.shown("explain", STREAMS[0], "--names", names)
        self.assertIn("stream 02:00:00:00:02:01/1 (0x200000002010001) of mic 1\n", text)
        self.assertIn("to swp3: the peer does not speak MSRP\n", text)
        self.assertIn("whose   balcony, the neighbour at swp3\n", text)

    def test_wrong_words_are_named(self):
        bed = self.enterContext(Testbed(BUILD, ports=1))
        bed.daemon()
        one = ("what-if", "--from", "swp1", "--frame-size", "100")
        for words, code, said in ((("explain", "x"), 2, 'stream "x" is neither'),
                                  (("explain", "0x1", "--names", "/no/such"), 1, "/no/such: cannot be read"),
                                  (("what-if", "--from", "swp1"), 2, "either --frame-size or --format is needed"),
                                  (("what-if", "--from", "swp1", "--format", "aaf-int24"), 2,
                                   "--format aaf-int24: channels 0 is not from 1 to 1024"),
                                  ((*one, "--class", "C"), 2, '--class "C": the classes are A and B'),
                                  ((*one, "--share", "A"), 2, '--share "A": expected like A=60'),
                                  ((*one, "--share", "A=101"), 2, '--share "101": expected a number from 0 to 100'),
                                  ((*one, "--speed", "swp1=3G"), 2, '--speed "3G": expected one of "unknown"'),
                                  ((*one, "--to", "swp9"), 2, "--to swp9: MSRP is enabled on no port of this name")):
            with self.subTest(words):
                done = bed.control(*words)
                self.assertEqual((done.returncode, done.stdout), (code, ""))
                self.assertIn(said, done.stderr)


if __name__ == "__main__":
    main()
