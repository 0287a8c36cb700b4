"""Scripted peers: what they do with each probe is laid down by the test.

A peer runs one thread that owns its sockets and a list of things to do later. All methods of the
test side may be called while it runs; what it has seen is read after the fact.
"""

import heapq
import itertools
import os
import selectors
import threading
import time
from dataclasses import dataclass


@dataclass
class Fate:
    """What happens to one probe."""

    lost_out: bool = False  # never reached the peer: not counted, no answer
    lost_back: bool = False  # counted, but its answer is lost
    copies: int = 1  # answers sent
    delay: float = 0.0  # seconds between the probe's arrival and its answer
    after_out: int = None  # reaches the peer only after this sequence number did
    after_back: int = None  # is answered only after this sequence number was
    alter: object = None  # function from the answer's bytes to other bytes


class Peer:
    """The thread, its sockets and its timers."""

    def __init__(self):
        self._selector = selectors.DefaultSelector()
        self._later = []
        self._order = itertools.count()
        self._stopping = False
        self._thread = threading.Thread(target=self._run, daemon=True)
        self.errors = []

    def watch(self, sock, handler):
        sock.setblocking(False)
        self._selector.register(sock, selectors.EVENT_READ, handler)

    def later(self, delay, action):
        heapq.heappush(self._later, (time.monotonic() + delay, next(self._order), action))

    def start(self):
        self._thread.start()
        return self

    def stop(self):
        self._stopping = True
        if self._thread.is_alive():
            self._thread.join()
        self._selector.close()
        if self.errors:
            raise self.errors[0]

    def _run(self):
        # A far end that answers late is a different far end: it goes before what else is at work.
        os.setpriority(os.PRIO_PROCESS, threading.get_native_id(), -10)
        try:
            while not self._stopping:
                self._step()
        except Exception as error:  # shown by stop(), in the test's own thread
            self.errors.append(error)

    def _step(self):
        wait = 0.05
        if self._later:
            wait = max(0.0, min(wait, self._later[0][0] - time.monotonic()))
        for key, _ in self._selector.select(wait):
            try:
                while True:
                    key.data(*key.fileobj.recvfrom(65535))
            except (BlockingIOError, ConnectionRefusedError):
                continue
        while self._later and self._later[0][0] <= time.monotonic():
            heapq.heappop(self._later)[2]()


class Session:
    """The probes of one run: applies the fates in the order of arrival, keeps what was seen."""

    def __init__(self, peer, fates, answer):
        self._peer = peer
        self._fates = fates
        self._answer = answer  # function (sequence, probe, copy) that sends one answer
        self._waiting_out = {}
        self._waiting_back = {}
        self._answered = set()
        self._arrived = set()
        self.arrivals = (
            []
        )  # every probe that came in over the wire: (monotonic time, sequence, bytes)
        self.counter = 0

    def probe(self, sequence, data):
        self.arrivals.append((time.monotonic(), sequence, data))
        fate = self._fates(sequence)
        if fate.lost_out:
            self._reached(sequence)
        elif fate.after_out is not None and fate.after_out not in self._arrived:
            self._waiting_out.setdefault(fate.after_out, []).append((sequence, data, fate))
        else:
            self._count(sequence, data, fate)

    def _reached(self, sequence):
        self._arrived.add(sequence)
        for waiting in self._waiting_out.pop(sequence, []):
            self._count(*waiting)

    def _count(self, sequence, data, fate):
        self.counter += 1
        counted = self.counter
        if not fate.lost_back:
            if fate.after_back is not None and fate.after_back not in self._answered:
                self._waiting_back.setdefault(fate.after_back, []).append(
                    (sequence, data, fate, counted)
                )
            else:
                self._reply(sequence, data, fate, counted)
        else:
            self._passed(sequence)
        self._reached(sequence)

    def _reply(self, sequence, data, fate, counted):
        def send():
            for _ in range(fate.copies):
                self._answer(sequence, data, counted, fate)
            self._passed(sequence)

        if fate.delay > 0:
            self._peer.later(fate.delay, send)
        else:
            send()

    def _passed(self, sequence):
        self._answered.add(sequence)
        for waiting in self._waiting_back.pop(sequence, []):
            self._reply(*waiting)


def fates_of(plan):
    """A function from sequence number to Fate: of a dictionary, of a function, or of nothing (all
    is well).
    """
    if callable(plan):
        return plan
    table = plan or {}
    return lambda sequence: table.get(sequence, Fate())
