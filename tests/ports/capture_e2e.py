#!/usr/bin/env python3
"""capture_e2e.py BUILD: what `msrpctl capture` writes, against what another program sees on the same ports.

Needs root and tshark; exit code 77 without them.
"""
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import STREAM, Testbed  # noqa: E402

BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()
TALKER_ADVERTISE, LISTENER = "1", "3"
RECEIVED, SENT = 1, 2
LEAVE = 5


def tshark(file, *arguments):
    return subprocess.run(["tshark", "-r", file, *arguments], check=True, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL).stdout


def frames(file):
    """Direction (0 where the file does not tell), octets in hexadecimal, time and port of each frame."""
    found = []
    for packet in json.loads(tshark(file, "-T", "json", "-x")):
        layers = packet["_source"]["layers"]
        flags = layers["frame"].get("frame.packet_flags_tree", {}).get("frame.packet_flags_direction", "0")
        found.append((int(flags, 0), layers["frame_raw"][0], float(layers["frame"]["frame.time_epoch"]),
                      layers["frame"]["frame.interface_id_tree"]["frame.interface_name"]))
    return found


class Captures(unittest.TestCase):
    """Several captures at once while a reservation is made; the tests look at what they wrote."""

    @classmethod
    def setUpClass(cls):
        bed = cls.bed = cls.enterClassContext(Testbed(BUILD))
        reference = bed.spawn("dumpcap", bed.switch, "dumpcap", "-q", "-f", "ether proto 0x22ea", "-i", "swp1", "-i",
                              "swp2", "-w", bed.directory / "reference")
        bed.wait(lambda: "File:" in bed.said("dumpcap"), 10, "no capture has begun")
        daemon = bed.daemon()
        cls.captures = {"one": cls.capture("one", "swp1", bed.directory / "one"),
                        "two": cls.capture("two", "swp2", "-"),
                        "again": cls.capture("again", "swp2", bed.directory / "again"),
                        "three": cls.capture("three", "swp3", bed.directory / "three", "--count", "2"),
                        "last": cls.capture("last", "swp3", bed.directory / "last")}
        bed.talker_and_listeners()
        bed.wait(lambda: bed.carriers() == ["swp2", "swp3"], 10, "no reservation")
        bed.wait(lambda: f"listener {STREAM} Ready\n" in bed.said("swp1"), 10, "the talker hears no Ready")
        cls.captures["one"].send_signal(signal.SIGINT)
        for name in ("two", "again"):
            cls.captures[name].send_signal(signal.SIGTERM)
        daemon.terminate()
        cls.exit_codes = {name: process.wait(10) for name, process in cls.captures.items()}
        cls.frames = {name: frames(bed.directory / name) for name in cls.captures}
        # The other program writes what it sees only now and then.
        bed.wait(lambda: all(cls.seen(frame, name) for name in ("one", "two") for frame in cls.frames[name]), 10,
                 "another program does not see the same frames")
        reference.terminate()
        reference.wait()
        cls.reference = frames(bed.directory / "reference")

    @classmethod
    def capture(cls, name, port, file, *options):
        """Starts one and waits until it has begun."""
        process = cls.bed.spawn(f"{name}.log" if file != "-" else name, cls.bed.switch, BUILD / "msrpctl", "--socket",
                                cls.bed.socket, "capture", port, file, *options)
        path = cls.bed.directory / name
        cls.bed.wait(lambda: path.exists() and path.stat().st_size > 0, 10, f"no capture on {port}")
        return process

    @classmethod
    def seen(cls, frame, name):
        """Whether the other program has written a frame at least as often as it stands in a capture."""
        octets = bytes.fromhex(frame[1])
        written = (cls.bed.directory / "reference").read_bytes().count(octets)
        return written >= [other[1] for other in cls.frames[name]].count(frame[1])

    def test_each_direction_holds_the_frames_that_another_program_sees(self):
        for name, port in {"one": "swp1", "two": "swp2", "again": "swp2"}.items():
            ours = self.bed.address(port).replace(":", "")
            for direction in (RECEIVED, SENT):
                mine = [frame for frame in self.frames[name] if frame[0] == direction]
                others = [frame for frame in self.reference
                          if frame[3] == port and (frame[1][12:24] == ours) == (direction == SENT)]
                # The other program began earlier and ends later.
                first = [frame[1] for frame in others].index(mine[0][1])
                others = others[first:first + len(mine)]
                self.assertEqual([frame[1] for frame in mine], [frame[1] for frame in others])
                self.assertEqual({frame[3] for frame in mine}, {port})
                for frame, other in zip(mine, others):
                    self.assertAlmostEqual(frame[2], other[2], delta=0.5)

    def test_both_sides_of_the_reservation_are_there(self):
        for name, (received, sent) in {"one": (TALKER_ADVERTISE, LISTENER), "two": (LISTENER, TALKER_ADVERTISE)}.items():
            for direction, kind in ((RECEIVED, received), (SENT, sent)):
                self.assertNotEqual("", tshark(self.bed.directory / name, "-Y", f"mrp-msrp.attribute_type == {kind} && "
                                               f"frame.packet_flags_direction == {direction}"))

    def test_no_frame_is_malformed_or_odd(self):
        for name in self.captures:
            self.assertEqual(tshark(self.bed.directory / name, "-Y", "_ws.malformed || _ws.expert || !mrp-msrp"), "")

    def test_an_end_by_signal_or_count_is_a_good_one_and_that_of_the_daemon_is_not(self):
        self.assertEqual(self.exit_codes, {name: 1 if name == "last" else 0 for name in self.captures})
        self.assertEqual(len(self.frames["three"]), 2)
        self.assertEqual([self.bed.said(f"{name}.log") for name in ("one", "again", "three")], ["", "", ""])

    def test_the_daemons_last_words_are_in_a_capture_that_sees_its_end(self):
        self.assertRegex(self.bed.said("last.log"), r"\Amsrpctl: .*closed it\n\Z")
        self.assertNotEqual("", tshark(self.bed.directory / "last", "-Y", f"frame.packet_flags_direction == {SENT} && "
                                       f"mrp-msrp.three_packed_event == {LEAVE}"))


class Troubles(unittest.TestCase):
    def test_what_cannot_be_done_is_told_in_one_line(self):
        bed = self.enterContext(Testbed(BUILD, ports=1))
        bed.daemon()
        file = bed.directory / "none"
        for arguments, code, pieces in ((("swp9", file), 1, ["swp9"]),
                                        (("swp1", "/nowhere/file"), 1, ["/nowhere/file", "No such file"]),
                                        (("swp1", "/dev/full"), 1, ["/dev/full", "No space"]),
                                        (("swp1", file, "--count", "0"), 2, ["--count", "0"]),
                                        (("swp1",), 2, ["FILE"])):
            done = bed.control("capture", *arguments)
            self.assertEqual((done.returncode, done.stderr.count("\n"), done.stdout), (code, 1, ""), done.stderr)
            for piece in pieces:
                self.assertIn(piece, done.stderr)
        self.assertFalse(file.exists())


if __name__ == "__main__":
    if os.geteuid() != 0 or not shutil.which("tshark"):
        print("skipped: needs root and tshark")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
