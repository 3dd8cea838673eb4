#!/usr/bin/env python3
"""network_e2e.py BUILD: one drawing ends in the same records with real daemons as in the simulation, and what is learnt
of those daemons reserves the same again.

Needs root; exit code 77 without.
"""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts"))
from drawn import Network, without  # noqa: E402
from testbed import BUILD, main  # noqa: E402

try:
    from jsonschema import Draft202012Validator
except ImportError:
    Draft202012Validator = None

# `main` is reserved everywhere, `large` as far as the slow link; `vlan` fails where VLAN 7 ends, `boundary` where class B
# has another priority, and `alarm` goes the other way.
DRAWING = """graph {
    { node [kind=bridge]; sw1; sw2; sw3 [srClassBPriority=1]; }
    { node [kind=station]; mic; desk; amp1; amp2; rec; }
    edge [vlans="2 7"];
    sw1 -- sw2;
    sw2 -- sw3 [speed="100M", tailvlans=2];
    mic -- sw1; desk -- sw1; amp1 -- sw2; amp2 -- sw3; rec -- sw3;
    {
        node [kind=stream, talker=mic, size=224];
        main [listeners="amp1 amp2 rec"];
        large [listeners="amp1 rec", size=1400];
        vlan [listeners="amp1 amp2", vlan=7];
        boundary [listeners="amp1 rec", class=B];
        alarm [talker=rec, listeners="desk amp1", rank=0];
    }
}
"""
# Records and fields that differ between a daemon and a simulated bridge though nothing else does.
DIFFERS = {
    **dict.fromkeys(("creationTime", "statusTime", "since", "age"), "the two clocks begin elsewhere"),
    "leaveAllIn": "a timer that is drawn by lot, at some moment of its way",
    **dict.fromkeys(("rxCounters", "txCounters", "rxPdus", "txPdus", "rxEvents", "txEvents", "refusedJoins"),
                    "real programs start one after the other, and repeat what nobody heard"),
    "macAddr": "simulated ports need no address",
    "switchIntfConfig": "what the kernel's bridge does with untagged frames; streams have tags",
    "bridging/vlans": "which VLANs the kernel's ports were given for MVRP, which does not run",
}


class DrawnAndReal(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.file = cls.directory / "drawn.dot"
        cls.file.write_text(DRAWING, encoding="utf-8")
        cls.bed = cls.enterClassContext(Network(BUILD, cls.file))

    def sim(self, *words, code=0):
        done = subprocess.run([BUILD / "msrpsim", *map(str, words)], capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (code, ""), words)
        return done.stdout

    def test_the_daemons_have_the_records_of_the_simulation(self):
        # Without a spanning tree, as the kernel's bridges are; a LeaveAll of every port makes up for the order in which
        # things began.
        simulated = json.loads(self.sim("--json", "records", "--loops", "--quiet", "25s", self.file))
        expected = without(simulated, DIFFERS)
        schema = json.loads((TOP / "docs/schema/records.schema.json").read_text(encoding="utf-8"))["properties"]
        for bridge in simulated.values() if Draft202012Validator else ():
            for path, record in bridge.items():
                self.assertEqual([error.message for error in Draft202012Validator(schema[path]).iter_errors(record)], [], path)

        def real():
            return {name: {path: without(self.bed.read(name, "get", path), DIFFERS) for path in records}
                    for name, records in expected.items()}

        self.bed.settle()
        try:
            self.bed.wait(lambda: real() == expected, 60, "the same records")
        except Exception:  # shows where they differ
            self.assertEqual(real(), expected)
        failures = {(name, stream["talkerFailureCode"].get(port)) for name, records in simulated.items()
                    for stream in records["msrp/status"]["registeredStreams"].values() for port in stream["talkerFailureCode"]}
        self.assertLessEqual({("sw2", 1), ("sw2", 17), ("sw2", 8), ("sw3", 17)}, failures, "the drawing has lost its point")

    def outcomes(self, file):
        """What becomes of each stream at each listener, by addresses: names are those of whoever drew it."""
        devices = self.checked(file)["devices"]
        streams = json.loads(self.sim("--json", "run", file, code=1))["end"]["streams"]
        return {(stream["id"], devices[name]["address"]): (listener["reserved"], listener["code"], listener["device"])
                for stream in streams.values() for name, listener in stream["listeners"].items()}

    def checked(self, file):
        value = json.loads(self.sim("--json", "check", file))
        if Draft202012Validator:
            schema = json.loads((TOP / "docs/schema/msrpsim-check.schema.json").read_text(encoding="utf-8"))
            Draft202012Validator.check_schema(schema)
            self.assertEqual([error.message for error in Draft202012Validator(schema).iter_errors(value)], [])
        return value

    def test_what_is_learnt_reserves_the_same(self):
        learnt = self.directory / "learnt.dot"
        self.bed.settle()
        sockets = [f"{name}={bridge.socket}" for name, bridge in self.bed.bridges.items()]
        self.assertEqual(self.sim("learn", *sockets, "--out", learnt), "")
        self.assertEqual(self.outcomes(learnt), self.outcomes(self.file))
        for wrong, problem in ((["/nowhere"], "msrpsim: socket /nowhere: No such file or directory\n"),
                               ([*sockets, "--link", "sw1:x--sw2:sw3"],
                                "msrpsim: --link: sw1:x: MSRP runs on no port of that name whose link is up\n")):
            done = subprocess.run([BUILD / "msrpsim", "learn", *wrong], capture_output=True, text=True, check=False)
            self.assertEqual((done.stdout, done.stderr), ("", problem))


if __name__ == "__main__":
    main()
