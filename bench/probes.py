"""What the daemon wrote about each probe of a run."""

import bisect
import re
from dataclasses import dataclass

_DAY = 86400 * 10**9
_ECHO = re.compile(r"Packet #(\d+)\n[^\n]*\n\t\[(\S+) *\] ---- \((\S+) *\) ---- \[(\S+) *\]")
_JITTER = re.compile(
    r"Packet #(\d+)\n\t<-+\[(\S+) *\]-+>\n[^\n]*\n"
    r"\t\[(\S+) *\] ---- \((\S+) *\) ---- \[(\S+) *\] ---- \((\S+) *\) ---- \[(\S+) *\]"
)


@dataclass
class LoggedProbe:
    """Times in nanoseconds; `sent` since midnight UTC; one-way times where the type has them."""

    sent: int
    round_trip: int
    way_out: int = None
    way_back: int = None


def _nanoseconds(milliseconds):
    return round(float(milliseconds) * 1e6)


def logged_probes(log):
    """The probes that a test's log tells of, in the order of its lines."""
    found = [LoggedProbe(_nanoseconds(m[2]), _nanoseconds(m[3])) for m in _ECHO.finditer(log)]
    for match in _JITTER.finditer(log):
        _, rtt, sent, out, _, back, _ = match.groups()
        times = (int(sent) * 10, _nanoseconds(rtt), _nanoseconds(out), _nanoseconds(back))
        found.append(LoggedProbe(*times))
    return found


def pair(probes, flow):
    """(logged probe, sequence number on the wire) of each probe, by the nearest departure.

    The number in the log is not always the probe's, so time decides.
    """
    numbers = sorted(flow.departures, key=flow.departures.get)
    stamps = [flow.departures[number] % _DAY for number in numbers]
    for probe in probes:
        place = bisect.bisect_left(stamps, probe.sent)
        near = [index for index in (place - 1, place) if 0 <= index < len(stamps)]
        if near:
            yield probe, numbers[min(near, key=lambda index: abs(stamps[index] - probe.sent))]
