"""Reading the daemon's logs back: file records, run reports, and the recorded system-log copy."""

import re
from dataclasses import dataclass, field

STAMP = re.compile(r"^\d{2}-\d{2}-\d{4} \d{2}:\d{2}:\d{2}: ", re.MULTILINE)


def split_records(text):
    """The records of a log file, without their time stamps; a record may have several lines."""
    starts = [(match.start(), match.end()) for match in STAMP.finditer(text)]
    ends = [start for start, _ in starts[1:]] + [len(text)]
    # The last record counts only when its newline is there: the writer may be in the middle of it.
    return [
        text[begin : end - 1]
        for (_, begin), end in zip(starts, ends)
        if text[end - 1 : end] == "\n"
    ]


@dataclass
class SyslogRecord:
    severity: int
    flag: int
    module: int
    text: str


def parse_recording(data):
    """Records of the preloaded system-log library: "severity flag module text", newlines and
    backslashes escaped.
    """
    records = []
    for line in data.decode(errors="replace").split("\n")[:-1]:
        severity, flag, module, text = line.split(" ", 3)
        unescaped = re.sub(
            r"\\(.)", lambda match: {"n": "\n"}.get(match.group(1), match.group(1)), text
        )
        records.append(SyslogRecord(int(severity), int(flag), int(module), unescaped))
    return records


@dataclass
class Report:
    """One run as a test's log tells it. Fields of the sections that a type does not print stay
    None.
    """

    task: int = 0
    type: str = ""
    status: str = ""
    error: str = ""
    seconds: int = 0
    sd_packets: int = None
    ds_packets: int = None
    rtt_count: int = None
    rtt: tuple = None  # min, avg, max in milliseconds
    latency_sd: tuple = None  # min, avg, max
    latency_ds: tuple = None
    sd_samples: int = None
    ds_samples: int = None
    jitter_sd: tuple = None  # min, avg, standard deviation, max
    jitter_ds: tuple = None
    sd_loss: int = None
    sd_loss_pct: float = None
    ds_loss: int = None
    ds_loss_pct: float = None
    late: int = None
    skipped: int = None
    duplicate: int = None
    sd_out_of_sequence: int = None
    ds_out_of_sequence: int = None
    start: str = ""  # local time, "dd.mm.yyyy hh:mm:ss"
    finish: str = ""
    complete: bool = field(default=False, repr=False)


_NUMBER = r"(-?(?:[\d.]+|inf|nan))"
_HEADER = re.compile(
    r"SLA task:\n\tID: #(\d+)\tType: (\S+) \(#\d+\)\t\n\tStatus: (\S+)\t(?:Error: (.*))?\n"
    r"\tStart time: (.*)\tFinish time: (.*)\n\tOperation time: ~(\d+) seconds$"
)
_PACKETS = re.compile(
    r"Packets Values:\n\tNumber of SD Packets: (\d+)\n\tNumber of DS Packets: (\d+)$"
)
_RTT = re.compile(
    rf"RTT Values:\n\tNumber Of RTT: (-?\d+)\tRTT Min/Avg/Max: {_NUMBER}/{_NUMBER}/{_NUMBER} milliseconds$"
)
_LATENCY = re.compile(
    r"Latency one-way time:\n\tNumber of Latency one-way Samples: (-?\d+)\n"
    rf"\tSource to Destination Latency one way Min/Avg/Max: {_NUMBER}/{_NUMBER}/{_NUMBER} milliseconds\n"
    rf"\tDestination to Source Latency one way Min/Avg/Max: {_NUMBER}/{_NUMBER}/{_NUMBER} milliseconds\n"
    r"Jitter time:\n\tNumber of SD Jitter Samples: (-?\d+)\n\tNumber of DS Jitter Samples: (-?\d+)\n"
    rf"\tSource to Destination Jitter Min/Avg/SD/Max: {_NUMBER}/{_NUMBER}/{_NUMBER}/{_NUMBER} milliseconds\n"
    rf"\tDestination to Source Jitter Min/Avg/SD/Max: {_NUMBER}/{_NUMBER}/{_NUMBER}/{_NUMBER} milliseconds$"
)
_LOSS = re.compile(
    rf"Packet Loss Values:\n\tLoss Source to Destination: (-?\d+) \({_NUMBER}%\)"
    rf"\tLoss Destination to Source: (-?\d+) \({_NUMBER}%\)\n"
    r"\tPacket Late Arrival: (-?\d+)\tPacket Skipped: (-?\d+)\tDuplicate packets: (-?\d+)$"
)
_ORDER = re.compile(
    r"Out Of Sequence Values:\n\tSource to Destination Out Of Sequence: (-?\d+)"
    r"\tDestination to Source Out Of Sequence: (-?\d+)$"
)
_JITTER_TYPES = ("udp-jitter", "udp-jitter-ntp", "icmp-jitter")


def _floats(groups):
    return tuple(float(value) for value in groups)


def _add_section(report, record):
    if match := _PACKETS.match(record):
        report.sd_packets, report.ds_packets = map(int, match.groups())
    elif match := _RTT.match(record):
        report.rtt_count, report.rtt = int(match.group(1)), _floats(match.groups()[1:])
        report.complete = report.type not in _JITTER_TYPES
    elif match := _LATENCY.match(record):
        values = match.groups()
        report.latency_sd, report.latency_ds = _floats(values[1:4]), _floats(values[4:7])
        report.sd_samples, report.ds_samples = int(values[7]), int(values[8])
        report.jitter_sd, report.jitter_ds = _floats(values[9:13]), _floats(values[13:17])
    elif match := _LOSS.match(record):
        values = match.groups()
        report.sd_loss, report.sd_loss_pct = int(values[0]), float(values[1])
        report.ds_loss, report.ds_loss_pct = int(values[2]), float(values[3])
        report.late, report.skipped, report.duplicate = map(int, values[4:])
    elif match := _ORDER.match(record):
        report.sd_out_of_sequence, report.ds_out_of_sequence = map(int, match.groups())
        report.complete = True


class ReportReader:
    """Takes the records of one test as they come."""

    def __init__(self):
        self._open = None

    def feed(self, record):
        """The report that this record completes, if it completes one."""
        if match := _HEADER.match(record):
            task, kind, status, error, start, finish, seconds = match.groups()
            self._open = Report(int(task), kind, status, error or "", int(seconds))
            self._open.start, self._open.finish = start, finish
            self._open.complete = status != "successful"
        elif self._open:
            _add_section(self._open, record)
        if not self._open or not self._open.complete:
            return None
        done, self._open = self._open, None
        return done


def parse_reports(records):
    """The complete reports of one test's records."""
    reader = ReportReader()
    return [report for report in map(reader.feed, records) if report]
