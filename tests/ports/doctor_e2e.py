#!/usr/bin/env python3
"""doctor_e2e.py BUILD: what `msrpctl doctor` finds is gone once the command that it names was carried out.

Needs root and ethtool; exit code 77 without.
"""
import fcntl
import json
import os
import pathlib
import struct
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, main  # noqa: E402
from traffic import inside  # noqa: E402

TUNSETIFF, IFF_TAP, IFF_NO_PI = 0x400454ca, 2, 0x1000


class Doctor(unittest.TestCase):
    def setUp(self):
        self.namespace = f"msrp-{os.getpid()}-doctor"
        subprocess.run(["ip", "netns", "add", self.namespace], check=True)
        self.addCleanup(subprocess.run, ["ip", "netns", "del", self.namespace], check=True)

    def run_inside(self, *command):
        return subprocess.run(["ip", "netns", "exec", self.namespace, *map(str, command)], text=True, check=False,
                              capture_output=True)

    def shell(self, command):
        done = self.run_inside("sh", "-ec", command)
        self.assertEqual((done.returncode, done.stderr), (0, ""), command)

    def doctor(self, *arguments):
        """The exit code and the findings about the network; those about the kernel are not for a test to mend."""
        done = self.run_inside(BUILD / "msrpctl", "--json", "doctor", *arguments)
        self.assertEqual(done.stderr, "")
        return done.returncode, {(device, check): found for device, checks in json.loads(done.stdout).items()
                                 for check, found in checks.items() if device != "kernel"}

    def mend_all(self):
        """What was found and mended."""
        mended = set()
        while True:
            code, findings = self.doctor()
            mendable = {key: found["command"] for key, found in findings.items() if found["command"]}
            self.assertFalse(mended & mendable.keys(), "mended, and found again")
            if not mendable:
                self.assertEqual(code, 0, findings)
                return mended
            key, command = next(iter(mendable.items()))
            self.shell(command)
            mended.add(key)

    def test_every_command_mends_its_finding(self):
        self.shell("ip link add p1 numtxqueues 4 numrxqueues 4 type veth peer name p2; ip link set p2 up")
        code, findings = self.doctor("--bridge", "br7")
        self.assertEqual((code, list(findings)), (1, [("br7", "bridge")]))
        self.shell(findings["br7", "bridge"]["command"])
        self.assertEqual(list(self.doctor()[1])[0], ("br7", "ports"))

        self.shell("ip link set p1 master br7")
        filtering = self.run_inside("ip", "link", "set", "br7", "type", "bridge", "vlan_filtering", "1").returncode == 0
        expected = {("br7", "up"), ("br7", "snooping"), ("br7", "forwardMask"), ("br7", "groups"), ("p1", "up"),
                    ("p1", "queues"), ("t1", "speed"), *([("p1", "vlan"), ("t1", "vlan")] if filtering else [])}
        with inside(self.namespace), open("/dev/net/tun", "r+b", buffering=0) as tap:
            fcntl.ioctl(tap, TUNSETIFF, struct.pack("16sH14x", b"t1", IFF_TAP | IFF_NO_PI))
            self.shell("ip link set t1 up master br7; ethtool -s t1 speed 10 duplex half")
            self.shell("""ip link set br7 down type bridge mcast_snooping 0 group_fwd_mask 0x4008 mcast_hash_max 16
                          tc qdisc add dev p1 root handle 1: pfifo""")
            if filtering:
                self.shell("bridge vlan add dev p1 vid 2 pvid untagged")
            self.assertEqual(self.mend_all(), expected)
            self.shell("ethtool -s t1 duplex half")
            self.assertEqual(self.mend_all(), {("t1", "duplex")})
        self.assertIn("group_fwd_mask 0x8 ", self.run_inside("ip", "-d", "link", "show", "br7").stdout)

    def test_the_only_bridge_needs_no_name(self):
        self.assertEqual(list(self.doctor()[1]), [("br0", "bridge")])
        self.shell("ip link add br1 type bridge; ip link add br2 type bridge")
        done = self.run_inside(BUILD / "msrpctl", "doctor")
        self.assertEqual((done.returncode, done.stderr.count("\n")), (2, 1))
        self.assertIn("br1, br2", done.stderr)


if __name__ == "__main__":
    main("ethtool")
