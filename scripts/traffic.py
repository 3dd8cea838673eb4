r"""Tagged frames from one namespace to another, counted by priority where they arrive: what queues let through.

    with Sender("talker", "eth0", "91:e0:f0:00:00:01", {3: 20e6, 0: 50e6}) as sender, \
            Counter("listener", "eth0") as counter:
        rates = measure(sender, counter, seconds=3)

Frames must go through a bridge before they are queued: a tag that a socket has written counts as one only after the
frame was received by a device.
"""
import collections
import contextlib
import ctypes
import multiprocessing
import os
import socket
import struct
import time

_SOL_PACKET, _PACKET_STATISTICS, _PACKET_IGNORE_OUTGOING, _SO_ATTACH_FILTER, _SO_SNDBUFFORCE = 263, 6, 23, 26, 32
_CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)

# Both: bit/s by priority, without check sequence and preamble.
Rates = collections.namedtuple("Rates", "offered arrived")


@contextlib.contextmanager
def inside(namespace):
    """What is opened in the block belongs to that network namespace; None: to our own."""
    if namespace is None:
        yield
        return
    with open("/proc/self/ns/net", "rb") as own, open(f"/run/netns/{namespace}", "rb") as other:
        _enter(other)
        try:
            yield
        finally:
            _enter(own)


def _enter(namespace):
    if _libc.setns(namespace.fileno(), _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def tagged_frame(destination, priority, vlan=2, octets=500):
    """A frame of so many octets, its tag included; its check sequence is not."""
    header = bytes.fromhex(destination.replace(":", "")) + bytes.fromhex("020000000f01")
    return (header + struct.pack("!HHH", 0x8100, priority << 13 | vlan, 0x22f0)).ljust(octets, b"\0")


class Sender:
    """Sends from a process of its own until the block ends, at most `rates`: bit/s by priority.

    Frames of all priorities have `octets` octets.  Where the machine is too slow for the rates, all get equal parts.
    """

    def __init__(self, namespace, interface, destination, rates, vlan=2, octets=500):
        self.octets = octets
        self.priorities = list(rates)
        self._frames = [tagged_frame(destination, priority, vlan, octets) for priority in rates]
        self._intervals = [octets * 8 / rate for rate in rates.values()]
        self._sent = multiprocessing.Array("Q", len(rates), lock=False)
        self._ends = multiprocessing.Value("b", 0, lock=False)
        with inside(namespace):
            self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
            # What waits in queues still belongs to the socket: it must not keep other priorities from being sent.
            self._socket.setsockopt(socket.SOL_SOCKET, _SO_SNDBUFFORCE, 64 << 20)
            self._socket.bind((interface, 0))
        self._process = multiprocessing.get_context("fork").Process(target=self._run, daemon=True)

    def __enter__(self):
        self._process.start()
        return self

    def __exit__(self, *_):
        self._ends.value = 1  # killed between a frame and its count, it would have sent one more than it says
        self._process.join(5)
        self._process.kill()
        self._process.join()
        self._socket.close()

    def sent(self):
        """Frames sent so far, by priority."""
        return dict(zip(self.priorities, self._sent))

    def _run(self):
        due = [time.monotonic()] * len(self._frames)
        while not self._ends.value:
            now = time.monotonic()
            for index, frame in enumerate(self._frames):
                # What could not be sent in time is forgotten, instead of sent in one burst.
                due[index] = max(due[index], now - 0.01)
                while due[index] <= now:
                    due[index] += self._intervals[index]
                    with contextlib.suppress(OSError):  # no room, or the link is down
                        self._socket.send(frame)
                        self._sent[index] += 1
                    if len(self._frames) > 1:
                        break
            if min(due) > now:
                time.sleep(0.0005)


class Counter:
    """Counts the tagged frames that arrive, all or those to one `destination`, by priority, until the block ends.

    The kernel counts: each priority has a socket whose filter lets that priority pass, and nobody reads it.
    """

    def __init__(self, namespace, interface, priorities=range(8), destination=None):
        self._sockets = {}
        with inside(namespace):
            for priority in priorities:
                self._sockets[priority] = self._open(interface, priority, destination)

    @staticmethod
    def _open(interface, priority, destination):
        counting = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        own = [] if destination is None else [
            (0x20, 0, 0, 2),               # load the end of its destination
            (0x15, 1, 0, int(destination.replace(":", "")[4:], 16)),
            (0x06, 0, 0, 0)]               # another: refuse
        program = [*own,
                   (0x20, 0, 0, 0xfffff030),      # load: is there a tag
                   (0x15, 0, 4, 1),               # no: refuse
                   (0x20, 0, 0, 0xfffff02c),      # load the tag
                   (0x74, 0, 0, 13),              # its priority
                   (0x15, 0, 1, priority),        # another: refuse
                   (0x06, 0, 0, 64),              # take
                   (0x06, 0, 0, 0)]
        code = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *step) for step in program))
        counting.setsockopt(socket.SOL_SOCKET, _SO_ATTACH_FILTER,
                            struct.pack("HL", len(program), ctypes.addressof(code)))
        counting.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        counting.setsockopt(_SOL_PACKET, _PACKET_IGNORE_OUTGOING, 1)
        counting.bind((interface, 3))  # ETH_P_ALL
        return counting

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for counting in self._sockets.values():
            counting.close()

    def frames(self):
        """Frames that have arrived since the last call, by priority."""
        return {priority: struct.unpack("II", counting.getsockopt(_SOL_PACKET, _PACKET_STATISTICS, 8))[0]
                for priority, counting in self._sockets.items()}


def measure(sender, counter, seconds, settle=0.5):
    """What was offered and what arrived during so many seconds.

    Queues that were empty first let a burst through, so the clock starts `settle` seconds later.
    """
    time.sleep(settle)
    counter.frames()
    begin, before = time.monotonic(), sender.sent()
    time.sleep(seconds)
    arrived, after = counter.frames(), sender.sent()
    bits = sender.octets * 8 / (time.monotonic() - begin)
    return Rates({priority: (after[priority] - before[priority]) * bits for priority in sender.priorities},
                 {priority: arrived.get(priority, 0) * bits for priority in sender.priorities})
