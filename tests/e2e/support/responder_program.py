"""The project's own responder, started inside a lab, and senders of our own making that talk to it.
"""

import os
import re
import signal
import socket
import struct
import subprocess

from .control_message import ALGORITHMS, MODES, NONCE, SIZE, TYPES, digest
from .daemon import SANITIZER_MARKS
from .waiting import DEFAULT_DEADLINE, SCALE, wait_for

CONTROL_PORT = 2000
HEADER, AUTHENTICATION, MEASUREMENT = 2, 22, 82  # where the statuses of an answer stand
BUSY, AUTHENTICATION_FAIL, INTERNAL_ERROR = 4, 2, 13


class ResponderProgram:
    """One process of ip-sla-responder; `options` are its arguments beside the control port."""

    def __init__(self, lab, *options, namespace=None, env=None, launcher=(), wait=True):
        self.lab = lab
        self.namespace = namespace
        self._output = lab.directory / f"responder-{len(lab.daemons)}-{id(self)}.out"
        self._errors = self._output.with_suffix(".err")
        variables = {**lab.build.environment(), **(env or {})}
        words = [f"{name}={value}" for name, value in variables.items() if value]
        program = [*lab.build.launcher(), lab.build.program("ip-sla-responder")]
        options = ["--control-port", CONTROL_PORT, *options]
        with open(self._output, "wb") as out, open(self._errors, "wb") as err:
            self.process = lab.popen(
                *launcher,
                "env",
                *words,
                *program,
                *options,
                namespace=namespace,
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=err,
            )
        lab.on_close(self.stop)
        if wait:
            wait_for(lambda: self.ended() or "listening on" in self.output, "the responder")
            assert not self.ended(), self.errors

    @property
    def pid(self):
        return self.process.pid

    @property
    def output(self):
        return self._output.read_text(errors="replace")

    @property
    def errors(self):
        return self._errors.read_text(errors="replace")

    def lines(self, start):
        return [line for line in self.output.splitlines() if line.startswith(start)]

    def wait_for_lines(self, start, count=1):
        def found():
            lines = self.lines(start)
            return lines if len(lines) >= count else None

        return wait_for(found, f"{count} line(s) {start!r} of the responder")

    def ended(self):
        return self.process.poll() is not None

    def statistics(self):
        """What it prints on SIGUSR1: {"sessions": {"open": 1, ...}, ...}, refusals by reason under
        "refused".
        """
        before = len(self.lines("statistics: lines: left out"))
        self.process.send_signal(signal.SIGUSR1)
        self.wait_for_lines("statistics: lines: left out", before + 1)
        lines = self.output.splitlines()
        ends = [at for at, line in enumerate(lines) if line.startswith("statistics: lines:")]
        begin = ends[-2] + 1 if len(ends) > 1 else 0
        return read_statistics(lines[begin : ends[-1] + 1])

    def stop(self):
        """A clean stop, whatever it has been through."""
        if not self.ended():
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(timeout=DEFAULT_DEADLINE * SCALE)
            assert self.process.returncode == 0, self.errors
        found = [mark for mark in SANITIZER_MARKS if mark in self.errors]
        assert not found, self.errors


def read_statistics(lines):
    result = {"refused": {}}
    for line in lines:
        if not line.startswith("statistics: "):
            continue
        text = line.removeprefix("statistics: ")
        if text.startswith("refused: "):
            reason, _, count = text.removeprefix("refused: ").rpartition(" ")
            result["refused"][reason] = int(count)
            continue
        name, _, values = text.partition(": ")
        pairs = re.findall(r"([a-z][^,]*?) (\d+)(?:,|$)", values)
        result[name] = {key: int(value) for key, value in pairs}
    return result


class Sender:
    """Sockets of one sender: a control and a measurement socket on ports of the system's choice."""

    def __init__(self, lab, responder="127.0.0.1", address="127.0.0.1", namespace=None):
        def udp():
            sock = lab.socket(
                socket.AF_INET, socket.SOCK_DGRAM, bind=(address, 0), namespace=namespace
            )
            sock.settimeout(DEFAULT_DEADLINE * SCALE)
            return sock

        self.address = address
        self.responder = responder
        self.control = udp()
        self.measurement = udp()
        self.port = None  # where probes go, once a request was answered
        self.kind = "udp-jitter"

    def request(self, kind="udp-jitter", port=0, duration=60000, key=None, mode="no", key_id=0):
        """A request of this sender; with a key it is signed and has a fresh nonce."""
        self.kind = kind
        own, far = (socket.inet_aton(address) for address in (self.address, self.responder))
        algorithm = "hmac-sha256" if key else None
        nonce = os.urandom(16) if key else bytes(16)
        message = b"".join(
            [
                struct.pack(">BBHIIII", 2, 0, 0, 0, SIZE, 0, 0),
                struct.pack(">HHI", 1, 0, 60),
                struct.pack(">BBBB", MODES[mode], ALGORITHMS[algorithm], 0, key_id),
                nonce + bytes(32),
                struct.pack(">HHI", 2, 0, 92),
                struct.pack(">BBBBI", 2, 1, TYPES[kind], 0, 0),
                *(address.ljust(16, b"\0") for address in (own, far, own, far)),
                struct.pack(
                    ">HHHHI",
                    self.control.getsockname()[1],
                    0,
                    self.measurement.getsockname()[1],
                    port,
                    duration,
                ),
            ]
        )
        assert len(message) == SIZE and message[NONCE] == nonce
        if not key:
            return message
        return message[:48] + digest(message, algorithm, key) + message[80:]

    def ask(self, message, port=CONTROL_PORT):
        """Sends a request; the answer. A port in it is where probes go from now on."""
        self.control.sendto(message, (self.responder, port))
        answer = self.control.recv(2048)
        if statuses(answer) == (0, 0, 0):
            self.port = struct.unpack_from(">H", answer, 166)[0]
        return answer

    def probe(self, sequence, size=64):
        probe = bytearray(size)
        struct.pack_into(">H", probe, 0, TYPES[self.kind])
        offset, form = (2, ">H") if self.kind == "udp-echo" else (20, ">I")
        struct.pack_into(form, probe, offset, sequence)
        self.measurement.sendto(probe, (self.responder, self.port))

    def reply(self):
        """Sequence number and counter of the next reply."""
        return struct.unpack_from(">II", self.measurement.recv(2048), 20)

    def exchange(self, sequence):
        """The counter of the reply to a probe."""
        self.probe(sequence)
        answered, counter = self.reply()
        assert answered == sequence
        return counter


def statuses(answer):
    """Header, authentication and measurement status of an answer."""
    offsets = (HEADER, AUTHENTICATION, MEASUREMENT)
    return tuple(struct.unpack_from(">H", answer, offset)[0] for offset in offsets)


def session_id(answer):
    return struct.unpack_from(">I", answer, 92)[0]
