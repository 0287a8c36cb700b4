"""Tests in company: many on one CPU, long and short intervals together, late handlers, a set clock.

What one test does must not be seen in the figures of another.
"""

import datetime
import os
import re
import resource
import signal
import struct
import time

import pytest

from support.icmp_replier import Fate, IcmpReplier
from support.responder_program import ResponderProgram
from support.tasks import icmp_echo, icmp_jitter, task
from support.waiting import SCALE, wait_for

NEAR, FAR = "10.2.0.1", "10.2.0.2"
ONE_CPU = [0]
# Bursts keep a CPU from other daemons for half a second; the tests that count on it have another.
BURST_CPU = [(os.cpu_count() or 1) - 1]


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
    burst = icmp_echo(1, packets=packets, interval=0, timeout=5000, time=30)
    daemon = start_daemon([burst], cpus=BURST_CPU)
    report = daemon.wait_for_reports(1, deadline=60)[0]
    assert (report.sd_packets, report.ds_packets) == (packets, packets)


def drops_by_port(lab):
    """Local port to the number of datagrams that did not fit into the socket's buffer."""
    rows = [line.split() for line in lab.run("cat", "/proc/net/udp").stdout.splitlines()[1:]]
    return {int(row[1].split(":")[1], 16): int(row[-1]) for row in rows}


def test_a_burst_to_a_responder_loses_nothing_in_the_daemons_own_buffer(lab, start_daemon):
    packets = 8_000 if lab.build.sanitizers else 65_535
    port = 50001
    responder = ResponderProgram(lab, "--realtime", "50")
    burst = task(
        1,
        "udp-jitter",
        packets=packets,
        interval=0,
        timeout=5000,
        time=600,
        control={"timeout": int(2000 * SCALE)},
        measurement={"dst-port": port},
    )
    daemon = start_daemon([burst], cpus=BURST_CPU)

    def dropped_there():
        """Once all have left: what other tests kept the responder from taking."""
        dropped = drops_by_port(lab).get(port, 0)
        received = responder.statistics()["probes"]["received"]
        return dropped if received + dropped == packets else 0

    wait_for(lambda: daemon.reports(1) or dropped_there(), "the burst", 60, interval=0.3)
    if daemon.reports(1):
        report = daemon.reports(1)[0]
        assert (report.sd_packets, report.ds_packets) == (packets, packets)
    else:
        # Without all replies the run goes on for minutes; its socket is still there.
        assert not any(n for at, n in drops_by_port(lab).items() if at not in (2000, port))


def test_the_end_of_a_large_run_holds_up_no_probe(lab, start_daemon):
    """Its metrics and its report, a line for each probe, take longer than the others' interval."""
    packets = 3_000 if lab.build.sanitizers else 10_000
    large = icmp_echo(101, packets=packets, interval=0, timeout=1500, time=3)
    quick = [icmp_jitter(n, packets=10, interval=20, time=1) for n in (1, 2, 3)]
    daemon = start_daemon([large, *quick], cpus=ONE_CPU)
    assert daemon.wait_for_reports(101, deadline=60)[0].ds_packets == packets
    for number in (1, 2, 3):
        for report in daemon.wait_for_reports(number, count=4):
            assert (report.status, report.sd_packets, report.ds_packets) == ("successful", 10, 10)
        assert "probes not sent" not in lab.log_text(number)


@pytest.mark.parametrize("kind", ["icmp-echo", "icmp-jitter", "udp-jitter"])
def test_an_interval_of_one_millisecond_is_kept(lab, start_daemon, kind):
    packets = 200
    ResponderProgram(lab)
    paced = task(
        1,
        kind,
        packets=packets,
        interval=1,
        timeout=3000,
        time=60,
        control={"timeout": int(2000 * SCALE)},
        measurement={"dst-port": 50001},
    )
    daemon = start_daemon([paced])
    assert daemon.wait_for_reports(1)[0].sd_packets == packets
    sent = departures(lab.log_text(1), kind)
    assert len(sent) == packets
    # The first one may have been held up between the look at the clock and the wire.
    assert (max(sent) - min(sent)) % DAY >= 0.9 * (packets - 1)


DAY = 86_400_000


def departures(log, kind):
    """When a run's probes left, in milliseconds since midnight, by its log."""
    unit = 1e-5 if kind == "udp-jitter" else 1
    return [
        float(stamp) * unit for stamp in re.findall(r"^\t\[(\S+) *\] ---- \(", log, re.MULTILINE)
    ]


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


def zone_file(hours):
    """A time zone that is so far ahead all the year, as tzfile(5) has it."""
    return (
        b"TZif"
        + bytes(16)
        + struct.pack(">6I", 0, 0, 0, 0, 1, 4)
        + struct.pack(">iBB", hours * 3600, 0, 0)
        + b"FAR\0"
    )


def test_lines_and_reports_follow_the_machine_to_another_time_zone(lab, start_daemon, tmp_path):
    if not os.path.exists("/etc/localtime"):
        pytest.skip("this machine's time zone is no file")
    zones = {hours: tmp_path / f"zone-{hours}" for hours in (3, 12)}
    for hours, file in zones.items():
        file.write_bytes(zone_file(hours))
    # The lab has mounts of its own.
    lab.run("mount", "--bind", zones[3], "/etc/localtime")
    daemon = start_daemon([icmp_echo(1, packets=1)], env={"TZ": ""})

    def is_ahead(hours):
        """Of the newest report: the time before its line, and its start time."""
        found = re.findall(
            r"^(\S+ \S+): SLA task:\n(?:.*\n)*?\tStart time: (\S+ \S+)\t", lab.log_text(1), re.M
        )
        now = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)
        return found and all(
            abs(datetime.datetime.strptime(text, form) - now - datetime.timedelta(hours=hours))
            < datetime.timedelta(hours=1)
            for text, form in zip(found[-1], ("%d-%m-%Y %H:%M:%S", "%d.%m.%Y %H:%M:%S"))
        )

    wait_for(lambda: is_ahead(3), "a report in the first zone")
    lab.run("mount", "--bind", zones[12], "/etc/localtime")
    wait_for(lambda: is_ahead(12), "a report in the second zone")


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
