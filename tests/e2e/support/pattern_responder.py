"""A responder that plays one pattern per run: it waits for all probes, then counts and answers them
in given orders.

Runs are told apart by the measurement port that the request asks for (each task has its own) and by
their number.
"""

import socket
import struct
from dataclasses import dataclass, field

from . import metric_model as model
from .responder import UDP_ECHO, UDP_JITTER_NTP, ScriptedResponder, day_stamp, ntp_stamp
from .run_events import DUPLICATED, LATE, Pattern, Reply
from .waiting import SCALE

# Late answers are sent this long (seconds) after the run's end as the request gives it.
LATE_MARGIN = 0.6 * SCALE
_SO_RCVBUFFORCE = 33


@dataclass
class Script:
    """A pattern and where the second copies of its duplicated answers go."""

    pattern: Pattern
    copies_last: bool = False  # behind all first answers instead of each behind its own
    skew: int = 0  # of the responder's clock, in 10 ns
    delay: float = 0.0  # seconds between the last probe and the first answer

    def in_time(self):
        """Sequence numbers of the answers that come before the run's end, in order, copies
        included.
        """
        outcomes = self.pattern.outcomes
        first = [number for number in self.pattern.replies if outcomes[number - 1] != LATE]
        twice = [number for number in first if outcomes[number - 1] == DUPLICATED]
        if self.copies_last:
            return first + twice
        return [number for reply in first for number in [reply] * (2 if reply in twice else 1)]

    def late(self):
        return [
            number for number in self.pattern.replies if self.pattern.outcomes[number - 1] == LATE
        ]

    def replies(self):
        """The answers that count, as the model takes them; their stamps are of no run in
        particular.
        """
        counters = self.pattern.counters()
        in_time = enumerate(self.in_time())
        return [
            Reply(number, counters[number], 150_000, 200_000 + place) for place, number in in_time
        ]


@dataclass
class _Collected:
    kind: int
    script: Script
    address: tuple
    end: float
    probes: dict = field(default_factory=dict)


class PatternResponder(ScriptedResponder):
    """`script(port, run)` gives the Script of a run; `port` is the measurement port of the task's
    configuration.
    """

    def __init__(self, lab, script, **options):
        self.script = script
        self._run_numbers = {}
        self._collected = {}
        self.late_sent = 0
        super().__init__(lab, **options)
        for sock in (self._control_socket, self._measurement_socket):
            sock.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 16 << 20)

    def _open_run(self, request, source):
        sender_port, asked_port = struct.unpack_from(">HH", request, 164)
        number = self._run_numbers.get(asked_port, 0)
        self._run_numbers[asked_port] = number + 1
        duration = struct.unpack_from(">I", request, 168)[0] / 1000
        address = (source[0], sender_port)
        run = _Collected(
            request[90], self.script(asked_port, number), address, duration + LATE_MARGIN
        )
        self._collected[address] = run

    def _on_probe(self, data, source):
        run = self._collected.get(source)
        if run is None:
            self._strays += 1
            return
        offset, form = (2, ">H") if run.kind == UDP_ECHO else (20, ">I")
        run.probes[struct.unpack_from(form, data, offset)[0]] = data
        if len(run.probes) == run.script.pattern.count:
            self._play(run)

    def _play(self, run):
        counters = run.script.pattern.counters()

        def answer(number):
            self._measurement_socket.sendto(
                self._pattern_reply(run, number, counters[number]), run.address
            )

        def answer_late():
            for number in run.script.late():
                answer(number)
                self.late_sent += 1

        def answer_in_time():
            for number in run.script.in_time():
                answer(number)

        if run.script.delay > 0:
            self.later(run.script.delay, answer_in_time)
        else:
            answer_in_time()
        if run.script.late():
            self.later(run.end, answer_late)

    @staticmethod
    def _pattern_reply(run, number, counter):
        reply = bytearray(run.probes[number].ljust(28, b"\0"))
        stamp = ntp_stamp() if run.kind == UDP_JITTER_NTP else max(0, day_stamp() + run.script.skew)
        struct.pack_into(">HxxxxxxxxxxQII", reply, 0, run.kind, stamp, number, counter)
        return bytes(reply)


KINDS = {
    "udp-echo": model.UDP_ECHO,
    "udp-jitter": model.UDP_JITTER,
    "udp-jitter-ntp": model.UDP_JITTER_NTP,
}
