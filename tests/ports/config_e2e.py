#!/usr/bin/env python3
"""config_e2e.py BUILD: the daemon's configuration while it runs: read again, saved, and for all ports of a bridge.

Needs root; exit code 77 without.
"""
import json
import pathlib
import signal
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, STREAM, TALK, Testbed, main  # noqa: E402


class Configuration(unittest.TestCase):
    def bed_with(self, **options):
        bed = self.enterContext(Testbed(BUILD, **options))
        self.rest = bed.directory / "d"
        self.rest.mkdir()
        return bed

    def write(self, bed, **records):
        """The first file; the names of records with dots."""
        (bed.directory / "msrpd.json").write_text(json.dumps(bed.config() | records), encoding="utf-8")

    def start(self, bed, name="msrpd.log", socket=None):
        socket = socket or bed.socket
        process = bed.spawn(name, bed.switch, BUILD / "msrpd", "--config", bed.directory / "msrpd.json", self.rest,
                            "--socket", socket)
        bed.wait(lambda: socket.exists() or process.poll() is not None, 10, "msrpd does not answer")
        return process

    def age(self, bed):
        """Since when the stream is carried to swp2, on the daemon's clock."""
        stream = bed.read("show", "streams")[STREAM]
        return stream["ports"]["swp2"]["age"] if stream["ports"]["swp2"]["carried"] else -1

    def test_what_is_not_changed_keeps_its_reservations_and_an_error_changes_nothing(self):
        bed = self.bed_with()
        self.write(bed)
        daemon = self.start(bed)
        bed.talker_and_listeners()
        bed.wait(lambda: bed.carriers() == ["swp2", "swp3"], 10, "the stream is not carried")
        # Its joins are heard about: any leave would be told to the stations.
        heard = bed.said("swp2")
        time.sleep(1)
        bed.shown("set", "msrp/cliConfig", "maxFrameSizeLimit", "900")
        bed.shown("set", "msrp/config", "intfEnable/swp9", "true")
        before = bed.read("get", "msrp/cliConfig")
        (self.rest / "1.json").write_text('{"msrp/cliConfig": {"srPvid": {"swp2": 2, "swp3": 9}, "srClassBPriority": 9}}')
        self.assertIn("1.json: msrp/cliConfig/srClassBPriority: 9 is not from 0 to 7",
                      bed.control("reload").stderr)
        daemon.send_signal(signal.SIGHUP)
        bed.wait(lambda: "not reloaded: " in bed.said("msrpd.log"), 5, "the log says nothing")
        self.assertEqual(bed.read("get", "msrp/cliConfig"), before)
        (self.rest / "1.json").write_text('{"msrp/cliConfig": {"srPvid": {"swp2": 2, "swp3": 9}}}')
        self.assertEqual(bed.read("reload"), {
            "msrp/cliConfig/srPvid/swp2": {"was": None, "is": 2}, "msrp/cliConfig/srPvid/swp3": {"was": None, "is": 9},
            "msrp/cliConfig/maxFrameSizeLimit": {"was": 900, "is": 1500},
            "msrp/config/intfEnable/swp9": {"was": True, "is": None}})
        # The port whose VLAN is another one starts over; the other does not notice.
        self.assertGreaterEqual(self.age(bed), 1)
        self.assertEqual(bed.said("swp2"), heard)
        (self.rest / "1.json").write_text('{"linux/config": {"bridge": "br0"}, "stp/status": {"mode": "None"}}')
        self.assertIn("cannot be given, it comes from bridge", bed.control("reload").stderr)
        (self.rest / "1.json").unlink()
        daemon.send_signal(signal.SIGHUP)
        bed.wait(lambda: "configuration: msrp/cliConfig/srPvid/swp3: 9 -> nothing" in bed.said("msrpd.log"), 5,
                 "the log says nothing")
        self.assertGreaterEqual(self.age(bed), 1)

    def test_what_was_set_is_saved_and_is_there_after_a_restart(self):
        bed = self.bed_with(ports=1)
        self.write(bed)
        daemon = self.start(bed)
        for field, value in (("latency/swp1", '{"A": 7}'), ("shapeRateFactor", "1.25")):
            bed.shown("set", "msrp/cliConfig", field, value)
        bed.shown("set", "msrp/config", "intfEnable/swp1", "false")
        wanted = [bed.read("get", path) for path in ("msrp/config", "msrp/cliConfig", "bridging/config")]
        self.assertIn(f"saved to {self.rest}/90-saved.json\n", bed.shown("save"))
        self.assertEqual([file.name for file in self.rest.iterdir()], ["90-saved.json"])
        daemon.terminate()
        self.assertEqual(daemon.wait(10), 0)
        self.start(bed)
        self.assertEqual(wanted, [bed.read("get", path) for path in ("msrp/config", "msrp/cliConfig", "bridging/config")])
        self.assertEqual(bed.shown("save"), "nothing to save\n")

    def test_all_ports_of_a_bridge_are_those_that_it_has(self):
        bed = self.bed_with(ports=3, bridge="br0")
        every = {"intfEnable": {"*": True, "swp3": False}}
        self.write(bed, **{"msrp/config": every, "mvrp/config": every})
        bed.switch_ip("link", "set", "swp2", "nomaster")

        def runs(*ports):
            bed.wait(lambda: sorted(bed.read("show", "ports")) == list(ports)
                     and list(bed.read("get", "mvrp/status/intfStatus")) == list(ports), 10, f"not just {ports} run")

        # Another daemon has one of them.
        bed.switch_ip("link", "add", "swp4", "type", "veth", "peer", "name", "swp5")
        bed.switch_ip("link", "set", "swp4", "master", "br0", "up")
        bed.switch_ip("link", "set", "swp5", "up")
        other = bed.directory / "other.json"
        other.write_text('{"msrp/config": {"intfEnable": {"swp4": true}}}', encoding="utf-8")
        second = bed.spawn("other", bed.switch, BUILD / "msrpd", "--config", other, "--socket", bed.directory / "other.s")
        bed.wait((bed.directory / "other.s").exists, 10, "the second daemon does not start")
        self.start(bed)
        runs("swp1")
        self.assertIn("port swp4 is run by another msrpd already", bed.said("msrpd.log"))
        self.assertEqual(bed.read("get", "msrp/config"), every)
        bed.switch_ip("link", "set", "swp2", "master", "br0")
        runs("swp1", "swp2")
        second.terminate()
        runs("swp1", "swp2", "swp4")
        # In other words, it is the same.
        self.write(bed, **{"msrp/config": {"intfEnable": {"swp1": True, "swp2": True, "swp4": True}}, "mvrp/config": every})
        bed.station("swp1", "--talk", TALK)
        bed.station("swp2", "--listen", STREAM)
        bed.wait(lambda: bed.carriers() == ["swp2"], 10, "the stream is not carried")
        time.sleep(1)
        self.assertEqual(bed.read("reload")["msrp/config/intfEnable/*"], {"was": True, "is": None})
        bed.shown("set", "msrp/config", "intfEnable/*", "true")
        bed.shown("set", "msrp/config", "intfEnable/swp2", "null")
        self.assertGreaterEqual(self.age(bed), 1)
        self.assertIn("takes effect at the start only", self.refused(bed, {"linux/config": {"bridge": "br1"}}))
        bed.switch_ip("link", "set", "swp2", "nomaster")
        bed.shown("set", "mvrp/config", "intfEnable/swp4", "false")
        bed.wait(lambda: sorted(bed.read("show", "ports")) == ["swp1", "swp3", "swp4"], 10, "a port that left still runs")

    def refused(self, bed, records):
        (self.rest / "wrong.json").write_text(json.dumps(records), encoding="utf-8")
        return bed.control("reload").stderr

    def test_the_files_of_a_package_are_found_and_only_judged(self):
        bed = self.bed_with(ports=1)

        def check(*files, etc="true"):
            """Where /etc is what that command makes of an empty one."""
            done = subprocess.run(["unshare", "-m", "sh", "-ec", f"mount -t tmpfs none /etc; {etc}; exec \"$@\"", "sh",
                                   BUILD / "msrpd", "--check", *files], text=True, capture_output=True, check=False)
            return done.returncode, done.stdout + done.stderr

        absent = (2, "msrpd: /etc/msrpd/msrpd.json: No such file or directory\n")
        self.assertEqual(check(), absent)
        made = "mkdir -p /etc/msrpd; echo '{}' >/etc/msrpd/msrpd.json"
        self.assertEqual(check(etc=made), (0, "good: 1 file\n"))
        wrong = made + "; mkdir /etc/msrpd/msrpd.d; echo '{\"msrp/config\": 7}' >/etc/msrpd/msrpd.d/1.json"
        self.assertEqual(check(etc=wrong), (2, "msrpd: /etc/msrpd/msrpd.d/1.json: msrp/config: 7 is not an object\n"))
        (bed.directory / "a").write_text('{"msrp/config": {"intfEnable": {"*": true}}}', encoding="utf-8")
        (bed.directory / "b").write_text('{"linux/config": {"bridge": "br0"}}', encoding="utf-8")
        self.assertEqual(check(bed.directory / "a", bed.directory / "b"), (0, "good: 2 files\n"))
        self.assertEqual(check(bed.directory / "a")[0], 2)


if __name__ == "__main__":
    main()
