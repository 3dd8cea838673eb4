#!/usr/bin/env python3
"""json_e2e.py BUILD: all that the programs write with --json is as the shipped schemas say, whatever there is.

Needs root and python3-jsonschema; exit code 77 without.
"""
import json
import pathlib
import re
import subprocess
import sys
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts"))
from testbed import BUILD, STREAM, TALK, Testbed, main  # noqa: E402

try:
    from jsonschema import Draft202012Validator
except ImportError:
    print("skipped: needs python3-jsonschema")
    sys.exit(77)

SCHEMAS = {file.name.removesuffix(".schema.json"): json.loads(file.read_text(encoding="utf-8"))
           for file in (TOP / "docs/schema").iterdir() if not file.name.startswith("msrpsim-")}
# A capture is no text, a schema its own, top for people, and a switch takes two, a fleet a store (fleet_e2e); what is read of records is judged as all of them together.
COMMANDS = {"capture": None, "schema": None, "top": None, "redundancy-switch": None, "get": "records", "watch": "records"}
# Carried to swp2 alone; with the first one's address; to where VLAN 9 is not; to no group; of nobody.
OTHERS = {"0x2": "91:e0:f0:00:00:02,2,B,1400,6", "0x300000002010003": "91:e0:f0:00:00:01,2,A,100,1", "0x4": "91:e0:f0:00:00:04,9,A,100,1",
          "0x5": "02:00:00:00:00:05,2,A,100,1", "0x6": None}


def commands(*words):
    """All commands of msrpctl, as it tells of them, with their words joined by dashes."""
    text = subprocess.run([BUILD / "msrpctl", *words, "--help"], text=True, check=True, stdout=subprocess.PIPE).stdout
    below = re.findall(r"^  ([a-z]\S*)", text.partition("Subcommands:")[2], re.MULTILINE)
    return {name for word in below for name in commands(*words, word)} if below else {"-".join(words)}


class Json(unittest.TestCase):
    def setUp(self):
        self.judged = set()
        self.bed = self.enterContext(Testbed(BUILD, ports=3, bridge="br0"))

    def judge(self, name, text):
        """One value of that output on each line."""
        self.judged.add(name)
        values = [json.loads(line) for line in text.splitlines()]
        for value in values:
            for error in Draft202012Validator(SCHEMAS[name]).iter_errors(value):
                self.fail(f"{name}: {'/'.join(map(str, error.absolute_path))}: {error.message[:500]}")
        self.assertTrue(values, name)
        return values[-1]

    def write(self, *words, output=""):
        """What msrpctl says, judged by the schema of the command's name, or of another one."""
        done = subprocess.run(["ip", "netns", "exec", self.bed.switch, BUILD / "msrpctl", "--socket", self.bed.socket,
                               "--json", *map(str, words)], text=True, capture_output=True, check=False)
        self.assertEqual(done.stderr, "", words)
        return self.judge(output or "-".join(words), done.stdout)

    def everything(self):
        """All that can be asked for in any state."""
        for name in sorted(commands()):
            if name.startswith("show-") and name != "show-stream" or name in ("list", "log-level", "audit", "history", "reload"):
                self.write(*name.split("-"))
        self.write("show", "streams", "--traffic", output="show-streams-traffic")
        self.records = {path: self.bed.read("get", path) for path in self.bed.read("list")}
        self.judge("records", json.dumps(self.records))
        for stream in (STREAM, *OTHERS):
            self.write("explain", stream, output="explain")

    def test_every_output_is_as_its_schema_says_whatever_there_is(self):
        bed, file = self.bed, self.bed.directory / "saved.json"
        self.write("doctor")
        config = bed.config() | {"msrp/config": {"intfEnable": {}}, "linux/config": {"bridge": "br0", "streams": "police"}}
        daemon = bed.daemon(config)
        self.everything()
        self.assertEqual(self.write("save", file, output="save")["fields"], {})

        config |= {"msrp/config": {"intfEnable": {"*": True, "swp9": True}}, "mvrp/config": {"intfEnable": {"*": True}}}
        config["interface/status/eth/phy/all"]["intfStatus"]["swp3"]["speedEnum"] = "10M"
        (bed.directory / "msrpd.json").write_text(json.dumps(config), encoding="utf-8")
        self.assertTrue(self.write("reload"))
        follower = bed.spawn("follower", bed.switch, BUILD / "msrpctl", "--socket", bed.socket, "--json", "history", "--follow",
                             "--since", "1")
        watcher = bed.spawn("watcher", bed.switch, BUILD / "msrpctl", "--socket", bed.socket, "--json", "watch", "msrp/status")
        talker, *listeners = bed.talker_and_listeners()
        bed.wait(lambda: bed.carriers() == ["swp2"], 10, "the stream is not carried")
        self.everything()
        self.write("show", "stream", STREAM, output="show-stream")

        for station in (talker, *listeners):
            station.terminate()
            station.wait(10)
        bed.wait(lambda: not bed.read("show", "streams"), 10, "the stream has not gone")
        self.assertTrue(self.write("show", "stream", STREAM, output="show-stream")["gone"])
        talker = bed.station("swp1", "--json", "--talk", TALK,
                             *(word for stream, what in OTHERS.items() if what for word in ("--talk", f"{stream},{what}")))
        for port in ("swp2", "swp3"):
            bed.station(port, "--json", "--watch", *(word for stream in (STREAM, *OTHERS) for word in ("--listen", stream)))
        bed.wait(lambda: {"0x2", "0x300000002010003", "0x4"} <= set(bed.read("show", "streams")) and bed.carriers() == ["swp2"],
                 10, "the streams are not there")
        bed.wait(lambda: bed.read("explain", "0x300000002010003")["talker"]["rule"] == "addressInUse", 10, "the address is not in use")
        self.everything()
        for asked in (["--frame-size", "1500", "--frames", "9"], ["--format", "crf", "--class", "B", "--to", "swp3"],
                      ["--frame-size", "100", "--share", "A=1", "--share", "B=1", "--speed", "swp2=10M", "--member", "swp2=9"]):
            self.write("what-if", "--from", "swp1", *asked, output="what-if")
        self.write("show", "mrp", "swp1", output="show-mrp-port")
        self.write("log", "level", "streams", "debug", output="log-level-set")
        self.write("log", "level")
        self.write("set", "msrp/cliConfig", "srPvid/swp2", "2", output="set")
        self.assertTrue(self.write("save", file, output="save")["fields"])
        self.write("clear", "counters")
        done = subprocess.run([BUILD / "msrpctl", "--socket", f"{bed.socket}.read", "--json", "clear", "counters"], text=True,
                              capture_output=True, check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr),
                         (1, "", 'msrpctl: request: op "clearCounters": this socket is for reading only\n'))
        self.write("support", bed.directory / "support.tar.gz", output="support")
        bed.link("swp3", "down")
        talker.terminate()
        bed.wait(lambda: not any(stream["from"] for stream in bed.read("show", "streams").values()), 10,
                 "the talkers have not gone")
        self.everything()
        self.judge("history-follow", bed.said("follower"))
        for value in bed.said("watcher").splitlines():
            self.judge("records", json.dumps(self.records | {"msrp/status": json.loads(value)}))
        for port in ("swp2", "swp3"):
            self.judge("msrp-station", bed.said(port))
        self.write("ringlog", next(bed.directory.glob("*.rl*")), output="ringlog")
        daemon.kill()
        daemon.wait(10)
        self.assertTrue(self.write("clean"))
        self.assertTrue(self.write("clean", "--yes", output="clean"))

        told = {COMMANDS.get(name, name) for name in commands()} - {None}
        self.assertLessEqual(told, set(SCHEMAS), "commands without a schema")
        self.assertEqual(self.judged, set(SCHEMAS) - {"redundancy-switch", "fleet"})


if __name__ == "__main__":
    main()
