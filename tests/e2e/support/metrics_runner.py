"""The daemon's own calculations, run by ipsla-metrics-runner on records given as text, and compared
with the model.
"""

import itertools
import json
import math
import subprocess
import tempfile

from . import metric_model as model


def _record(record):
    words = [
        record.id,
        record.state,
        record.ss,
        record.rs,
        record.send_stamp,
        record.remote_receive,
    ]
    words += [
        record.remote_transmit,
        record.receive_stamp,
        record.send_ms.hex(),
        record.receive_ms.hex(),
        *record.ntp,
    ]
    return " ".join(map(str, words))


def line_of(run, budget_ms):
    """The text of one run. Taken before the model's turn, which changes the records' states."""
    records = " ".join(map(_record, run.records))
    if run.kind in model.ECHO_TYPES:
        return f"echo {run.kind} {len(run.records)} {records}"
    if run.kind == model.ICMP_JITTER:
        return f"icmp {len(run.records)} {records}"
    return f"jitter {run.kind} {run.responder_count} {budget_ms} {len(run.records)} {records}"


def history_line(history):
    ways = [
        f"jitter_{way}_{value}" for way in ("sd", "ds") for value in ("min", "avg", "sd", "max")
    ]
    entries = [
        [str(entry.status), *(float(getattr(entry, name)).hex() for name in ways)]
        for entry in history
    ]
    return f"history {len(history)} " + " ".join(itertools.chain.from_iterable(entries))


def differences(expected, found, names):
    """Where a model's metrics and the runner's answer differ: name, expected, found."""
    result = []
    for name in names:
        ours, theirs = getattr(expected, name), found[name]
        theirs = float(theirs) if isinstance(theirs, str) else theirs
        same = ours == theirs or (math.isnan(ours) and math.isnan(theirs))
        if not same:
            result.append((name, ours, theirs))
    return result


class Comparison:
    """Collects runs with what the model makes of them, sends them all through one process and
    compares.

    The counts of probes sent, replies accepted and duplicates are no work of the calculations and
    are left out.
    """

    NAMES = [
        name for name in model.NUMBERS if name not in ("sd_pkt_count", "ds_pkt_count", "duplicate")
    ]

    def __init__(self, build):
        self._program = build.program("ipsla-metrics-runner")
        self._environment = build.environment()
        self._lines = []
        self._expected = []

    def add(self, line, expected):
        self._lines.append(line)
        self._expected.append(expected)

    def __len__(self):
        return len(self._lines)

    def run(self):
        """Compares everything added; fails with the first differences."""
        with tempfile.TemporaryFile("w+") as runs:
            runs.write("\n".join(self._lines) + "\n")
            runs.seek(0)
            process = subprocess.run(
                [self._program],
                stdin=runs,
                capture_output=True,
                text=True,
                env=self._environment,
                timeout=600,
            )
        assert process.returncode == 0, process.stderr
        answers = process.stdout.splitlines()
        assert len(answers) == len(self._lines)
        wrong = []
        for line, expected, answer in zip(self._lines, self._expected, answers):
            found = differences(expected, json.loads(answer), self.NAMES)
            if found:
                wrong.append(
                    f"{line}\n  "
                    + "\n  ".join(f"{n}: model {e!r}, daemon {f!r}" for n, e, f in found)
                )
        assert (
            not wrong
        ), f"{len(wrong)} of {len(self._lines)} runs differ; the first:\n" + "\n".join(wrong[:3])
