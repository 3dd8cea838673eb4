"""A switch of this machine's own: network namespaces, cables between them, the daemon and end stations.

Everything has the process id in its name, sends nothing anywhere else, and vanishes with the `with` block that
made it, however that ends.
"""
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()  # of the script that is run
STREAM = "0x200000002010001"  # 02:00:00:00:02:01/1
DESTINATION = "91:e0:f0:00:00:01"
VLAN = 2
TALK = f"{STREAM},{DESTINATION},{VLAN},A,100,1"  # class A, at most 100 octets in a frame, 1 frame in an interval
STREAM_KBPS = 9088


class Failure(Exception):
    """The network does not do what it should; the text is for the person in front of it."""


class Bed:
    """Namespaces and programs in them: what a `with` block has while it lasts."""

    def __init__(self, build):
        self.build = pathlib.Path(build)
        self.prefix = f"msrp-{os.getpid()}-"
        self.directory = None
        self.namespaces = []
        self.processes = []
        self.handlers = {}

    def __enter__(self):
        # A signal must reach the end of the block as well; an interrupt also where the shell that started this
        # in the background has turned it off.
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
            if number == signal.SIGINT or signal.getsignal(number) != signal.SIG_IGN:
                self.handlers[number] = signal.signal(number, self._end)
        try:
            self.directory = pathlib.Path(tempfile.mkdtemp(prefix=self.prefix))
            self.set_up()
        except BaseException:
            self.__exit__()
            raise
        return self

    def set_up(self):
        """Makes what is there from the beginning."""

    def __exit__(self, *_):
        self._ignore_signals()
        for process in self.processes:
            process.kill()
        for process in self.processes:
            process.wait()
        for name in self.namespaces:
            subprocess.run(["ip", "netns", "del", name], stderr=subprocess.DEVNULL, check=False,
                           start_new_session=True)
        if self.directory:
            shutil.rmtree(self.directory, ignore_errors=True)
        for number, handler in self.handlers.items():
            signal.signal(number, handler)

    def _ignore_signals(self):
        for number in self.handlers:
            signal.signal(number, lambda *_: None)

    def _end(self, number, _):
        # A closed terminal says it twice, and a supervisor in several words.
        self._ignore_signals()
        raise KeyboardInterrupt if number == signal.SIGINT else SystemExit(128 + number)

    @staticmethod
    def _ip(*arguments):
        done = subprocess.run(["ip", *arguments], stderr=subprocess.PIPE, text=True, check=False,
                              start_new_session=True)
        if done.returncode != 0:
            raise Failure(f"ip {' '.join(arguments)}: {done.stderr.strip()}")

    def namespace(self, name):
        """Makes one of that name."""
        self.namespaces.append(name)
        self._ip("netns", "add", name)

    def spawn(self, name, namespace, *command):
        """Starts a program; what it says is found under `name` by `said`."""
        with open(self.directory / name, "wb") as log:
            process = subprocess.Popen(["ip", "netns", "exec", namespace, *map(str, command)], stdout=log,
                                       stderr=log, stdin=subprocess.DEVNULL, start_new_session=True,
                                       env={**os.environ, "RINGLOGDIR": str(self.directory)})
        self.processes.append(process)
        return process

    def said(self, name):
        return (self.directory / name).read_text(encoding="utf-8", errors="replace")

    def msrpctl(self, socket, *arguments):
        return subprocess.run([self.build / "msrpctl", "--socket", socket, *arguments], text=True,
                              capture_output=True, check=False)

    def msrpd_command(self, name, socket, config):
        file = self.directory / f"{name}.json"
        file.write_text(json.dumps(config, indent=2), encoding="utf-8")
        return [self.build / "msrpd", "--config", file, "--socket", socket]

    def msrpd(self, name, namespace, socket, config):
        """Starts a daemon and waits until it answers."""
        process = self.spawn(f"{name}.log", namespace, *self.msrpd_command(name, socket, config))

        def answers():
            if process.poll() is not None:
                raise Failure(f"{name} ended with exit code {process.returncode}: {self.said(name + '.log').strip()}")
            return socket.exists() and self.msrpctl(socket, "list").returncode == 0

        self.wait(answers, 10, f"{name} does not answer")
        return process

    def wait(self, condition, seconds, what, every=0.05):
        """Until the condition holds, and how long that took; a failure that says `what` after so many seconds."""
        begun = time.monotonic()
        while not condition():
            if time.monotonic() > begun + seconds:
                raise Failure(f"{what} after {seconds} s")
            time.sleep(every)
        return time.monotonic() - begun


class Testbed(Bed):
    """Ports swp1, swp2, ... of the switch, each with a cable to the eth0 of a station's namespace.

    With `bridge`, the switch is a Linux bridge of that name; without, the daemon only keeps its records.
    """

    def __init__(self, build, ports=3, bridge=None, queues=1):
        super().__init__(build)
        self.queues = str(queues)  # transmit queues of each port
        self.bridge = bridge
        self.ports = [f"swp{n}" for n in range(1, ports + 1)]
        self.switch = self.prefix + "switch"

    def set_up(self):
        self.socket = self.directory / "control"
        self.namespace(self.switch)
        if self.bridge:
            self.make_bridge()
        for port in self.ports:
            self.namespace(self.station_of(port))
            self.cable(port)

    def station_of(self, port):
        """The namespace behind a port."""
        return f"{self.prefix}station{port.removeprefix('swp')}"

    def address(self, port):
        """The switch port's own address; the station's ends in the same number."""
        return f"02:00:00:00:01:{int(port.removeprefix('swp')):02x}"

    def cable(self, port):
        """Joins a port and its station."""
        station = self.station_of(port)
        self._ip("link", "add", port, "netns", self.switch, "address", self.address(port),
                 "numtxqueues", self.queues, "numrxqueues", self.queues, "type", "veth",
                 "peer", "name", "eth0", "address", self.address(port).replace(":01:", ":02:"), "netns", station)
        if self.bridge:
            self.switch_ip("link", "set", port, "master", self.bridge)
        self.switch_ip("link", "set", port, "up")
        self._ip("-n", station, "link", "set", "eth0", "up")

    def make_bridge(self):
        self.switch_ip("link", "add", self.bridge, "up", "type", "bridge", "mcast_snooping", "1")

    def switch_ip(self, *arguments):
        """ip, in the switch's namespace."""
        self._ip("-n", self.switch, *arguments)

    def tool(self, line):
        """ip, bridge or tc in the switch's namespace, with what follows in the line; what it prints."""
        name, *words = line.split()
        return subprocess.run([name, "-n", self.switch, *words], text=True, check=True, stdout=subprocess.PIPE).stdout

    def dumpcap(self, condition, file):
        """Another program that has begun to write what it hears on all ports."""
        process = self.spawn("dumpcap", self.switch, "dumpcap", "-q", "-f", condition,
                             *(word for port in self.ports for word in ("-i", port)), "-w", file)
        self.wait(lambda: "File:" in self.said("dumpcap"), 60, "no capture has begun")
        return process

    def link(self, port, state):
        """Sets the station's end of a cable "up" or "down"."""
        self._ip("-n", self.station_of(port), "link", "set", "eth0", state)

    def received(self, port):
        """Frames that have come in on a port, by the kernel's count."""
        return json.loads(self.tool(f"ip -s -j link show {port}"))[0]["stats64"]["rx"]["packets"]

    def multicast_entries(self, begin):
        """The entries of the kernel's multicast table whose addresses begin like that."""
        table = json.loads(self.tool("bridge -j mdb show")) or [{}]
        return [entry for entry in table[0].get("mdb", []) if entry["grp"].startswith(begin)]

    def config(self):
        """A small configuration.  The kernel's idea of a virtual cable's speed is fiction, so it is given."""
        if self.bridge:
            switch = {"linux/config": {"bridge": self.bridge}}
        else:
            switch = {
                "bridging/config": {
                    "bridgeMac": "02:00:00:00:00:01",
                    "vlanConfig": {str(VLAN): {"intf": {port: {"tagged": True} for port in self.ports}}},
                },
                "stp/status": {"mode": "None"},
            }
        return switch | {
            "msrp/config": {"intfEnable": {port: True for port in self.ports}},
            "interface/status/eth/phy/all": {
                "intfStatus": {port: {"speedEnum": "1G"} for port in self.ports}},
        }

    def daemon_command(self, config=None):
        return self.msrpd_command("msrpd", self.socket, config or self.config())

    def daemon(self, config=None):
        """Starts the switch's daemon and waits until it answers."""
        return self.msrpd("msrpd", self.switch, self.socket, config or self.config())

    def station(self, port, *arguments):
        """Starts an end station behind a port; it says under the port's name what it hears."""
        return self.spawn(port, self.station_of(port), self.build / "msrp-station", "--interface", "eth0",
                          *arguments)

    def talker_and_listeners(self):
        """The talker of one stream behind the first port, listeners behind all others."""
        first, *others = self.ports
        return [self.station(first, "--talk", TALK), *(self.station(port, "--listen", STREAM) for port in others)]

    def control(self, *arguments):
        return self.msrpctl(self.socket, *arguments)

    def shown(self, *arguments):
        """What msrpctl prints."""
        done = self.control(*arguments)
        if done.returncode != 0:
            raise Failure(f"msrpctl {' '.join(arguments)}: {done.stderr.strip()}")
        return done.stdout

    def read(self, *arguments):
        """What msrpctl says, as a value."""
        return json.loads(self.shown("--json", *arguments))

    def carriers(self):
        """The ports that carry the stream."""
        stream = self.read("show", "streams").get(STREAM)
        return [port for port, state in stream["ports"].items() if state["carried"]] if stream else []


def tshark(file, *arguments):
    """What another decoder says of captured frames."""
    return subprocess.run(["tshark", "-r", file, *arguments], check=True, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL).stdout


def main(*programs):
    """Runs the tests of the script that calls this, if it may: as root, and with these programs there."""
    if os.geteuid() != 0 or not all(map(shutil.which, programs)):
        print(f"skipped: needs to be root{', and ' if programs else ''}{', '.join(programs)}")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
