"""A model of the metrics of one run, written from the rules alone: what a run's events make of its
counters and values.

It shares nothing with the daemon and is not shaped like it: a run is a list of events, the probes'
records follow from the events, the metrics follow from the records. Integers are cut to their width
where the daemon's wrap, divisions by zero give what IEEE 754 says, so that every value can be
compared for equality.

Units: milliseconds for results, 10 ns of the day for UDP stamps, milliseconds of the day for ICMP
stamps.
"""

import math
import struct
from dataclasses import dataclass, field, fields

LARGEST = struct.unpack("<d", b"\xff\xff\xff\xff\xff\xff\xef\x7f")[0]
UDP_ECHO, UDP_JITTER, UDP_JITTER_NTP, ICMP_ECHO, ICMP_JITTER = 1, 2, 3, 4, 5
ECHO_TYPES = (UDP_ECHO, ICMP_ECHO)
SENT, RECEIVED, SKIPPED, LOSS_DS = 0, 1, 2, 4
UNITS_PER_MS = 100000
NTP_EPOCH = 2208988800


@dataclass
class Record:
    """One probe of the ring."""

    id: int = 0
    state: int = SENT
    ss: int = 0
    rs: int = 0
    send_stamp: int = 0
    remote_receive: int = 0
    remote_transmit: int = 0
    receive_stamp: int = 0
    send_ms: float = 0.0
    receive_ms: float = 0.0
    ntp: tuple = (0, 0, 0, 0)  # T1..T4 as numbers (seconds since 1900 in the upper half)


@dataclass
class Metrics:
    status: int = 0
    error_description: str = ""
    sd_smp_count: int = 0
    ds_smp_count: int = 0
    rtt_smp_count: int = 0
    sd_pkt_count: int = 0
    ds_pkt_count: int = 0
    sd_loss: int = 0
    ds_loss: int = 0
    sd_out_of_sequence: int = 0
    ds_out_of_sequence: int = 0
    late_arrival: int = 0
    skipped: int = 0
    duplicate: int = 0
    sd_loss_pct: float = 0.0
    ds_loss_pct: float = 0.0
    jitter_sd_min: float = 0.0
    jitter_sd_avg: float = 0.0
    jitter_sd_sd: float = 0.0
    jitter_sd_max: float = 0.0
    jitter_ds_min: float = 0.0
    jitter_ds_avg: float = 0.0
    jitter_ds_sd: float = 0.0
    jitter_ds_max: float = 0.0
    latency_sd_min: float = 0.0
    latency_sd_avg: float = 0.0
    latency_sd_max: float = 0.0
    latency_ds_min: float = 0.0
    latency_ds_avg: float = 0.0
    latency_ds_max: float = 0.0
    rtt_min: float = 0.0
    rtt_avg: float = 0.0
    rtt_max: float = 0.0


NUMBERS = [
    entry.name for entry in fields(Metrics) if entry.name not in ("status", "error_description")
]


def i32(value):
    return (value + 2**31) % 2**32 - 2**31


def u32(value):
    return value % 2**32


def divide(dividend, divisor):
    """Division of doubles as IEEE 754 has it."""
    if divisor != 0:
        return float(dividend) / divisor
    if dividend == 0 or math.isnan(dividend):
        return math.nan
    return math.copysign(math.inf, dividend) * math.copysign(1, divisor)


def square_root(value):
    return math.nan if math.isnan(value) or value < 0 else math.sqrt(value)


def start_of_run(kind):
    metrics = Metrics()
    if kind not in ECHO_TYPES:
        for name in ("latency_sd", "latency_ds", "rtt"):
            setattr(metrics, name + "_min", LARGEST)
            setattr(metrics, name + "_max", -LARGEST)
    return metrics


# -- from records to metrics
# -----------------------------------------------------------------------------------------


def echo_metrics(kind, records, metrics=None):
    result = metrics or start_of_run(kind)
    answered = [record for record in records if record.state == RECEIVED]
    result.sd_smp_count += sum(record.state in (SENT, RECEIVED) for record in records)
    result.ds_smp_count += len(answered)
    result.rtt_smp_count = min(result.sd_smp_count, result.ds_smp_count)
    total = 0.0
    for record in answered:
        rtt = record.receive_ms - record.send_ms
        total += rtt
        result.rtt_min = min(result.rtt_min, rtt)
        result.rtt_max = max(result.rtt_max, rtt)
    result.rtt_avg = divide(total, result.rtt_smp_count)
    return result


@dataclass
class _Samples:
    """The usable samples of a walk: their sums, and the two arrays that the deviations are taken
    over.
    """

    metrics: Metrics
    count: int
    sd: list = field(default_factory=list)
    ds: list = field(default_factory=list)
    sums: list = field(default_factory=lambda: [0.0, 0.0, 0.0])

    def __post_init__(self):
        self.sd = [0.0] * self.count
        self.ds = [0.0] * self.count

    def add(self, index, rtt, sd, ds):
        self.sd[index], self.ds[index] = sd, ds
        for place, (name, value) in enumerate(
            (("rtt", rtt), ("latency_sd", sd), ("latency_ds", ds))
        ):
            self.sums[place] += value
            setattr(self.metrics, name + "_min", min(getattr(self.metrics, name + "_min"), value))
            setattr(self.metrics, name + "_max", max(getattr(self.metrics, name + "_max"), value))

    def finish(self):
        result = self.metrics
        samples = result.rtt_smp_count
        result.rtt_avg, result.latency_sd_avg, result.latency_ds_avg = (
            divide(total, samples) for total in self.sums
        )
        result.jitter_sd_sd = self._deviation(self.sd, result.latency_sd_avg, result.jitter_sd_sd)
        result.jitter_ds_sd = self._deviation(self.ds, result.latency_ds_avg, result.jitter_ds_sd)

    def _deviation(self, values, average, start):
        """Only the first samples' places count, whatever places the samples hold; an exact 0 is no
        sample.
        """
        total = start
        for value in values[: max(0, self.metrics.rtt_smp_count)]:
            if value != 0:
                total += (value - average) * (value - average)
        return square_root(divide(total, self.metrics.rtt_smp_count))


def _sequence_gaps(records):
    """Probes that the order at the far end jumped over: what is later than its successors counts as
    a gap once.
    """
    gaps = last = 0
    for record in records:
        if record.state == RECEIVED:
            if record.ss > u32(last + 1):
                gaps += record.ss - last - 1
            if record.ss >= u32(last + 1):
                last = record.ss
    return gaps


def _take_late_arrivals(result, missing):
    result.sd_out_of_sequence = max(0, i32(result.sd_out_of_sequence - missing))
    result.ds_out_of_sequence = max(0, i32(result.ds_out_of_sequence - missing))
    result.sd_smp_count = i32(result.sd_smp_count - result.sd_out_of_sequence)
    result.ds_smp_count = i32(result.ds_smp_count - result.ds_out_of_sequence)
    result.late_arrival = i32(result.sd_out_of_sequence + result.ds_out_of_sequence)
    result.rtt_smp_count = min(result.sd_smp_count, result.ds_smp_count)


def ntp_milliseconds(stamp):
    seconds, fraction = stamp >> 32, stamp & 0xFFFFFFFF
    return (seconds - NTP_EPOCH) * 1000 + fraction * 10**9 // 2**32 // 10**6


def _udp_delays(record, ntp):
    """Round trip, there, back."""
    if ntp:
        t1, t2, t3, t4 = (ntp_milliseconds(stamp) for stamp in record.ntp)
        return float(t4 - t1), float(abs(t2 - t1)), float(abs(t4 - t3))
    sent, received, remote = record.send_stamp, record.receive_stamp, record.remote_transmit
    rtt = (received - sent) / 100000.0
    if sent // UNITS_PER_MS <= remote // UNITS_PER_MS <= received // UNITS_PER_MS:
        return (
            rtt,
            abs(remote / 100000.0 - sent / 100000.0),
            abs(received / 100000.0 - remote / 100000.0),
        )
    return rtt, rtt * 0.5, rtt * 0.5


def udp_jitter_metrics(kind, records, responder_count, budget_ms, metrics=None):
    result = metrics or start_of_run(kind)
    ordered = sorted(records, key=lambda record: record.id)
    samples = _Samples(result, len(records))
    last = 0
    for index, record in enumerate(ordered):
        if record.state == RECEIVED:
            if record.receive_stamp < record.send_stamp:
                record.state = SKIPPED
                result.skipped += 1
            elif record.receive_stamp - record.send_stamp > budget_ms * UNITS_PER_MS:
                record.state = SKIPPED
                result.skipped += 1
            else:
                result.sd_smp_count += 1
                result.ds_smp_count += 1
                if record.rs >= u32(last + 1):
                    if record.rs > u32(last + 1):
                        result.ds_out_of_sequence = i32(
                            result.ds_out_of_sequence + record.rs - last - 1
                        )
                    last = record.rs
        elif record.state == SENT:
            result.sd_smp_count += 1
            record.state = LOSS_DS
        elif record.state == SKIPPED:
            result.skipped += 1
        if record.state == RECEIVED and record.rs == last:
            samples.add(index, *_udp_delays(record, kind == UDP_JITTER_NTP))
    result.sd_out_of_sequence += _sequence_gaps(sorted(ordered, key=lambda record: record.rs))
    result.sd_loss = i32(result.sd_smp_count - responder_count)
    result.ds_loss = i32(result.sd_smp_count - result.ds_smp_count - result.sd_loss)
    if result.sd_smp_count > 0:
        result.sd_loss_pct = result.sd_loss / result.sd_smp_count * 100
    arrived = i32(result.sd_smp_count - result.sd_loss)
    if arrived > 0:
        result.ds_loss_pct = result.ds_loss / arrived * 100
    _take_late_arrivals(result, result.sd_smp_count - result.ds_smp_count)
    samples.finish()
    return result


def icmp_jitter_metrics(records, metrics=None):
    result = metrics or start_of_run(ICMP_JITTER)
    ordered = sorted(records, key=lambda record: record.id)
    samples = _Samples(result, len(records))
    last = 0
    for index, record in enumerate(ordered):
        if record.state == RECEIVED:
            result.sd_smp_count += 1
            result.ds_smp_count += 1
            if record.remote_transmit < last:
                result.ds_out_of_sequence += 1
            else:
                last = record.remote_transmit
        elif record.state == SENT:
            result.sd_smp_count += 1
            record.state = LOSS_DS
        elif record.state == SKIPPED:
            result.skipped += 1
        if record.state == RECEIVED and record.remote_transmit == last:
            rtt = record.receive_ms - record.send_ms
            sd = ds = rtt * 0.5
            if record.send_ms <= record.remote_receive <= record.receive_ms:
                sd = float(abs(record.remote_receive - record.send_stamp))
                ds = float(abs(record.receive_stamp - record.remote_transmit))
            samples.add(index, rtt, sd, ds)
    result.sd_out_of_sequence += _sequence_gaps(
        sorted(ordered, key=lambda record: record.remote_transmit)
    )
    result.sd_loss = result.sd_smp_count - result.ds_smp_count
    if result.sd_smp_count > 0:
        result.sd_loss_pct = result.sd_loss / result.sd_smp_count * 100
    if result.ds_smp_count > 0:
        result.ds_loss_pct = result.ds_loss / result.ds_smp_count * 100
    _take_late_arrivals(result, result.sd_loss + result.ds_loss)
    samples.finish()
    return result


def latest_of_history(kind, history):
    """A task's latest result as it is reported, given the metrics of its kept runs, oldest first."""
    newest = history[-1]
    if kind in ECHO_TYPES or newest.status != 0:
        return newest
    result = Metrics(**vars(newest))
    counted = [entry for entry in history if entry.status != 1]
    for way in ("sd", "ds"):
        low, high, average = f"jitter_{way}_min", f"jitter_{way}_max", f"jitter_{way}_avg"
        setattr(result, low, min([LARGEST] + [getattr(entry, low) for entry in counted]))
        setattr(result, high, max([-LARGEST] + [getattr(entry, high) for entry in counted]))
        total = getattr(newest, average)  # the newest run counts twice
        for entry in counted:
            total += getattr(entry, average)
        setattr(result, average, total / len(counted))
    return result
