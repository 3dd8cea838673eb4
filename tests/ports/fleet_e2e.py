#!/usr/bin/env python3
"""fleet_e2e.py BUILD: real daemons of three bridges in one store, and what msrpctl --fleet makes of them.

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
from drawn import Network  # noqa: E402
from testbed import BUILD, main  # noqa: E402

try:
    from jsonschema import Draft202012Validator
except ImportError:
    Draft202012Validator = None

# The slow link has room for one of `one` and `two`, whichever comes first; nobody listens to `idle`.
DRAWING = """graph {
    { node [kind=bridge]; sw1; sw2; sw3; }
    { node [kind=station]; mic; amp1; amp2; }
    sw1 -- sw2;
    sw2 -- sw3 [speed="100M"];
    mic -- sw1; amp1 -- sw2; amp2 -- sw3;
    {
        node [kind=stream, talker=mic, size=600];
        one [listeners="amp1 amp2"];
        two [listeners="amp2 amp1", size=700];
        idle;
    }
}
"""


class Fleet(Network):
    def set_up(self):
        self.store = self.directory / "redis.sock"
        self.namespace(self.prefix + "store")
        self.spawn("redis", self.prefix + "store", "redis-server", "--port", "0", "--unixsocket", self.store, "--save", "")
        self.wait(lambda: "eady to accept" in self.said("redis"), 20, "no store")
        super().set_up()

    def config(self, name):
        return super().config(name) | {"store/config": {"redis": f"unix:{self.store}", "name": name}}

    def redis(self, *words):
        subprocess.run(["redis-cli", "-s", self.store, *words], check=True, stdout=subprocess.DEVNULL)

    def fleet(self, *words, store=None):
        return subprocess.run([self.build / "msrpctl", "--socket", self.bridges["sw1"].socket, "--fleet",
                               *(["--store", store] if store else []), "--json", *words], text=True, capture_output=True,
                              check=False)


class OneStore(unittest.TestCase):
    maxDiff = None

    def test_a_stream_is_followed_over_all_bridges(self):
        directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        (directory / "net.dot").write_text(DRAWING, encoding="utf-8")
        net = self.enterContext(Fleet(BUILD, directory / "net.dot"))
        net.settle()
        def streams():
            done = net.fleet("show", "streams")
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            return json.loads(done.stdout)

        # What the mirror tells but once a second: who is behind which port.
        net.wait(lambda: len(streams()) == 3 and all(
            [hop["bridge"] for hop in stream["path"].values()] == ["sw1", "sw2", "sw3"] for stream in streams().values()),
            10, f"not the path: {streams()}")
        idle, = (report for report in streams().values() if not report["listeners"])
        failing, = (stream for stream, report in streams().items() if report["failure"])
        (winning, good), = ((stream, report) for stream, report in streams().items() if report["reached"] == 2)
        path = [(hop["in"], {port: (to["to"], to["carried"]) for port, to in hop["ports"].items()})
                for hop in good["path"].values()]
        self.assertEqual(path, [("mic", {"sw2": ("sw2", True)}), ("sw1", {"sw3": ("sw3", True), "amp1": (None, True)}),
                                ("sw2", {"amp2": (None, True)})])
        self.assertEqual((good["listeners"], good["failure"], idle["failure"]), (2, None, None))
        failure = streams()[failing]["failure"]
        self.assertEqual((failure["bridge"], failure["port"], failure["code"], failure["holders"]),
                         ("sw2", "sw3", 1, {winning: good["kbps"]}))
        self.assertGreater(failure["age"], 0)
        if Draft202012Validator:
            schema = json.loads((TOP / "docs/schema/fleet.schema.json").read_text(encoding="utf-8"))
            self.assertEqual([error.message for error in Draft202012Validator(schema).iter_errors(streams())], [])
        text = subprocess.run([BUILD / "msrpctl", "--fleet", "--store", f"unix:{net.store}", "show", "stream", failing],
                              check=True, text=True, stdout=subprocess.PIPE).stdout
        self.assertIn("fails first at sw2, sw3: ", text)
        print(text)

        # Somebody spoils a field; a bridge dies; one is of a later version.
        key = f"msrp:{{sw1}}:record:msrp/status/registeredStreams/{next(iter(streams()))}"
        net.redis("hset", key, "vlanId", '"\x1b[31m"', "kbps", "1")
        net.redis("hset", "msrp:{sw2}:meta", "until", "1000", "seen", "1700000000000")
        done = net.fleet("show", "streams")
        self.assertIn("msrpctl: sw1: store: msrp/status/registeredStreams/", done.stderr)
        self.assertNotIn("\x1b", done.stderr)
        self.assertIn("2023-11-14T22:13:20.000Z", {hop["asOf"] for stream in json.loads(done.stdout).values()
                                              for hop in stream["path"].values()})
        for words, store, said in ((("show", "streams"), f"unix:{net.store}.none", "No such file or directory"),
                                   (("show", "streams"), "redis:6379", '--store: address "redis:6379"'),
                                   (("show", "stream", "0x77"), None, "no bridge of the store knows stream 0x77")):
            done = net.fleet(*words, store=store)
            self.assertNotEqual(done.returncode, 0)
            self.assertIn(said, done.stderr)


if __name__ == "__main__":
    main("redis-server", "redis-cli")
