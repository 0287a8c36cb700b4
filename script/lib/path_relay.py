"""A path between two network namespaces for the pictures: what one end sends reaches the other some
milliseconds later, a little of it never. Kernels without queueing disciplines for it are many.

Arguments: the far end's namespace, as a file. Addresses 10.20.0.1 here, 10.20.0.2 there. Prints
"ready", and ends with its standard input.
"""

import collections
import ctypes
import fcntl
import math
import os
import random
import select
import struct
import subprocess
import sys
import time

LIBC = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNET = 0x40000000
TUNSETIFF = 0x400454CA
IFF_TUN, IFF_NO_PI = 1, 0x1000


def make_end(name, address):
    """A device whose packets this program reads and writes, in the namespace that it is in."""
    device = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
    fcntl.ioctl(device, TUNSETIFF, struct.pack("16sH22x", name.encode(), IFF_TUN | IFF_NO_PI))
    subprocess.run(["ip", "address", "add", address, "dev", name], check=True)
    subprocess.run(["ip", "link", "set", name, "up"], check=True)
    return device


class Way:
    """One direction: packets leave in the order in which they came."""

    def __init__(self, source, target, delay, swing, loss):
        self.source, self.target = source, target
        self._delay, self._swing, self._loss = delay, swing, loss
        self._queue = collections.deque()  # of (time to leave, packet)

    def take(self, now):
        packet = os.read(self.source, 65536)
        if random.random() < self._loss:
            return
        slow = 1 + self._swing * math.sin(now / 17)
        leaves = now + self._delay * slow * random.lognormvariate(0, 0.05)
        if self._queue:
            leaves = max(leaves, self._queue[-1][0])
        self._queue.append((leaves, packet))

    def give(self, now):
        while self._queue and self._queue[0][0] <= now:
            os.write(self.target, self._queue.popleft()[1])

    def next_time(self):
        return self._queue[0][0] if self._queue else math.inf


def main():
    near = make_end("path-near", "10.20.0.1/24")
    with open(sys.argv[1], "rb") as namespace:
        if LIBC.setns(namespace.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")
    far = make_end("path-far", "10.20.0.2/24")
    ways = [Way(near, far, 0.012, 0.2, 0.002), Way(far, near, 0.008, 0.1, 0.004)]
    # What else the machine does, a browser for one, is not to be seen in the pictures.
    os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(50))
    print("ready", flush=True)
    while True:
        now = time.monotonic()
        for way in ways:
            way.give(now)
        pause = min(way.next_time() for way in ways) - time.monotonic()
        pause = None if pause == math.inf else max(pause, 0)
        readable, _, _ = select.select([0, near, far], [], [], pause)
        if 0 in readable and not os.read(0, 1):
            return
        for way in ways:
            if way.source in readable:
                way.take(time.monotonic())


if __name__ == "__main__":
    main()
