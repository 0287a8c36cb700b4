"""Tests in company: many on one CPU, long and short intervals together, late handlers, a set clock.

What one test does must not be seen in the figures of another.
"""

import os
import re
import resource
import signal
import time

import pytest

from support.icmp_replier import Fate, IcmpReplier
from support.tasks import icmp_echo, icmp_jitter
from support.waiting import SCALE, wait_for

NEAR, FAR = "10.2.0.1", "10.2.0.2"
ONE_CPU = [0]


@pytest.fixture
def replier(lab):
    lab.add_peer("peer", f"{NEAR}/24", f"{FAR}/24")
    return IcmpReplier(lab, "peer-far", namespace="peer")


def waits(daemon, number):
    """The waits for a next start that a test's log tells, in milliseconds."""
    return [
        int(found.group(1))
        for found in re.finditer(r"func 'NewStart' timeout (-?\d+) ms", daemon.lab.log_text(number))
    ]


def test_short_intervals_beside_long_ones_lose_nothing(start_daemon):
    slow = [
        icmp_echo(n, packets=3, time=5, measurement={"interval": 1000}) for n in range(101, 121)
    ]
    quick = [icmp_jitter(n, packets=10, interval=20, time=1) for n in (1, 2, 3)]
    daemon = start_daemon([*slow, *quick], cpus=ONE_CPU)
    for number in (1, 2, 3):
        for report in daemon.wait_for_reports(number, count=4):
            assert (report.status, report.sd_packets, report.ds_packets) == ("successful", 10, 10)
        assert "probes not sent" not in daemon.lab.log_text(number)


def test_long_intervals_do_not_make_others_stand_still(start_daemon):
    slow = [
        icmp_echo(n, packets=2, time=8, measurement={"interval": 3000}) for n in range(101, 117)
    ]
    quick = [icmp_echo(n, packets=2, time=1, timeout=100) for n in (1, 2, 3)]
    daemon = start_daemon([*slow, *quick], cpus=ONE_CPU)
    for number in (1, 2, 3):
        for report in daemon.wait_for_reports(number, count=5):
            assert report.status == "successful"
        assert set(waits(daemon, number)) <= {0, 1000}
    # The slow ones are not behind either: their run is over 3 s after its start.
    assert daemon.wait_for_reports(101)[0].sd_packets == 2


def test_probes_that_never_left_are_named(lab, start_daemon, replier):
    """A daemon that is stopped for longer than a run lasts sends only what it had sent."""
    daemon = start_daemon(
        [icmp_echo(1, src=NEAR, dst=FAR, packets=4, interval=400, timeout=100, time=3)]
    )
    wait_for(lambda: replier.headers, "the first probe")
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        time.sleep(2.0)  # the run's length is 1.7 s; nothing can be waited for meanwhile
    finally:
        os.kill(daemon.pid, signal.SIGCONT)
    wait_for(
        lambda: re.search(r"[1-4] of 4 probes not sent", lab.log_text(1)), "the line about them"
    )
    # The stop wraps no wait: the next run comes.
    assert daemon.wait_for_reports(1, count=2)[1].sd_packets == 4
    assert max(waits(daemon, 1)) <= 3000


def test_a_reply_behind_the_deadline_does_not_count_however_late_it_is_looked_at(
    lab, start_daemon, replier
):
    replier.probes = lambda _: {1: Fate(delay=0.9)}
    daemon = start_daemon(
        [icmp_echo(1, src=NEAR, dst=FAR, packets=1, interval=0, timeout=300, time=2)]
    )
    wait_for(lambda: replier.headers, "the probe")
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        time.sleep(1.3)  # the reply arrives while the deadline passes unnoticed
    finally:
        os.kill(daemon.pid, signal.SIGCONT)
    report = daemon.wait_for_reports(1)[0]
    assert (report.status, report.error) == ("fail", "timeout, no samples")


def test_a_reply_before_the_deadline_counts_however_late_it_is_looked_at(
    lab, start_daemon, replier
):
    replier.probes = lambda _: {1: Fate(delay=0.2)}
    daemon = start_daemon(
        [icmp_echo(1, src=NEAR, dst=FAR, packets=1, interval=0, timeout=600, time=3)]
    )
    wait_for(lambda: replier.headers, "the probe")
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        time.sleep(1.3)
    finally:
        os.kill(daemon.pid, signal.SIGCONT)
    report = daemon.wait_for_reports(1)[0]
    assert (report.status, report.ds_packets) == ("successful", 1)
    if SCALE == 1:
        assert 200 <= report.rtt[2] < 600


def test_a_burst_loses_nothing_in_the_daemons_own_buffer(lab, start_daemon):
    packets = 8_000 if lab.build.sanitizers else 65_535
    task = icmp_echo(1, packets=packets, interval=0, timeout=5000, time=30)
    daemon = start_daemon([task], cpus=ONE_CPU)
    report = daemon.wait_for_reports(1, deadline=60)[0]
    assert (report.sd_packets, report.ds_packets) == (packets, packets)


@pytest.mark.parametrize("step", [10, -10])
def test_a_clock_that_is_set_does_not_move_the_next_start(lab, start_daemon, tmp_path, step):
    """The clock watcher is not told here: the delay itself must not hang on the wall clock."""
    file = tmp_path / "step"
    file.write_text("0")
    preload = f"{lab.build.recorder} {lab.build.recorder.parent / 'libclock_step.so'}"
    daemon = start_daemon(
        [icmp_echo(1, packets=3, interval=300, time=3)],
        env={"LD_PRELOAD": preload, "IPSLA_CLOCK_STEP_FILE": str(file)},
    )
    wait_for(lambda: "TestStop" in lab.log_text(1), "the first run")
    file.write_text(str(step))
    assert len(daemon.wait_for_reports(1, count=2, deadline=15)) >= 2
    assert all(0 <= wait <= 3000 for wait in waits(daemon, 1))


def test_a_thousand_tests_run_under_a_small_soft_limit_of_open_files(lab, start_daemon):
    tasks = [icmp_echo(n, packets=1, interval=0, time=5, timeout=3000) for n in range(1, 1101)]
    (_, hard) = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (1024, hard))
    try:
        daemon = start_daemon(tasks)
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    # Their first replies may come late on a machine that other tests keep busy.
    for number in (1, 550, 1100):
        wait_for(
            lambda n=number: any(r.status == "successful" for r in daemon.reports(n)),
            f"a good run of task {number}",
            60,
        )
    logs = "".join(lab.log_text(n) for n in range(1101))
    assert "Too many open files" not in logs
    assert "Start test failed" not in logs
