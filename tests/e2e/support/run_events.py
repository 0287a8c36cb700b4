"""What happens to the probes of one run, and the records that it leaves behind: the events of the
metric model.

A reply takes the slot of its sequence number modulo the number of probes. The first reply of a slot
is taken, a further one is a duplicate, one for a slot that was never sent is nothing; once every
probe is answered the run is over and what still comes is not seen.
"""

import itertools
from dataclasses import dataclass, field

from . import metric_model as model
from .metric_model import RECEIVED, UNITS_PER_MS, Record

ANSWERED, LOST_OUT, LOST_BACK, DUPLICATED, LATE = (
    "answered",
    "lost out",
    "lost back",
    "duplicated",
    "late",
)
OUTCOMES = (ANSWERED, LOST_OUT, LOST_BACK, DUPLICATED, LATE)


@dataclass
class Reply:
    sequence: int
    counter: int = 0  # distinct probes that had reached the responder, this one included
    remote: int = 0  # the responder's stamp, in the unit of the probe's
    received: int = 0  # stamp of the arrival at the sender
    remote_receive: int = None  # ICMP: the responder's receive stamp where it differs from `remote`
    words: tuple = (0, 0)  # udp-jitter-ntp: the values at offsets 12 and 20


@dataclass
class Run:
    kind: int
    records: list
    duplicate: int = 0
    accepted: int = 0
    responder_count: int = 0


@dataclass(frozen=True)
class Pattern:
    """One run: per probe its outcome, the order of the arrivals at the responder and that of the
    replies' arrivals.
    """

    outcomes: tuple
    arrivals: tuple  # sequence numbers that reach the responder
    # Sequence numbers of the first replies, in the order of their arrival; late ones included.
    replies: tuple

    @property
    def count(self):
        return len(self.outcomes)

    def counters(self):
        return {sequence: place for place, sequence in enumerate(self.arrivals, 1)}


def reaching(outcomes):
    return [number for number, outcome in enumerate(outcomes, 1) if outcome != LOST_OUT]


def replying(outcomes):
    return [
        number for number, outcome in enumerate(outcomes, 1) if outcome not in (LOST_OUT, LOST_BACK)
    ]


def all_patterns(count):
    for outcomes in itertools.product(OUTCOMES, repeat=count):
        for arrivals in itertools.permutations(reaching(outcomes)):
            for replies in itertools.permutations(replying(outcomes)):
                yield Pattern(outcomes, arrivals, replies)


def run_of(kind, send_stamps, replies):
    """The run's records after probes sent at `send_stamps` (10 ns; ICMP: ms) and `replies` in the
    order of arrival.
    """
    count = len(send_stamps)
    run = Run(kind, [Record() for _ in range(count)])
    icmp = kind in (model.ICMP_ECHO, model.ICMP_JITTER)
    per_ms = 1 if icmp else UNITS_PER_MS
    for sequence, stamp in enumerate(send_stamps, 1):
        record = run.records[sequence % count]
        record.ss, record.send_ms = sequence, stamp / per_ms
        if kind != model.ICMP_ECHO:
            record.send_stamp = int(stamp)
    for reply in replies:
        if run.accepted == count:
            break
        record = run.records[reply.sequence % count]
        if record.ss == 0:
            continue
        if record.state == RECEIVED:
            run.duplicate += kind != model.ICMP_ECHO
            continue
        record.state = RECEIVED
        record.id = run.accepted
        run.accepted += 1
        if not icmp:
            run.responder_count = max(run.responder_count, reply.counter)
        _store(kind, record, reply, per_ms)
    return run


def _store(kind, record, reply, per_ms):
    if kind == model.UDP_JITTER_NTP:
        record.rs = 0
        record.ntp = (0, reply.words[0], reply.words[1], 1)
        return
    record.receive_ms = reply.received / per_ms
    if kind == model.UDP_JITTER:
        record.rs = reply.counter
        record.remote_receive = record.remote_transmit = reply.remote
        record.receive_stamp = reply.received
    elif kind == model.ICMP_JITTER:
        record.remote_receive = (
            reply.remote if reply.remote_receive is None else reply.remote_receive
        )
        record.remote_transmit = reply.remote
        record.receive_stamp = int(reply.received)


def metrics_of(run, budget_ms):
    """The metrics stored for the run."""
    if run.accepted == 0:
        return model.Metrics(status=1, error_description="timeout, no samples")
    if run.kind in model.ECHO_TYPES:
        result = model.echo_metrics(run.kind, run.records)
    elif run.kind == model.ICMP_JITTER:
        result = model.icmp_jitter_metrics(run.records)
    else:
        result = model.udp_jitter_metrics(run.kind, run.records, run.responder_count, budget_ms)
    result.sd_pkt_count = sum(record.ss > 0 for record in run.records)
    result.ds_pkt_count = run.accepted
    result.duplicate = run.duplicate
    return result


@dataclass
class Timing:
    """Stamps for a pattern's run: probes every `interval`, the replies one after the other from
    `first_reply` on.
    """

    base: int = 4_321_012_345_678  # some time of the day, in 10 ns
    interval_ms: int = 10
    timeout_ms: int = 50
    spacing: int = 123_457  # between replies
    jitter: tuple = field(
        default=(0, 77_123, 31_007, 150_001)
    )  # added to the responder's half way, by sequence number

    def budget_ms(self, count):
        return self.timeout_ms + (self.interval_ms + 7) * count

    def sends(self, count):
        return [self.base + place * self.interval_ms * UNITS_PER_MS for place in range(count)]

    def replies(self, pattern):
        """The replies in order, each duplicate directly behind the reply that it copies."""
        sends, counters = self.sends(pattern.count), pattern.counters()
        first = sends[-1] + UNITS_PER_MS // 2
        result = []
        for place, sequence in enumerate(pattern.replies):
            received = first + place * self.spacing
            if pattern.outcomes[sequence - 1] == LATE:
                received = (
                    sends[sequence - 1] + self.budget_ms(pattern.count) * UNITS_PER_MS + 1 + place
                )
            remote = (sends[sequence - 1] + received) // 2 + self.jitter[
                sequence % len(self.jitter)
            ]
            reply = Reply(sequence, counters[sequence], remote, received)
            result += [reply] * (2 if pattern.outcomes[sequence - 1] == DUPLICATED else 1)
        return result
