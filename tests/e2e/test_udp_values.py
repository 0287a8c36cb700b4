"""Times of udp-jitter runs: what the report says follows, by the model, from the stamps that the
log lines give.

The tests run again and again with a different plan each time, so that nothing of one run may be
left in the next.
"""

import math
import random
import re
from dataclasses import dataclass, field

import pytest

from support import logs
from support import metric_model as model
from support.pattern_responder import PatternResponder, Script
from support.run_events import ANSWERED, DUPLICATED, LOST_BACK, LOST_OUT
from support.run_events import Pattern, Reply, metrics_of, reaching, replying, run_of
from support.tasks import task
from support.waiting import SCALE, wait_for

FIRST_PORT = 20000
TASKS, RUNS = 12, 6
TIMEOUT_MS = int(300 * SCALE)
INTERVAL_MS = 5

_SAMPLE = re.compile(
    r"Packet #(\d+)\n\t<-+\[([\d.]+) *\]-+>\n\t\[    S   \].*\n"
    r"\t\[(\d+) *\] ---- \(([\d.]+) *\) ---- \[(\d+) *\] ---- \(([\d.]+) *\) ---- \[(\d+) *\]$"
)


@dataclass
class LoggedRun:
    samples: dict = field(default_factory=dict)  # counter: send, responder's, receive stamp
    records: list = field(default_factory=list)

    def report(self):
        found = logs.parse_reports(self.records)
        return found[0] if found else None


def logged_runs(records):
    """The runs of a test's log with a complete report, each with the samples that its calculation
    took.
    """
    runs = [LoggedRun()]
    for record in records:
        if record.startswith("func 'NewStart'"):
            runs.append(LoggedRun())
        elif match := _SAMPLE.match(record):
            counter, rtt, sent, sd, remote, ds, received = match.groups()
            runs[-1].samples[int(counter)] = (int(sent), int(remote), int(received))
            assert math.isclose(float(rtt), (int(received) - int(sent)) / 100000, abs_tol=0.00051)
            assert math.isclose(float(sd) + float(ds), float(rtt), abs_tol=0.00151)
        runs[-1].records.append(record)
    return [run for run in runs if run.report() is not None]


def _script(random_numbers, count):
    outcomes = tuple(
        random_numbers.choices(
            [ANSWERED, LOST_OUT, LOST_BACK, DUPLICATED], weights=(6, 1, 1, 1), k=count
        )
    )
    arrivals, replies = reaching(outcomes), replying(outcomes)
    if random_numbers.random() < 0.6:
        arrivals.sort(key=lambda number: number + random_numbers.uniform(0, 2))
        replies.sort(key=lambda number: number + random_numbers.uniform(0, 2))
    skew = random_numbers.choice([0, 0, 0, -500_000_000, 500_000_000])
    return Script(Pattern(outcomes, tuple(arrivals), tuple(replies)), skew=skew)


def expected_of(script, samples):
    """The model's metrics of the script's run; probes whose reply is no sample have stamps that
    decide nothing.
    """
    count = script.pattern.count
    counters = script.pattern.counters()
    sends = [0] * count
    replies = []
    for number in script.in_time():
        sent, remote, received = samples.get(counters[number], (0, 0, 1))
        sends[number - 1] = sent
        replies.append(Reply(number, counters[number], remote, received))
    run = run_of(model.UDP_JITTER, sends, replies)
    return metrics_of(run, TIMEOUT_MS + (INTERVAL_MS + 7) * count)


def _close(found, expected):
    return all(math.isclose(one, other, abs_tol=0.000_000_6) for one, other in zip(found, expected))


def assert_agrees(report, expected, script):
    assert (report.status == "fail") == (expected.status == 1), script
    assert report.error == expected.error_description
    if expected.status == 1:
        return
    counters = (
        report.sd_packets,
        report.ds_packets,
        report.rtt_count,
        report.sd_samples,
        report.ds_samples,
    )
    assert counters == (
        expected.sd_pkt_count,
        expected.ds_pkt_count,
        expected.rtt_smp_count,
        expected.sd_smp_count,
        expected.ds_smp_count,
    ), script
    order = (report.sd_loss, report.ds_loss, report.late, report.skipped, report.duplicate)
    assert order == (
        expected.sd_loss,
        expected.ds_loss,
        expected.late_arrival,
        expected.skipped,
        expected.duplicate,
    ), script
    assert report.sd_out_of_sequence == expected.sd_out_of_sequence, script
    assert report.ds_out_of_sequence == expected.ds_out_of_sequence, script
    shares = [round(share, 2) for share in (expected.sd_loss_pct, expected.ds_loss_pct)]
    assert _close((report.sd_loss_pct, report.ds_loss_pct), shares)
    assert _close(report.rtt, (expected.rtt_min, expected.rtt_avg, expected.rtt_max)), (
        report,
        expected,
        script,
    )
    for way in ("sd", "ds"):
        values = [getattr(expected, f"latency_{way}_{name}") for name in ("min", "avg", "max")]
        assert _close(getattr(report, f"latency_{way}"), values), (report, expected, script)
        jitter = getattr(report, f"jitter_{way}")
        assert _close([jitter[2]], [getattr(expected, f"jitter_{way}_sd")]), (
            report,
            expected,
            script,
        )
        assert (jitter[0], jitter[1], jitter[3]) == (0, 0, 0)


@pytest.mark.parametrize("seed", [1, 2])
def test_reports_of_many_runs_follow_from_their_stamps(lab, start_daemon, seed):
    random_numbers = random.Random(seed)
    counts = {number: random_numbers.randint(2, 9) for number in range(1, TASKS + 1)}
    scripts = {
        number: [_script(random_numbers, count) for _ in range(RUNS)]
        for number, count in counts.items()
    }
    responder = PatternResponder(lab, lambda port, run: scripts[port - FIRST_PORT][run % RUNS])
    tasks = [
        task(
            number,
            "udp-jitter",
            packets=count,
            interval=INTERVAL_MS,
            timeout=TIMEOUT_MS,
            time=int(1 * SCALE),
            control={"timeout": int(3000 * SCALE)},
            measurement={"dst-port": FIRST_PORT + number},
            num_rep_hist=3,
        )
        for number, count in counts.items()
    ]
    daemon = start_daemon(tasks)

    def finished():
        return all(len(daemon.reports(number)) >= RUNS for number in counts)

    wait_for(finished, f"{RUNS} runs of every task", deadline=40, interval=0.3)
    for number, plans in scripts.items():
        runs = logged_runs(daemon.log_records(number))
        assert len(runs) >= RUNS
        for logged, script in zip(runs[:RUNS], plans):
            assert_agrees(logged.report(), expected_of(script, logged.samples), script)
    assert responder._strays == 0
