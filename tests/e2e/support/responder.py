"""A scripted responder of the UDP tests, written against the wire formats and independent of the
daemon's own code.

Control message, 172 bytes, big-endian: 0 version | 2 status u16 | 8 total length u32 | 20
authentication block: 22 status u16, 32 nonce[16], 48 digest[32] | 80 measurement block: 82 status
u16, 90 operation type, 164 sender's measurement port u16, 166 responder's measurement port u16, 168
duration u32.
Answer to a probe: 0 type u16 | 12 time stamp u64 | 20 sequence u32 | 24 counter u32.
"""

import socket
import struct
import time
from dataclasses import dataclass

from .peers import Fate, Peer, Session, fates_of

__all__ = ["Control", "Fate", "ScriptedResponder", "day_stamp", "ntp_stamp"]

CONTROL_SIZE = 172
UDP_ECHO, UDP_JITTER, UDP_JITTER_NTP = 1, 2, 3
_NTP_EPOCH = 2208988800


@dataclass
class Control:
    """What the responder answers to one control request."""

    version: int = 2
    status: int = 0
    authentication_status: int = 0
    measurement_status: int = 0
    measurement_port: int = None  # None: the responder's own
    delay: float = 0.0
    silent: bool = False
    raw: bytes = None  # sent instead of a message


def day_stamp(nanoseconds=None):
    """Time of the day in units of 10 ns, UTC."""
    now = time.time_ns() if nanoseconds is None else nanoseconds
    return now % (86400 * 10**9) // 10


def ntp_stamp(nanoseconds=None):
    now = time.time_ns() if nanoseconds is None else nanoseconds
    seconds, rest = divmod(now, 10**9)
    return ((seconds + _NTP_EPOCH) << 32) | (rest // 1000 * 2**32 // 10**6)


class ScriptedResponder(Peer):
    """Listens on a control and a measurement port of one address inside a lab.

    `control(number)` gives the answer to the request of that number (from 0), `probes(run)` the
    plan of the probes of that run: a dictionary or a function from sequence number to Fate. Runs
    are told apart by the sender's port.
    """

    def __init__(
        self, lab, address="127.0.0.1", control_port=2000, measurement_port=0, namespace=None
    ):
        super().__init__()
        self.address = address
        self.control = lambda number: Control()
        self.probes = lambda run: {}
        self.requests = []  # (bytes, source) of every control datagram
        self.runs = []  # one Session per accepted request, in order
        self._by_port = {}
        self._strays = 0

        def udp(port):
            return lab.socket(
                socket.AF_INET, socket.SOCK_DGRAM, bind=(address, port), namespace=namespace
            )

        self._control_socket = udp(control_port)
        self._measurement_socket = udp(measurement_port)
        self.measurement_port = self._measurement_socket.getsockname()[1]
        self.watch(self._control_socket, self._on_request)
        self.watch(self._measurement_socket, self._on_probe)
        lab.on_close(self.stop)
        self.start()

    def _on_request(self, data, source):
        number = len(self.requests)
        self.requests.append((data, source))
        plan = self.control(number)
        if plan.silent:
            return
        if plan.raw is not None:
            answer = plan.raw
        else:
            answer = self._message(data, plan)
            if plan.status == 0 and len(data) == CONTROL_SIZE:
                self._open_run(data, source)
        if plan.delay > 0:
            self.later(plan.delay, lambda: self._control_socket.sendto(answer, source))
        else:
            self._control_socket.sendto(answer, source)

    def _message(self, request, plan):
        message = bytearray(request.ljust(CONTROL_SIZE, b"\0")[:CONTROL_SIZE])
        message[0] = plan.version
        struct.pack_into(">H", message, 2, plan.status)
        struct.pack_into(">H", message, 22, plan.authentication_status)
        struct.pack_into(">H", message, 82, plan.measurement_status)
        port = self.measurement_port if plan.measurement_port is None else plan.measurement_port
        struct.pack_into(">H", message, 166, port)
        return bytes(message)

    def _open_run(self, request, source):
        kind = request[90]
        port = struct.unpack_from(">H", request, 164)[0]
        session = Session(self, fates_of(self.probes(len(self.runs))), None)
        target = {"address": (source[0], port)}

        def answer(sequence, probe, counted, fate):
            reply = self._reply(kind, sequence, probe, counted)
            if fate.alter is not None:
                reply = bytes(fate.alter(bytearray(reply)))
            self._measurement_socket.sendto(reply, target["address"])

        session._answer = answer
        session.kind = kind
        self.runs.append(session)
        self._by_port[(source[0], port)] = session

    def _on_probe(self, data, source):
        session = self._by_port.get(source)
        if session is None:
            self._strays += 1
            return
        offset, form = (2, ">H") if session.kind == UDP_ECHO else (20, ">I")
        session.probe(struct.unpack_from(form, data, offset)[0], data)

    def _reply(self, kind, sequence, probe, counted):
        reply = bytearray(probe.ljust(28, b"\0"))
        struct.pack_into(">H", reply, 0, kind)
        struct.pack_into(">Q", reply, 12, ntp_stamp() if kind == UDP_JITTER_NTP else day_stamp())
        struct.pack_into(">I", reply, 20, sequence)
        struct.pack_into(">I", reply, 24, counted)
        return reply
