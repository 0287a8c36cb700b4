"""Many tests at once: nothing fails and nothing grows."""

import time

from support.tasks import icmp_echo
from support.waiting import wait_for

SECONDS = 5
TASKS = 100


def resident_kib(daemon):
    with open(f"/proc/{daemon.pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


def test_hundred_icmp_echo_tasks(start_daemon):
    numbers = range(1, TASKS + 1)
    daemon = start_daemon(
        [icmp_echo(number, time=2, packets=3, interval=20, timeout=1000) for number in numbers]
    )

    def finished():
        return sum(len(daemon.reports(number)) for number in numbers)

    wait_for(
        lambda: all(daemon.reports(number) for number in numbers),
        "a first run of every task",
        deadline=60,
    )
    threads = len(daemon.threads())
    idle = []  # descriptors while no run is in progress are the fewest of many readings
    memory = resident_kib(daemon)
    end = time.monotonic() + SECONDS
    while time.monotonic() < end:
        assert len(daemon.threads()) == threads
        idle.append(len(daemon.descriptors()))
        time.sleep(0.1)
    reports = [report for number in numbers for report in daemon.reports(number)]
    failed = [report for report in reports if report.status != "successful"]
    print(
        f"{len(reports)} runs, {len(failed)} failed, {threads} threads, descriptors {min(idle)} to {max(idle)}"
    )
    print(f"memory {memory} KiB after the first runs, {resident_kib(daemon)} KiB at the end")
    assert failed == []
    assert len(reports) >= TASKS * max(1, int(SECONDS / 2) - 1)
    half = len(idle) // 2
    assert min(idle[half:]) <= min(idle[:half])
    assert max(idle) <= min(idle) + TASKS
