"""The book of the soak test: every run that the daemon reports, and whether it may look so."""

import os
import time
from collections import Counter

from . import logs
from .soak_plan import calm_script, differences, expected
from .waiting import SCALE

PATIENCE = int(4 * SCALE)  # seconds until what was disturbed must be right again
STALL = 5 * SCALE  # seconds by which a busy machine may delay a run
# How a run may fail while something is taken from under it.
ALLOWED_ERRORS = {
    # While the machine has no time for the programs.
    "anywhere": {
        "control phase failed: destination host is not responding",
        "timeout, no samples",
    },
    "links": {
        "source address or interface not exist",
        "control phase failed: destination host is not responding",
        "timeout, no samples",
        "Start test failed",
        "control phase failed: internal error",
    },
    "restarts": {
        "control phase failed: connection refused",
        "control phase failed: destination host is not responding",
        "timeout, no samples",
    },
}
# A reply to a probe of the run that a lost link has ended may reach its port when another test's
# control phase has been given it, and is taken there for the response, as any datagram is.
STRAY_ERROR = "control phase failed: invalid response control phase protocol version"
_RESPONSE = " [Control phase response]"
_RESPONSE_LENGTH = "Total length              : 172 bytes"
_MARK = 600  # bytes
_NEW_TEST = "func 'NewStart' timeout 0 ms"


class LogFollower:
    """Reads what a log file has got since the last time, also when it was cut to its newer half."""

    def __init__(self, path):
        self._path = path
        self._offset = 0
        self._mark = b""  # the last bytes taken
        self._rest = ""  # of a record that is not whole
        self._misses = 0

    def records(self):
        text = self._rest + self._new_bytes().decode(errors="replace")
        end = text.rfind("\n") + 1
        # The last record may go on: it is taken when there is another behind it.
        begins = list(logs.STAMP.finditer(text, 0, end))
        if len(begins) < 2:
            self._rest = text
            return []
        last = begins[-1].start()
        self._rest = text[last:]
        return logs.split_records(text[:last])

    def _new_bytes(self):
        try:
            with open(self._path, "rb") as file:
                begin = self._offset - len(self._mark)
                file.seek(begin)
                data = file.read()
                if data.startswith(self._mark) and len(data) >= len(self._mark):
                    return self._take(data[len(self._mark) :], self._offset)
                file.seek(0)
                data = file.read()
        except FileNotFoundError:
            return b""
        place = data.rfind(self._mark)
        if place < 0:  # it is being cut at this moment
            self._misses += 1
            assert self._misses < 20, f"{self._path} has lost its place"
            return b""
        begin = place + len(self._mark)
        return self._take(data[begin:], begin)

    def _take(self, new, begin):
        self._misses = 0
        self._offset = begin + len(new)
        self._mark = (self._mark + new)[-_MARK:]
        return new


class Book:
    """What one task has reported."""

    def __init__(self, spec, lab, script):
        self.spec = spec
        self._stood_still = ()
        self._script = script  # function of the run's number, or none
        self._follower = LogFollower(lab.log_path(spec.number))
        self._reader = logs.ReportReader()
        self.runs = 0  # of the present test
        self.successful = 0
        self.earlier = 0  # runs of tests under this number that a reload has replaced
        self.probes = 0
        self.last_start = None
        self._last_failed = False
        self.starved = 0  # runs that the machine had no time for
        self.longest_wait = 0.0  # seconds beyond a period
        self.dropped = 0  # times that the log has left lines out
        self.strays = 0  # runs that a datagram for another one ended
        self._response = ""  # the last one of a control phase, as the log shows its header
        self.tests = 0
        self.packets_of_tests = [spec.packets]
        self.outcomes = Counter()
        self.wrong = []

    def follow(self, windows, stood_still=()):
        """`windows`: when something was taken from under the task; `stood_still`: when the machine
        had no time for the daemon.
        """
        self._stood_still = stood_still
        for record in self._follower.records():
            if self.spec.place == "changing" and record == _NEW_TEST:
                self._new_test()
            self.dropped += record.endswith(" lines dropped")
            if record.startswith(_RESPONSE):
                self._response = record
            report = self._reader.feed(record)
            if report is not None:
                self._take(report, windows)

    def _new_test(self):
        self.tests += 1
        self.earlier += self.runs
        self.runs = self.successful = 0
        self.last_start = None

    def _take(self, report, windows):
        start, finish = (
            time.mktime(time.strptime(text, "%d.%m.%Y %H:%M:%S"))
            for text in (report.start, report.finish)
        )

        def falls_into(some):
            return any(start <= w[1] + PATIENCE and finish >= w[0] - 1 for w in some)

        wanted = self._wanted()
        self.runs += 1
        self.successful += report.status == "successful"
        self.probes += report.sd_packets or 0
        self.outcomes[report.error or report.status] += 1
        found = differences(report, wanted)
        excused = falls_into(windows) and self._may_suffer(report, self.spec.place)
        if falls_into(self._stood_still) and self._may_suffer(report, "anywhere"):
            excused = True
            self.starved += bool(found)
        if self._is_stray(report) and falls_into(windows):
            excused = True
            self.strays += 1
        if found and not excused:
            response = self._response if report.error == STRAY_ERROR else ""
            self.wrong.append(f"run {self.runs}, {report}: {found} {response}")
        self._check_start(start, windows)
        self._last_failed = report.status != "successful"

    def _is_stray(self, report):
        """Whether what ended the run is no control message at all: each one tells its length."""
        if self.spec.place != "links" or report.error != STRAY_ERROR:
            return False
        return bool(self._response) and _RESPONSE_LENGTH not in self._response

    def _wanted(self):
        if self._script:
            return expected(self.spec, self._script(self.runs))
        if self.spec.place == "changing":
            packets = self.packets_of_tests[max(0, self.tests - 1)]
            return expected(self.spec, calm_script(packets))
        return expected(self.spec, calm_script(self.spec.packets))

    @staticmethod
    def _may_suffer(report, place):
        if place not in ALLOWED_ERRORS:
            return False
        return report.status == "successful" or report.error in ALLOWED_ERRORS[place]

    def _check_start(self, start, windows):
        """Runs begin a period apart: less is a run told twice, more is one that never was."""
        if self.last_start is not None:
            gap = start - self.last_start
            self.longest_wait = max(self.longest_wait, gap - self.spec.period)
            least = 0 if self.spec.place == "links" else self.spec.period
            if self.spec.place == "restarts" or self._last_failed:
                least = min(least, 1)  # "retry" after a failed control phase
            disturbed = sum(
                w[1] - w[0] + PATIENCE
                for w in [*windows, *self._stood_still]
                if w[0] <= start and w[1] + PATIENCE >= self.last_start
            )
            most = self.spec.period + STALL + disturbed
            if not least <= gap <= most:
                self.wrong.append(f"{gap} s between two runs, at {start}")
        self.last_start = start

    def assert_enough_runs(self, seconds):
        """Start times are whole seconds, so a period may take one more."""
        assert (self.runs + 1) * (self.spec.period + 1) + STALL >= seconds, self.spec


def usage(pid):
    """Resident KiB, descriptors, threads."""
    with open(f"/proc/{pid}/status") as status:
        fields = dict(line.split(":", 1) for line in status)
    descriptors = len(os.listdir(f"/proc/{pid}/fd"))
    return int(fields["VmRSS"].split()[0]), descriptors, int(fields["Threads"])
