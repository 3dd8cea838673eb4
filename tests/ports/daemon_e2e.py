#!/usr/bin/env python3
"""daemon_e2e.py BUILD: the daemon among people and other programs: logs that nobody reads, clients that hang,
signals, a second daemon, and what is left behind.

Needs root; exit code 77 without.
"""
import fcntl
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts"))
from testbed import BUILD, Testbed, main  # noqa: E402


class Daemon(unittest.TestCase):
    def launch(self, bed, *options, config=None, stderr=subprocess.DEVNULL):
        """The daemon itself, not a shell or tool around it, so that signals and process ids are its own."""
        command = ["ip", "netns", "exec", bed.switch, *map(str, bed.daemon_command(config)), *options]
        process = subprocess.Popen(command, stderr=stderr, env={**os.environ, "RINGLOGDIR": str(bed.directory)})
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

    def test_a_configuration_that_enables_nothing_is_said(self):
        bed = self.enterContext(Testbed(BUILD, ports=1))
        bed.daemon({"mrp/config": {}})
        self.assertIn("enables MSRP on no port", bed.said("msrpd.log"))

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


if __name__ == "__main__":
    main()
