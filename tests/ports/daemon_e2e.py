#!/usr/bin/env python3
"""daemon_e2e.py BUILD: the daemon among people and other programs: logs that nobody reads, clients that hang,
signals, a second daemon, and what is left behind.

Needs root; exit code 77 without.
"""
import fcntl
import json
import os
import pathlib
import pty
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tarfile
import tempfile
import termios
import time
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts"))
from testbed import BUILD, Testbed, main  # noqa: E402


class Daemon(unittest.TestCase):
    def launch(self, bed, *options, config=None, stderr=subprocess.DEVNULL, **environment):
        """The daemon itself, not a shell or tool around it, so that signals and process ids are its own."""
        command = ["ip", "netns", "exec", bed.switch, *map(str, bed.daemon_command(config)), *options]
        process = subprocess.Popen(command, stderr=stderr, 
                                   env={**os.environ, "RINGLOGDIR": str(bed.directory), **environment})
        bed.processes.append(process)
        return process

    def answers(self, bed):
        bed.wait(lambda: bed.control("list").returncode == 0, 10, "msrpd does not answer")

    def test_it_ends_at_once_though_nobody_reads_its_log_and_clients_hang(self):
        bed = self.enterContext(Testbed(BUILD, ports=1))
        reader, writer = os.pipe()
        os.write(writer, bytes(fcntl.fcntl(writer, fcntl.F_GETPIPE_SZ)))
        daemon = self.launch(bed, "--trace", "3", stderr=writer)
        self.answers(bed)
        clients = []
        for _ in range(70):
            client = socket.socket(socket.AF_UNIX)
            client.connect(str(bed.socket))
            client.send(b'{"op":"watch","path":"log"}\n' + 2000 * b'{"op":"get","path":"mrp/attributes"}\n')
            clients.append(client)
        self.answers(bed)
        daemon.send_signal(signal.SIGHUP)
        daemon.send_signal(signal.SIGPIPE)
        self.answers(bed)
        begun = time.monotonic()
        daemon.terminate()
        self.assertEqual(daemon.wait(10), 0)
        self.assertLess(time.monotonic() - begun, 2)
        os.close(reader)
        os.close(writer)
        for client in clients:
            client.close()

    def test_a_second_daemon_for_a_port_or_bridge_ends_and_names_the_first(self):
        for bridge, claim in ((None, "port swp1"), ("br0", "bridge br0")):
            with self.subTest(claim), Testbed(BUILD, ports=2, bridge=bridge) as bed:
                first = self.launch(bed)
                self.answers(bed)
                bed.socket.unlink()
                bed.socket = bed.directory / "other"
                with open(bed.directory / "second", "wb") as said:
                    self.assertEqual(self.launch(bed, stderr=said).wait(10), 1)
                self.assertIn(f"{claim} is run by another msrpd already, process {first.pid}\n", bed.said("second"))
                # A port that is turned on later is no other matter.
                self.launch(bed, config=bed.config() | {"linux/config": {}, "msrp/config": {"intfEnable": {"swp9": True}}})
                self.answers(bed)
                self.assertIn("swp1 is run by another msrpd",
                              bed.control("set", "msrp/config", "intfEnable/swp1", "true").stderr)
                self.assertEqual(bed.read("get", "msrp/config"), {"intfEnable": {"swp9": True}})

    def test_a_group_may_be_large_and_operators_cannot_hide_behind_the_levels_of_the_log(self):
        bed = self.enterContext(Testbed(BUILD, ports=1))
        groups = bed.directory / "group"
        groups.write_text("".join(f"{name}:x:{4242 + i}:" + ",".join(f"somebody{n}" for n in range(600)) + "\n"
                                  for i, name in enumerate(("msrpd", "msrpd-read"))), encoding="utf-8")
        bed.spawn("msrpd.log", bed.switch, "unshare", "-m", "sh", "-ec", f"mount --bind {groups} /etc/group; exec \"$@\"",
                  "sh", *bed.daemon_command())
        self.answers(bed)
        sockets = [pathlib.Path(f"{bed.socket}{door}").stat() for door in ("", ".read")]
        self.assertEqual([(file.st_gid, file.st_mode & 0o777) for file in sockets], [(4242, 0o660), (4243, 0o660)])
        bed.shown("log", "level", "daemon", "error")
        bed.shown("set", "msrp/cliConfig", "srClassAPriority", "4")
        bed.shown("reload")
        bed.wait(lambda: "srClassAPriority: 4 -> 3" in bed.said("msrpd.log"), 5, "the log says nothing")
        for line in ("log/config/level/daemon is now", "srClassAPriority is now 4", "configuration reloaded: 2 fields changed: user 0"):
            self.assertIn(line, bed.said("msrpd.log"))
        self.assertEqual([(event["field"], event["before"], event["after"], event["by"][:6]) for event in
                          bed.read("history")["event"].values() if event["kind"] == "config"][-1],
                         ("srClassAPriority", "4", "3", "user 0"))
        bed.socket = f"{bed.socket}.read"
        self.assertIn("for reading only", bed.control("save").stderr)

    def test_a_configuration_that_enables_nothing_is_said(self):
        bed = self.enterContext(Testbed(BUILD, ports=1))
        bed.daemon({"mrp/config": {}})
        self.assertIn("enables MSRP on no port", bed.said("msrpd.log"))

    def test_a_service_manager_hears_how_it_does_and_the_journal_how_much_a_line_matters(self):
        bed = self.enterContext(Testbed(BUILD, ports=1))
        address = str(bed.directory / "notify")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager, \
                open(bed.directory / "journal", "w+", encoding="utf-8") as journal:
            manager.bind(address)
            manager.settimeout(10)
            file = os.fstat(journal.fileno())
            daemon = self.launch(bed, stderr=journal, NOTIFY_SOCKET=address, WATCHDOG_USEC="400000",
                                 JOURNAL_STREAM=f"{file.st_dev}:{file.st_ino}")

            def hears(*wanted):
                heard = []
                while any(line not in heard for line in wanted):
                    heard += manager.recv(4096).decode().splitlines()
                return [line for line in heard if line in wanted]

            self.assertEqual(hears("WATCHDOG=1", "STATUS=1 port, 0 streams", "READY=1")[-1], "READY=1")
            self.assertEqual(hears("WATCHDOG=1"), ["WATCHDOG=1"])
            self.answers(bed)
            for port in "swp1", "swp8":
                bed.control("set", "msrp/config", f"intfEnable/{port}", "false" if port == "swp1" else "true")
            daemon.send_signal(signal.SIGHUP)
            self.assertEqual(hears("RELOADING=1", "READY=1"), ["RELOADING=1", "READY=1"])
            daemon.terminate()
            hears("STOPPING=1")
            self.assertEqual(daemon.wait(10), 0)
            journal.seek(0)
            lines = journal.read().splitlines()
            self.assertEqual([line for line in lines if not line.startswith("<")], [])
            self.assertTrue([line for line in lines if line.startswith("<5>msrp/config/intfEnable/swp8 is now true")
                             and "user 0" in line], lines)

    def test_a_user_with_three_capabilities_can_run_all_of_it(self):
        abilities = []
        for privileged in True, False:
            with self.subTest(privileged=privileged), Testbed(BUILD, bridge="br0") as bed:
                command = list(map(str, bed.daemon_command(bed.config() | {"linux/config": {
                    "bridge": "br0", "fence": "streams", "streams": "measure"}})))
                if not privileged:
                    # Who is nobody may not get at the folder of the programs.
                    command[0] = shutil.copy(command[0], bed.directory)
                    for file in bed.directory, *bed.directory.iterdir():
                        os.chown(file, 65534, 65534)
                    capabilities = "-all,+net_admin,+net_raw,+bpf"
                    command = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--no-new-privs",
                               f"--inh-caps={capabilities}", f"--ambient-caps={capabilities}",
                               f"--bounding-set={capabilities}", *command]
                bed.spawn("log", bed.switch, *command)
                self.answers(bed)
                bed.talker_and_listeners()
                bed.wait(lambda: bed.carriers() == ["swp2", "swp3"], 10, "no reservation")
                self.assertEqual(bed.multicast_entries("91:e0:")[0]["port"][:3], "swp")
                bed.wait(lambda: [port["problem"] for port in bed.read("get", "linux/fence")["port"].values()] == 3 * [""],
                         10, "no fence")
                self.assertEqual(bed.read("get", "linux/traffic")["problem"], "")
                abilities.append(bed.read("get", "linux/capabilities"))
        self.assertEqual(abilities[0], abilities[1])

    def test_words_may_be_cut_short_and_are_completed(self):
        bed = self.enterContext(Testbed(BUILD, ports=2))
        bed.daemon()
        self.assertEqual(bed.shown("sh", "dom"), bed.shown("show", "domain"))
        self.assertEqual(bed.read("sh", "str"), {})
        self.assertIn("no stream 00:00:00:00:00:00/1", bed.control("sh", "str", "0x1").stderr)
        self.assertIn('"c" may be one of capture, clear, clean', bed.control("c").stderr)
        for words, endings in (("sh", ["show"]), ("show str", ["streams", "stream"]), ("show mrp swp", bed.ports),
                               ("get msrp/co", ["msrp/config"]), ("log level po", ["ports"]),
                               ("set msrp/config intfEnable/", [f"intfEnable/{port}" for port in bed.ports]),
                               ("log level ports de", ["debug"]), (f"--socket {bed.socket} show mrp swp", bed.ports), ("ringlog ", []), ("show --so", ["--socket"])):
            self.assertEqual(subprocess.run(
                [BUILD / "msrpctl", "--complete", f"--socket={bed.socket}", *words.split(" ")], text=True,
                check=True, stdout=subprocess.PIPE).stdout.split(), endings, words)

    def test_one_archive_has_all_that_is_needed_to_find_a_fault(self):
        bed = self.enterContext(Testbed(BUILD, ports=1))
        bed.daemon()
        archive = bed.directory / "support.tar.gz"
        before = set(pathlib.Path(tempfile.gettempdir()).iterdir())
        bed.shown("support", archive)
        self.assertEqual(archive.stat().st_mode & 0o777, 0o600)
        self.assertIn("File exists", bed.control("support", archive).stderr)
        with tarfile.open(archive) as files:
            names = set(files.getnames())
            config = json.load(files.extractfile("msrpd/records/msrp.config.json"))
        self.assertEqual(config, bed.read("get", "msrp/config"))
        self.assertLess({f"msrpd/{name}" for name in ("version", "machine", "journal", "links.json", "queues", "records.json")}
                        | {f"msrpd/records/{path.replace('/', '.')}.json" for path in bed.read("list")}, names)
        archive.unlink()
        bed.socket = "/nowhere"
        bed.shown("support", archive)
        with tarfile.open(archive) as files:
            self.assertIn(b"/nowhere", files.extractfile("msrpd/missing").read())
        archive.unlink()
        # Whatever ends it leaves nothing behind: no room, or a signal while a command takes long.
        room, tools = bed.directory / "room", bed.directory / "tools"
        room.mkdir()
        tools.mkdir()
        (tools / "lsmod").write_text("#!/bin/sh\nsleep 9\n")
        (tools / "lsmod").chmod(0o755)
        line = [BUILD / "msrpctl", "--socket", "/nowhere", "support", archive]
        full = subprocess.run(["unshare", "-m", "sh", "-ec", f"mount -t tmpfs -o nr_inodes=9 none {room}; exec \"$@\"", "sh",
                               *line], env={**os.environ, "TMPDIR": str(room)}, text=True, capture_output=True, check=False)
        self.assertEqual((full.returncode, "No space left" in full.stderr, archive.exists()), (1, True, False), full.stderr)
        with subprocess.Popen(line, env={**os.environ, "TMPDIR": str(room), "PATH": f"{tools}:{os.environ['PATH']}"}) as slow:
            bed.wait(lambda: list(room.glob("*/msrpd/drivers")), 60, "nothing is gathered")
            slow.terminate()
            self.assertEqual(slow.wait(5), -signal.SIGTERM)
        self.assertEqual((list(room.iterdir()), archive.exists()), ([], False))
        left = set(pathlib.Path(tempfile.gettempdir()).iterdir()) - before
        self.assertEqual([file for file in left if "msrpctl" in file.name], [])

    def test_a_demonstration_that_is_told_to_end_twice_leaves_nothing(self):
        demo = subprocess.Popen([sys.executable, TOP / "scripts" / "demo", BUILD], stdout=subprocess.PIPE,
                                start_new_session=True)
        while b"What the programs say" not in demo.stdout.readline():
            pass
        for number in (signal.SIGHUP, signal.SIGHUP, signal.SIGTERM):
            os.killpg(demo.pid, number)
        demo.communicate(timeout=10)
        namespaces = subprocess.run(["ip", "netns", "list"], text=True, capture_output=True, check=True).stdout
        self.assertNotIn(f"msrp-{demo.pid}-", namespaces)


class Terminal:
    """A program in a terminal of its own: what it shows, and what is typed."""

    def __init__(self, test, command, columns=80, rows=24, **environment):
        self.leader, self.end = pty.openpty()
        test.addCleanup(os.close, self.leader)
        test.addCleanup(os.close, self.end)
        self.resize(columns, rows)
        self.before = termios.tcgetattr(self.end)
        self.said = ""
        self.process = subprocess.Popen(
            list(map(str, command)), stdin=self.end, stdout=self.end, stderr=self.end, start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
            env={**{k: v for k, v in os.environ.items() if k not in ("COLUMNS", "NO_COLOR")}, "TERM": "xterm", **environment})
        test.addCleanup(self.process.wait)
        test.addCleanup(self.process.kill)

    def resize(self, columns, rows):
        fcntl.ioctl(self.end, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def type(self, keys):
        os.write(self.leader, keys.encode())

    def hear(self):
        while select.select([self.leader], [], [], 0)[0]:
            self.said += os.read(self.leader, 1 << 16).decode()
        return self.said

    def screen(self):
        """The lines of the last whole picture, without colours."""
        pictures = self.hear().split("\x1b[H")[1:]
        whole = [picture for picture in pictures if "\x1b[J" in picture]
        return plain(whole[-1].split("\x1b[J")[0].replace("\x1b[K", "")).split("\r\n") if whole else [""]

    def printed(self):
        """All that it prints until it ends."""
        while self.process.poll() is None:
            self.hear()
            time.sleep(0.01)
        return self.hear().replace("\r\n", "\n")


def plain(text):
    return re.sub(r"\x1b\[\d+m", "", text)


class Screen(unittest.TestCase):
    def test_tables_have_colours_and_fold_on_a_terminal_only(self):
        bed = self.enterContext(Testbed(BUILD, ports=2))
        bed.daemon()
        bed.station("swp1", "--watch")
        bed.wait(lambda: bed.read("show", "domain")["swp1"]["A"]["state"] == "Core", 10, "no domain")
        show = [BUILD / "msrpctl", "--socket", bed.socket, "show", "domain"]
        piped = bed.shown("show", "domain")
        self.assertNotIn("\x1b", piped)
        for columns, options, environment, coloured in ((80, (), {}, True), (25, (), {}, True), (80, (), {"COLUMNS": "25"}, True),
                                                        (80, ("--width", "25"), {}, True), (80, (), {"NO_COLOR": "1"}, False),
                                                        (80, (), {"TERM": "dumb"}, False), (80, ("--color", "never"), {}, False)):
            with self.subTest((columns, options, environment)):
                text = Terminal(self, [*show, *options], columns, **environment).printed()
                self.assertEqual("\x1b[32mCore\x1b[0m" in text and "\x1b[1mPORT\x1b[0m" in text, coloured, text)
                folded = columns == 25 or options[:1] == ("--width",) or "COLUMNS" in environment
                self.assertEqual(plain(text), bed.shown("show", "domain", "--width", "25") if folded else piped)
        self.assertIn("\x1b[32m", bed.shown("show", "domain", "--color", "always"))
        self.assertEqual(bed.control("show", "domain", "--color", "blue").returncode, 2)

    def test_top_shows_ports_and_streams_and_gives_the_terminal_back(self):
        bed = self.enterContext(Testbed(BUILD, ports=2))
        daemon = bed.daemon()
        bed.talker_and_listeners()
        bed.wait(lambda: bed.carriers() == ["swp2"], 10, "no reservation")
        top = [BUILD / "msrpctl", "--socket", bed.socket, "top"]
        terminal = Terminal(self, top, 80, 8)

        def shows(pattern):
            bed.wait(lambda: any(re.fullmatch(pattern, line) for line in terminal.screen()), 10, f"no line like {pattern}")

        shows(r"swp2  up    1G     A      Core  +\[#-{19}\] +9088/750000")
        shows("2 ports, 1 stream, 1 reserved")
        terminal.type("t")
        shows(r"02:00:00:00:02:01/1  swp1  A      9088  -        \d+s +reserved  to swp2")
        terminal.resize(30, 5)
        shows("02:00:00:00:02:01/1  swp1  A")
        self.assertEqual(max(map(len, terminal.screen())), 30)
        terminal.resize(80, 8)
        daemon.send_signal(signal.SIGSTOP)
        shows(r"msrpd has not answered for \d+ s; what is shown is older")
        daemon.send_signal(signal.SIGCONT)
        shows("2 ports, 1 stream, 1 reserved")
        daemon.kill()
        daemon.wait()
        shows(f"socket {bed.socket}: Connection refused")
        bed.daemon()
        shows("2 ports, 1 stream, 1 reserved")
        # However it ends, also by a fault of its own, the terminal is as it was.
        for end in ("q", "\x03", signal.SIGTERM, signal.SIGHUP, signal.SIGABRT):
            with self.subTest(end):
                terminal.hear()
                self.assertNotEqual(termios.tcgetattr(terminal.end), terminal.before)
                terminal.type(end) if isinstance(end, str) else terminal.process.send_signal(end)
                self.assertTrue(terminal.printed().endswith("\x1b[0m\x1b[?25h\x1b[?1049l"))
                self.assertEqual(terminal.process.returncode, -end if end == signal.SIGABRT else 0)
                self.assertEqual(termios.tcgetattr(terminal.end), terminal.before)
                terminal = Terminal(self, top)
                shows("2 ports, 1 stream, 1 reserved")
        self.assertEqual([line.split()[0] for line in bed.shown("top", "--streams").splitlines()],
                         ["2", "STREAM", "02:00:00:00:02:01/1"])
        bed.socket = "/nowhere"
        self.assertIn("socket /nowhere: ", bed.control("top").stderr)


if __name__ == "__main__":
    main()
