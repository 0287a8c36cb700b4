"""Instructions of one run and of one log line, counted by callgrind: the same on every machine."""

import re
import shutil
import time

from support.lab import Build
from support.tasks import icmp_echo

from . import stage

_PACKETS = 10
_SECONDS = 8  # a run every second, at a fiftieth of the usual speed
# (what it is, function); a call's instructions are those of all that it calls.
_PARTS = [
    ("start of a run", "ipsla::Sender::NewStart("),
    ("one probe, and the reply to the one before", "ipsla::Sender::SendDue("),
    (_LAST := "the last reply", "ipsla::Sender::ReceivePacket("),
    ("end of a run: metrics, report", _END := "ipsla::Sender::CalcMetric("),
]
_LINE = ("one log line, for who logs it", "ipsla::log_internal::LogDebug(")
_FUNCTION = re.compile(r"c?fn=\((\d+)\)(?: (.*))?")


class CountingBuild(Build):
    """Its programs run under callgrind."""

    def __init__(self, directory, counts):
        super().__init__(directory)
        self.counts = counts

    def launcher(self):
        options = ["--tool=callgrind", f"--callgrind-out-file={self.counts}"]
        return [*super().launcher(), "valgrind", "-q", *options]


def is_there():
    return shutil.which("valgrind") is not None


def measure(build, directory):
    """[{"part", "calls", "instructions" of one call}, ...]."""
    counts = directory / "callgrind"
    with stage.stage(CountingBuild(build.directory, counts)) as lab:
        task = icmp_echo(1, packets=_PACKETS, interval=20, timeout=500)
        with stage.daemon(lab, [task], cpus=[0]):
            time.sleep(_SECONDS)
    return list(parts_of(inclusive_costs(counts.read_text())))


def parts_of(costs):
    sums = {part: cost_of(costs, function) for part, function in [*_PARTS, _LINE]}
    runs, end = cost_of(costs, _END)
    if runs == 0:
        return
    # Its last reply ends a run.
    replies, spent = sums[_LAST]
    sums[_LAST] = (replies, spent - end)
    whole = sum(sums[part][1] for part, _ in _PARTS)
    yield {"part": f"one run of {_PACKETS} probes", "calls": runs, "instructions": whole / runs}
    for part, (calls, spent) in sums.items():
        if calls:
            yield {"part": part, "calls": calls, "instructions": spent / calls}


def cost_of(costs, function):
    """(calls, instructions) of a function by the beginning of its name."""
    found = [cost for name, cost in costs.items() if name.startswith(function)]
    return sum(calls for calls, _ in found), sum(spent for _, spent in found)


def inclusive_costs(text):
    """Function to (calls, instructions of these calls), from what callgrind wrote."""
    names, costs, called = {}, {}, None
    lines = iter(text.splitlines())
    for line in lines:
        if match := _FUNCTION.match(line):
            number, name = match.groups()
            if name:
                names[number] = name
            if line.startswith("c"):
                called = names[number]
        elif line.startswith("calls="):
            count, spent = int(line[6:].split()[0]), int(next(lines).split()[1])
            before = costs.get(called, (0, 0))
            costs[called] = (before[0] + count, before[1] + spent)
    return costs
