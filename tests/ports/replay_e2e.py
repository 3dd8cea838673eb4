#!/usr/bin/env python3
"""replay_e2e.py BUILD: frames of a real daemon on real interfaces, captured by it and by another program, agree with
what a simulated agent says in its place.

Needs root and tshark; exit code 77 without them.
"""
import json
import pathlib
import signal
import subprocess
import sys
import time
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts"))
from testbed import BUILD, STREAM, TALK, Testbed, main, tshark  # noqa: E402

try:
    from jsonschema import Draft202012Validator
except ImportError:
    Draft202012Validator = None


class Replay(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        bed = cls.bed = cls.enterClassContext(Testbed(BUILD))
        cls.foreign = bed.directory / "foreign"
        dumpcap = bed.dumpcap("ether proto 0x22ea", cls.foreign)
        bed.daemon()
        cls.own = [bed.directory / port for port in ("own1", "own2", "own3")]
        captures = [bed.spawn(file.name + ".log", bed.switch, BUILD / "msrpctl", "--socket", bed.socket, "capture",
                              port, file) for port, file in zip(bed.ports, cls.own)]
        bed.wait(lambda: all(file.exists() and file.stat().st_size > 0 for file in cls.own), 10, "no captures")
        talker, *_ = bed.talker_and_listeners()
        bed.wait(lambda: bed.carriers() == bed.ports[1:], 20, "no reservation")
        time.sleep(2)  # less is too short for anything to count
        talker.send_signal(signal.SIGTERM)
        bed.wait(lambda: bed.carriers() == [], 20, "the stream is still reserved")
        for process in (*captures, dumpcap):
            process.send_signal(signal.SIGINT)
            process.wait(10)

    def replay(self, *arguments):
        ran = subprocess.run([BUILD / "msrpsim", "--json", "replay", *map(str, arguments), "--config",
                              self.bed.directory / "msrpd.json"], capture_output=True, text=True, check=False)
        self.assertEqual(ran.stderr, "")
        value = json.loads(ran.stdout)
        if Draft202012Validator:
            schema = json.loads((TOP / "docs/schema/msrpsim-replay.schema.json").read_text(encoding="utf-8"))
            Draft202012Validator.check_schema(schema)
            self.assertEqual([error.message for error in Draft202012Validator(schema).iter_errors(value)], [])
        return ran.returncode, value

    def test_the_daemon_said_what_the_simulated_agent_says(self):
        annotated = self.bed.directory / "annotated"
        addresses = [word for port in self.bed.ports for word in ("--bridge", self.bed.address(port))]
        for files in ([self.foreign, *addresses, "--out", annotated], self.own):
            code, value = self.replay(*files)
            self.assertEqual((code, value["agrees"], value["findings"]), (0, True, {}), value)
            self.assertTrue(all(port["attributes"] == 3 for port in value["ports"].values()), value["ports"])
        seen = tshark(annotated, "-T", "fields", "-e", "frame.interface_name", "-e", "frame.comment")
        for said in (r"^swp1\t.*Talker Advertise of 02:00:00:00:02:01/1: registered",
                     r"^swp2\t.*Talker Advertise of 02:00:00:00:02:01/1",
                     r"^swp2 \(msrpsim\)\t.*Talker Advertise of 02:00:00:00:02:01/1",
                     r"^swp1\t.*Listener Ready of 02:00:00:00:02:01/1"):
            self.assertRegex(seen, f"(?m){said}")
        self.assertEqual(tshark(annotated, "-Y", "_ws.malformed || !mrp-msrp"), "")

    def test_what_is_broken_is_read_as_far_as_it_is_whole(self):
        broken = self.bed.directory / "broken"
        broken.write_bytes(self.own[0].read_bytes()[:-5])
        code, value = self.replay(broken)
        self.assertEqual((code, value["agrees"]), (1, False))
        self.assertRegex(value["files"]["1"]["problem"], "^ends within a block")


if __name__ == "__main__":
    main("tshark", "dumpcap")
