"""What one measurement of paced probes gave."""

from dataclasses import dataclass, field

from .figures import spread


@dataclass
class Outcome:
    """Errors against the wire in nanoseconds, signed; what the program says minus what was seen."""

    who: str
    tests: int
    interval_ms: float
    probes: int = 0
    lost: int = 0
    pacing: list = field(default_factory=list, repr=False)
    round_trip: list = field(default_factory=list, repr=False)
    way_out: list = field(default_factory=list, repr=False)
    way_back: list = field(default_factory=list, repr=False)
    inside: list = field(default_factory=list, repr=False)  # from a probe's arrival to its reply
    stretch: float = 0.0  # the worst test's mean gap over its interval, less 1
    cpu_us: float = None  # CPU of one probe, everything of the program included
    note: str = ""

    def add_flow(self, flow):
        """Counts a flow and its gaps."""
        interval = self.interval_ms * 1e6
        gaps = flow.gaps()
        self.probes += len(flow.departures)
        self.lost += sum(number not in flow.arrivals for number in flow.departures)
        self.pacing += [gap - interval for gap in gaps]
        if gaps:
            self.stretch = max(self.stretch, sum(gaps) / len(gaps) / interval - 1)

    def summary(self):
        """The figures for a report."""
        return {
            "who": self.who,
            "tests": self.tests,
            "interval_ms": self.interval_ms,
            "probes": self.probes,
            "lost": self.lost,
            "pacing_us": spread(self.pacing),
            "round_trip_us": spread(self.round_trip),
            "way_out_us": spread(self.way_out),
            "way_back_us": spread(self.way_back),
            "inside_us": spread(self.inside),
            "stretch_percent": self.stretch * 100,
            "cpu_us_per_probe": self.cpu_us,
            "note": self.note,
        }
