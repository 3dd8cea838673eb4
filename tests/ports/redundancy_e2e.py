#!/usr/bin/env python3
"""redundancy_e2e.py BUILD: two supervisors over one set of ports, a real Redis and real stations.

Needs root; exit code 77 without.  With REDUNDANCY_ROUNDS=200 in the environment the trial goes on for so many changes
of role, at moments that REDUNDANCY_SEED decides.
"""
import contextlib
import datetime
import json
import multiprocessing
import os
import pathlib
import random
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
from testbed import BUILD, STREAM, TALK, VLAN, Testbed, main  # noqa: E402
from traffic import Counter, Sender, inside  # noqa: E402

LEASE = 1.0
NAMES = ("left", "right")


def talk(stream):
    return f"--talk={stream:#x},91:e0:f0:00:{stream >> 8 & 0xff:02x}:{stream & 0xff:02x},{VLAN},A,100,1"


def listen(stream):
    return f"--listen={stream:#x}"


class Way:
    """What passes things on in a process of its own until the block ends."""

    def __init__(self):
        self._process = multiprocessing.get_context("fork").Process(target=self._run, daemon=True)

    def __enter__(self):
        self._process.start()
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.join()


class LossyCable(Way):
    """A cable between two interfaces on which frames are lost, now and then one."""

    def __init__(self, ends, loss):
        super().__init__()
        self._ends, self._loss = ends, loss

    def _run(self):
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        chance = random.Random(1)
        with contextlib.ExitStack() as stack:
            sockets = []
            for namespace, interface in self._ends:
                with inside(namespace):
                    one = stack.enter_context(socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3)))
                one.setsockopt(263, 23, 1)  # what we send ourselves does not come back
                one.bind((interface, 3))
                sockets.append(one)
            while True:
                for one in select.select(sockets, [], [])[0]:
                    frame = one.recv(65536)
                    if chance.random() >= self._loss:
                        with contextlib.suppress(OSError):
                            sockets[one is sockets[0]].send(frame)


class Relay(Way):
    """A way to a Unix socket that can be cut: what is sent then is lost on the way."""

    def __init__(self, path, to):
        super().__init__()
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(path))
        self._listener.listen()
        self._to = str(to)

    def __exit__(self, *_):
        super().__exit__()
        self._listener.close()

    def cut(self, cut):
        os.kill(self._process.pid, signal.SIGSTOP if cut else signal.SIGCONT)

    def _run(self):
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        others = {}
        while True:
            for one in select.select([self._listener, *others], [], [])[0]:
                if one is self._listener:
                    near, far = self._listener.accept()[0], socket.socket(socket.AF_UNIX)
                    far.connect(self._to)
                    others |= {near: far, far: near}
                    continue
                if one not in others:
                    continue
                with contextlib.suppress(OSError):
                    data = one.recv(65536)
                    others[one].sendall(data)
                    if data:
                        continue
                other = others.pop(one)
                others.pop(other)
                one.close()
                other.close()


class Pair(Testbed):
    """Supervisors "left" and "right" of one switch, and their store."""

    def __init__(self, build, ports=3, loss=0.0, speed="1G", **more):
        super().__init__(build, ports=ports, bridge="br0")
        self.loss, self.speed, self.more = loss, speed, more
        self.life = {name: 0 for name in NAMES}
        self.ways = {}  # to the store, of those who have one of their own
        self.daemons = {}
        self.captures = []
        self.store = None
        self.stack = contextlib.ExitStack()

    def set_up(self):
        super().set_up()
        self.store_place = self.prefix + "store" if self.loss else self.switch
        self.store_address = f"unix:{self.directory}/redis.sock"
        if self.loss:
            self.store_address = "192.0.2.1:6379"
            self.lossy_cable()
        self.store_starts()

    def __exit__(self, *_):
        self.stack.close()
        super().__exit__()

    def lossy_cable(self):
        """From the switch to a machine for the store, over one in the middle."""
        middle = self.prefix + "middle"
        self.namespace(self.store_place)
        self.namespace(middle)
        for place, end, address in ((self.switch, "m0", "192.0.2.2/24"), (self.store_place, "m1", "192.0.2.1/24")):
            self._ip("link", "add", "eth0", "netns", place, "type", "veth", "peer", "name", end, "netns", middle)
            self._ip("-n", place, "address", "add", address, "dev", "eth0")
            for where, device in ((place, "eth0"), (middle, end)):
                self._ip("-n", where, "link", "set", device, "up")
                # Frames of their own size, with real checksums: they pass through a program.
                subprocess.run(["ip", "netns", "exec", where, "ethtool", "-K", device, "tx", "off", "tso", "off", "gso",
                                "off", "gro", "off"], check=True, stdout=subprocess.DEVNULL)
        self.stack.enter_context(LossyCable([(middle, "m0"), (middle, "m1")], self.loss))

    def store_starts(self):
        unix = self.directory / "redis.sock"
        unix.unlink(missing_ok=True)
        address = ["--bind", "192.0.2.1", "--port", "6379"] if self.loss else ["--port", "0"]
        self.store = self.spawn("redis", self.store_place, "redis-server", *address, "--unixsocket", unix, "--save", "",
                                "--appendonly", "yes", "--dir", self.directory, "--protected-mode", "no")
        self.wait(lambda: "eady to accept" in self.said("redis"), 20, "no store")

    def redis(self, *words):
        return subprocess.run(["redis-cli", "-s", self.directory / "redis.sock", *words], check=True, text=True,
                              stdout=subprocess.PIPE).stdout.strip()

    def socket_of(self, name):
        return self.directory / f"control-{name}"

    def starts(self, name):
        """A supervisor's daemon, with what it says and sends in files of that life."""
        self.life[name] += 1
        life = f"{name}{self.life[name]}"
        config = self.config() | {
            "store/config": {"redis": self.ways.get(name, self.store_address), "name": "switch-1"},
            "redundancy/config": {"lease": LEASE, "name": name, "files": str(self.directory / "shared")},
            "interface/status/eth/phy/all": {"intfStatus": {port: {"speedEnum": self.speed} for port in self.ports}}}
        self.daemons[name] = self.msrpd(life, self.switch, self.socket_of(name), config | self.more)
        for port in self.ports:
            self.captures.append((life, port, self.spawn(f"{life}-{port}", self.switch, self.build / "msrpctl", "--socket",
                                                         self.socket_of(name), "capture", port,
                                                         self.directory / f"{life}-{port}.pcapng")))

    def pid(self, name):
        """Of the daemon itself: `ip netns exec` becomes what it starts."""
        return self.daemons[name].pid

    def ask(self, name, *words):
        done = self.msrpctl(self.socket_of(name), "--json", *words)
        return json.loads(done.stdout) if done.returncode == 0 else None

    def active(self):
        """Who says that it acts; None where nobody does."""
        for name in NAMES:
            if self.daemons[name].poll() is None and (self.ask(name, "get", "redundancy") or {}).get("role") == "active":
                return name
        return None

    def await_active(self, name, seconds=10):
        return self.wait(lambda: (self.ask(name, "get", "redundancy") or {}).get("role") == "active", seconds,
                         f"{name} does not act", every=0.01)

    def ready(self):
        """Both are there, one acts, and the other could."""
        active = self.active()
        if not active:
            return False
        status = [self.ask(name, "get", "redundancy") or {} for name in NAMES]
        other = NAMES[active == NAMES[0]]
        return all(one.get("complete") for one in status) and \
            (self.ask(active, "get", "redundancy") or {}).get("agent", {}).get(other) is True

    def ports_of(self, name):
        """Packet sockets that a daemon has open."""
        return sum("socket:" in os.readlink(f"/proc/{self.pid(name)}/fd/{fd}")
                   and os.readlink(f"/proc/{self.pid(name)}/fd/{fd}")[8:-1] in self.packet_sockets()
                   for fd in os.listdir(f"/proc/{self.pid(name)}/fd"))

    def packet_sockets(self):
        table = pathlib.Path(f"/proc/{self.daemons[NAMES[0]].pid}/net/packet").read_text(encoding="ascii").splitlines()
        return {line.split()[-1] for line in table[1:]}

    def sent(self, life):
        """When that daemon sent frames, seconds of the machine's clock: from its own captures."""
        times = []
        for port in self.ports:
            file = self.directory / f"{life}-{port}.pcapng"
            times += sent_frames(file.read_bytes()) if file.exists() else []
        return sorted(times)

    def log(self, life):
        return self.said(f"{life}.log")


def sent_frames(data):
    """Times of the outbound packets of a pcapng file, maybe cut."""
    at = 0
    while at + 12 <= len(data):
        kind, size = struct.unpack_from("<II", data, at)
        if size < 12 or at + size > len(data):
            break
        if kind == 6:
            _, high, low, captured, _ = struct.unpack_from("<IIIII", data, at + 8)
            option = at + 28 + (captured + 3) // 4 * 4
            while option + 4 <= at + size - 4:
                code, length = struct.unpack_from("<HH", data, option)
                if code == 2 and struct.unpack_from("<I", data, option + 4)[0] & 3 == 2:
                    yield ((high << 32) + low) / 1e9
                if code == 0:
                    break
                option += 4 + (length + 3) // 4 * 4
        at += size


class Redundancy(unittest.TestCase):
    """One stream from swp1 to swp2 and swp3."""

    def setUp(self):
        bed = self.bed = self.enterContext(Pair(BUILD, **{"msrp/config": {"intfEnable": {"*": True}}}))
        self.way = self.enterContext(Relay(bed.directory / "way", bed.directory / "redis.sock"))
        bed.ways["left"] = f"unix:{bed.directory}/way"
        bed.starts("left")
        bed.await_active("left")
        bed.starts("right")
        bed.wait(bed.ready, 10, "the pair is not ready")
        bed.talker_and_listeners()
        bed.wait(lambda: len(bed.multicast_entries("91:e0:f0")) == 2, 10, "no reservation")
        bed.wait(bed.ready, 10, "the pair is not ready")
        # Domains of both classes have come and gone by then.
        bed.wait(lambda: bed.said("swp1").endswith(f"listener {STREAM} Ready\n"), 5, "the talker hears of nobody")
        self.heard = {port: bed.said(port) for port in bed.ports}
        bed.spawn("mdb", bed.switch, "bridge", "monitor", "mdb")
        bed.spawn("tc", bed.switch, "tc", "monitor")

    def expect_unheard(self):
        """No station has heard of anything, and the kernel forwards as before."""
        time.sleep(0.5)
        self.assertEqual({port: self.bed.said(port) for port in self.bed.ports}, self.heard)
        self.assertNotIn("91:e0:f0", self.bed.said("mdb"))
        # Queues and filters are set to what they are, in place.
        self.assertNotIn("deleted", self.bed.said("tc"))

    def test_nobody_hears_of_a_change_of_role(self):
        bed = self.bed
        self.assertEqual((bed.ports_of("left") > 0, bed.ports_of("right")), (True, 0))
        counter = self.enterContext(Counter(bed.station_of("swp2"), "eth0", [3]))
        with Sender(bed.station_of("swp1"), "eth0", "91:e0:f0:00:00:01", {3: 2e6}) as sender:
            bed.daemons["left"].kill()
            bed.daemons["left"].wait()
            died = time.time()
            bed.await_active("right")
            print(f"kill -9: the other acts after {time.time() - died:.2f} s, lease {LEASE:.1f} s")
            bed.starts("left")
            bed.wait(bed.ready, 10, "the pair is not ready")
            self.assertEqual((bed.ports_of("left"), bed.ports_of("right") > 0), (0, True))
            begun = time.monotonic()
            done = bed.msrpctl(bed.socket_of("right"), "--json", "redundancy", "switch")
            self.assertEqual((done.returncode, done.stderr, done.stdout), (0, "", "null\n"))
            bed.await_active("left")
            print(f"switched in {time.monotonic() - begun:.3f} s")
            bed.wait(bed.ready, 10, "the pair is not ready")
            os.kill(bed.pid("left"), signal.SIGSTOP)
            stopped = time.monotonic()
            bed.await_active("right")
            print(f"SIGSTOP: the other acts after {time.monotonic() - stopped:.2f} s")
            os.kill(bed.pid("left"), signal.SIGCONT)
            bed.wait(bed.ready, 10, "the pair is not ready")
            bed.daemons["right"].terminate()
            bed.daemons["right"].wait()
            bed.await_active("left")
        self.expect_unheard()
        self.assertEqual(counter.frames(), sender.sent())
        first = next(moment for moment in bed.sent("right1") if moment > died)
        print(f"first frame {first - died:.2f} s after the death")

    def test_nobody_hears_of_an_active_one_that_is_cut_off_from_the_store(self):
        bed = self.bed
        self.way.cut(True)
        bed.await_active("right")
        self.assertEqual(bed.ask("left", "get", "redundancy")["role"], "standby")
        time.sleep(LEASE)
        self.way.cut(False)
        bed.wait(bed.ready, 10, "the pair is not ready")
        self.assertEqual(bed.active(), "right")
        self.expect_unheard()

    def test_nobody_hears_of_a_store_that_goes(self):
        bed = self.bed
        self.way.__exit__()  # its end of the way would be there still
        bed.ways.clear()
        bed.daemons["left"].kill()
        bed.daemons["left"].wait()
        bed.await_active("right")
        bed.starts("left")
        bed.wait(bed.ready, 10, "the pair is not ready")
        bed.store.kill()
        bed.store.wait()
        time.sleep(3 * LEASE)
        self.assertEqual(bed.active(), "right")
        self.assertIn("redis.sock: ", bed.ask("right", "get", "redundancy")["problem"])
        bed.store_starts()
        bed.wait(bed.ready, 10, "the pair is not ready")
        bed.redis("flushall")
        bed.wait(lambda: bed.redis("hget", f"msrp:{{switch-1}}:record:msrp/status/registeredStreams/{STREAM}",
                                   "vlanId") == str(VLAN), 5, "the store is not written anew")
        bed.wait(bed.ready, 10, "the pair is not ready")
        # One that does not answer might have given the role to another: nobody acts, and the kernel goes on.
        os.kill(bed.store.pid, signal.SIGSTOP)
        bed.wait(lambda: bed.active() is None, 3 * LEASE, "the role is kept without a lease")
        time.sleep(LEASE)
        os.kill(bed.store.pid, signal.SIGCONT)
        bed.wait(bed.ready, 10, "nobody acts")
        self.expect_unheard()


class Trial(unittest.TestCase):
    """Streams from swp1 to swp2 that stay, others from swp3 to swp4 that come and go; the store is far away."""

    def setUp(self):
        self.rounds = int(os.environ.get("REDUNDANCY_ROUNDS", "5"))
        self.seed = int(os.environ.get("REDUNDANCY_SEED", "1"))
        each = 500 if self.rounds >= 50 else 50
        self.chance = random.Random(self.seed)
        self.kept = range(0x200000002010001, 0x200000002010001 + each)
        self.fleeting = range(0x200000002020401, 0x200000002020401 + each)
        bed = self.bed = self.enterContext(Pair(BUILD, ports=4, loss=0.01, speed="100G"))
        self.stations = {}
        self.wanted = {"swp3": set(), "swp4": set()}
        bed.starts("left")
        bed.await_active("left")
        bed.starts("right")
        bed.wait(bed.ready, 20, "the pair is not ready")
        self.monitors = []
        self.watch_store()
        self.stay("swp1", map(talk, self.kept))
        self.stay("swp2", map(listen, self.kept))
        bed.wait(lambda: len(bed.multicast_entries("91:e0:f0:00:")) >= each, 30, "not all streams are reserved")
        bed.wait(lambda: bed.said("swp1").count(" Ready\n") >= each, 10, "not all listeners are heard of")
        bed.wait(bed.ready, 20, "the pair is not ready")
        self.heard = {port: bed.said(port) for port in ("swp1", "swp2")}
        bed.spawn("mdb", bed.switch, "bridge", "monitor", "mdb")
        self.come_and_go_at = 0.0
        self.delays = []  # from death to the other's role, by its own clock

    def stay(self, port, words):
        self.stations[port] = self.bed.station(port, *words)

    def watch_store(self):
        name = f"monitor{len(self.monitors)}"
        self.monitors.append(name)
        self.bed.spawn(name, self.bed.switch, "redis-cli", "-s", self.bed.directory / "redis.sock", "monitor")

    def come_and_go(self):
        """Another talker or listener, with other streams; the one before it says so, or not."""
        port = self.chance.choice(("swp3", "swp4"))
        if port in self.stations:
            end = self.chance.choice((signal.SIGTERM, signal.SIGKILL))
            self.stations[port].send_signal(end)
            self.stations[port].wait()
        self.wanted[port] = set(self.chance.sample(self.fleeting, len(self.fleeting) // 2))
        self.stay(port, map(talk if port == "swp3" else listen, sorted(self.wanted[port])))

    def live(self, seconds):
        """So long, while streams come and go."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if time.monotonic() > self.come_and_go_at:
                self.come_and_go()
                self.come_and_go_at = time.monotonic() + self.chance.uniform(0.5, 3)
            time.sleep(0.02)

    def change_role(self):
        bed = self.bed
        active = bed.active()
        other = NAMES[active == NAMES[0]]
        what = self.chance.choice(("kill", "kill", "stop", "stop", "switch", "end"))
        begun = time.time()
        if what == "kill":
            bed.daemons[active].kill()
            bed.daemons[active].wait()
        elif what == "stop":
            os.kill(bed.pid(active), signal.SIGSTOP)
        elif what == "end":
            bed.daemons[active].terminate()
        else:
            bed.msrpctl(bed.socket_of(active), "redundancy", "switch")
        if self.chance.random() < 0.2:
            self.live(self.chance.uniform(0, 1))
            bed.store.kill()
            bed.store.wait()
            self.live(self.chance.uniform(0, 2))
            bed.store_starts()
            self.watch_store()
        else:
            bed.await_active(other, 20)
            if what in ("kill", "stop"):
                self.delays.append((begun, f"{other}{bed.life[other]}"))
        self.live(self.chance.uniform(0, 1))
        if what == "stop":
            os.kill(bed.pid(active), signal.SIGCONT)
        elif what != "switch":
            bed.daemons[active].wait()
            bed.starts(active)
        bed.wait(bed.ready, 30, f"the pair is not ready after {what}")

    def carried(self):
        """What the active supervisor carries, by stream; None while nobody acts."""
        active = self.bed.active()
        streams = self.bed.ask(active, "show", "streams") if active else None
        return None if streams is None else {
            int(stream, 16): {port for port, state in report["ports"].items() if state["carried"]}
            for stream, report in streams.items()}

    def all_as_wanted(self):
        talked, listened = self.wanted["swp3"], self.wanted["swp4"]
        return self.carried() == {stream: {"swp2"} for stream in self.kept} | {
            stream: {"swp4"} if stream in talked & listened else set() for stream in talked | listened}

    def test_changes_of_role_at_random_moments(self):
        bed = self.bed
        for number in range(self.rounds):
            self.live(self.chance.uniform(0, 1))
            self.change_role()
            if number % 10 == 9 or number == self.rounds - 1:
                # Who went without a word is missed after two rounds of LeaveAll.
                bed.wait(self.all_as_wanted, 40, f"round {number}, seed {self.seed}: not the streams that are wanted",
                         every=0.5)
        bed.redis("ping")
        time.sleep(0.5)
        self.assertEqual({port: bed.said(port) for port in self.heard}, self.heard, "a station that stayed heard of it")
        self.assertNotRegex(bed.said("mdb"), "91:e0:f0:00:0[01]:")
        for life in {life for life, _, _ in bed.captures}:
            self.assertNotIn("the record keeps what it had", bed.log(life))
        self.check_frames()
        self.check_writes()

    def check_frames(self):
        """Each frame is from who had the highest number of all by then."""
        frames, roles = [], 0
        by_life = {}
        for life in {life for life, _, _ in self.bed.captures}:
            events = [(time_of(line), int(line.split()[-1]) if " active, by" in line else None)
                      for line in self.bed.log(life).splitlines() if " active, by" in line or "not active any more" in line]
            roles += sum(number is not None for _, number in events)
            by_life[life] = self.bed.sent(life)
            for moment in by_life[life]:
                # The log counts in milliseconds, cut.
                before = [number for since, number in events if since <= moment]
                self.assertTrue(before and before[-1] is not None or moment - events[len(before) - 1][0] < 0.002,
                                f"{life} sent at {moment:.4f}: {events}")
                frames.append((moment, next(number for number in reversed(before) if number is not None), life))
        frames.sort()
        for before, after in zip(frames, frames[1:]):
            self.assertLessEqual(before[1], after[1], (before, after, *(
                line for life in (before[2], after[2]) for line in self.bed.log(life).splitlines() if " active" in line)))
        first = [next(moment for moment in by_life[life] if moment > died) - died for died, life in self.delays]
        if first:
            print(f"{roles} changes of role, {len(frames)} frames; from death to the first frame: "
                  f"{min(first):.2f} to {max(first):.2f} s, {sorted(first)[len(first) // 2]:.2f} s in the middle")

    def check_writes(self):
        """Each batch that the store took is from who had the highest number of all by then."""
        numbers, offered = [], 0
        for name in self.monitors:
            for line in self.bed.said(name).splitlines():
                batch = re.search(r'"msrp:\{switch-1\}:records" "(\d+)"', line) if '"EVAL"' in line else None
                offered = int(batch[1]) if batch else 0 if '"EVAL"' in line else offered
                if offered and '[0 lua] "HINCRBY"' in line:
                    numbers.append(offered)
        self.assertEqual(numbers, sorted(numbers), "the store took a batch of an earlier holder of the role")
        print(f"{len(numbers)} batches, the last of role number {numbers[-1]}")


def time_of(line):
    """Of a line of the log, seconds."""
    return datetime.datetime.fromisoformat(line.split()[0].replace("Z", "+00:00")).timestamp()


if __name__ == "__main__":
    main("redis-server", "redis-cli", "ethtool")
