#!/usr/bin/env python3
"""history_e2e.py BUILD: what the daemon remembers of reservations in a bridge of the kernel, across its death, and
what those are told who follow it.

Needs root; exit code 77 without.
"""
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts"))
from testbed import BUILD, STREAM, TALK, Testbed, main  # noqa: E402


class History(unittest.TestCase):
    def launch(self, bed):
        state = bed.directory / "state"
        state.mkdir(mode=0o700, exist_ok=True)
        command = ["ip", "netns", "exec", bed.switch, *map(str, bed.daemon_command()), "--history-size", "1"]
        with open(bed.directory / "msrpd.log", "ab") as log:
            process = subprocess.Popen(command, stderr=log, env={**os.environ, "RINGLOGDIR": str(bed.directory),
                                                                 "STATE_DIRECTORY": str(state)})
        bed.processes.append(process)
        bed.wait(lambda: bed.control("list").returncode == 0, 10, "msrpd does not answer")
        return process

    def follow(self, bed, *options):
        follower = subprocess.Popen([BUILD / "msrpctl", "--socket", bed.socket, "--json", *options], text=True,
                                    stdout=subprocess.PIPE, start_new_session=True)
        self.addCleanup(follower.stdout.close)
        bed.processes.append(follower)
        return follower

    def kinds(self, bed, *options):
        return [event["kind"] for event in bed.read("history", *options)["event"].values()]

    def test_a_reservation_is_timed_and_remembered_across_a_kill(self):
        bed = self.enterContext(Testbed(BUILD, ports=2, bridge="br0"))
        daemon = self.launch(bed)
        follower = self.follow(bed, "history", "--follow", "--since", "1")
        listener = bed.station("swp2", "--listen", STREAM)
        talker = bed.station("swp1", "--talk", TALK)
        whole = lambda: bed.read("show", "times")["stage"]["whole"]["count"]  # noqa: E731
        bed.wait(lambda: whole() == 1, 10, "the reservation is not in the kernel")
        bed.wait(lambda: bed.control("show", "stream", STREAM).returncode == 0, 10, "the stream is not published")
        stages = bed.read("show", "stream", STREAM)["stages"]["swp2"]
        self.assertTrue(stages["talker"] <= stages["declared"] <= stages["admitted"] <= stages["group"], stages)
        self.assertTrue(stages["admitted"] <= stages["queue"], stages)
        self.assertIn("GROUP", bed.shown("show", "stream", STREAM))

        bed.control("set", "msrp/cliConfig", "srClassABandwidthPercent", "70")
        change = list(bed.read("history", "--last", "1")["event"].values())[0]
        self.assertEqual([change[name] for name in ("kind", "text", "field", "before", "after")],
                         ["config", "msrp/cliConfig", "srClassABandwidthPercent", "75", "70"])
        self.assertRegex(change["by"], "^user 0, process [0-9]+$")
        before = bed.read("history")
        reader = subprocess.run([BUILD / "msrpctl", "--socket", f"{bed.socket}.read", "--json", "history"], text=True,
                                capture_output=True, check=True)
        self.assertEqual(json.loads(reader.stdout), before)
        lines = [json.loads(follower.stdout.readline()) for _ in before["event"]]
        daemon.kill()
        daemon.wait()
        self.assertEqual(follower.stdout.read(), "")
        self.assertEqual([line["sequence"] for line in lines], [int(number) for number in before["event"]])
        self.assertEqual(sum(line["missing"] for line in lines), 0)

        self.launch(bed)
        after = bed.read("history")["event"]
        self.assertEqual({number: after[number] for number in before["event"]}, before["event"])
        self.assertIn("takes over from one that ended without a word", after[str(before["next"])]["text"])
        bed.wait(lambda: self.kinds(bed, "--stream", STREAM).count("reserved") == 2, 25, "not reserved again")
        talker.terminate()
        bed.wait(lambda: "gone since" in bed.control("show", "stream", STREAM).stdout, 30, "the stream is still there")
        self.assertIn("swp1, the port left the domain of the class", bed.shown("show", "stream", STREAM))
        self.assertEqual(bed.read("show", "stream", STREAM)["gone"]["port"],
                         {"swp2": {"holding": "reserved", "code": 0}})
        self.assertEqual(self.kinds(bed, "--stream", STREAM, "--port", "swp1")[-1], "left")
        listener.terminate()

    def test_who_reads_slowly_is_told_what_is_missing_and_nobody_else_loses_anything(self):
        bed = self.enterContext(Testbed(BUILD, ports=2))
        self.launch(bed)
        first = bed.read("history", "--port", "swp1")["event"]
        follower = self.follow(bed, "watch", "events", "--since", "1")
        line = json.loads(follower.stdout.readline())
        self.assertEqual((line["sequence"], line["missing"]), (1, 0))
        os.kill(follower.pid, signal.SIGSTOP)
        operator = self.enterContext(socket.socket(socket.AF_UNIX))
        operator.connect(str(bed.socket))
        answers = self.enterContext(operator.makefile())
        for number in range(6000):
            operator.sendall(b'{"op":"set","path":"msrp/cliConfig","field":"srClassABandwidthPercent","value":%d}\n'
                             % (50 + number % 2))
            self.assertNotIn("error", json.loads(answers.readline()))
        newest = bed.read("history")["next"] - 1
        self.assertGreater(newest, 6000)
        os.kill(follower.pid, signal.SIGCONT)
        told, missing = 1, 0
        while line["sequence"] < newest:
            line = json.loads(follower.stdout.readline())
            told, missing = told + 1, missing + line["missing"]
        self.assertEqual(told + missing, newest)
        self.assertGreater(missing, 1500)
        self.assertEqual(bed.read("history", "--port", "swp1")["event"], first)
        for options, problem in ((["--since", "99999"], f"the next event will be number {newest + 1}"),
                                 (["--since", "soon"], "--since soon is neither"),
                                 (["--stream", "one"], 'stream "one" is neither')):
            self.assertIn(problem, bed.control("history", *options).stderr)
        self.assertEqual(self.kinds(bed, "--since", "2200-01-01"), [])


if __name__ == "__main__":
    main()
