"""The daemon's threads: how many, on which CPU, with which priority and which stack. And that its
tools have one.
"""

import os
import platform
import re
import socket
import subprocess

import pytest

from support.api_client import ADDRESS
from support.ctl import Ctl
from support.daemon import BASE_THREADS, WORKERS_PER_CPU
from support.tasks import icmp_echo
from support.waiting import DEFAULT_DEADLINE, holds_for, wait_for

SCHED_OTHER, SCHED_RR = 0, 2
STACK_BYTES = 131072


def stat_fields(pid, thread):
    """Fields of /proc/pid/task/tid/stat after the name; the first one is field 3."""
    with open(f"/proc/{pid}/task/{thread}/stat") as stat:
        return stat.read().rsplit(")", 1)[1].split()


def policy(daemon, thread):
    return int(stat_fields(daemon.pid, thread)[41 - 3])


def priority(daemon, thread):
    return int(stat_fields(daemon.pid, thread)[40 - 3])


def cpus_allowed(daemon, thread):
    with open(f"/proc/{daemon.pid}/task/{thread}/status") as status:
        return re.search(r"^Cpus_allowed_list:\s*(\S+)", status.read(), re.MULTILINE).group(1)


def wait_for_threads(daemon, count):
    return wait_for(
        lambda: daemon.threads() if len(daemon.threads()) == count else None, f"{count} threads"
    )


@pytest.fixture
def plain_build(build):
    """The sanitizers have threads and stacks of their own."""
    if build.sanitizers:
        pytest.skip("a sanitizer adds threads and guards")
    return build


def test_empty_cpu_list_starts_no_worker_and_runs_no_test(plain_build, start_daemon):
    daemon = start_daemon([icmp_echo(1)], cpus=[])
    wait_for_threads(daemon, BASE_THREADS)
    daemon.wait_for_record("func 'NewStart' timeout 0 ms", task=1)
    holds_for(
        lambda: len(daemon.log_records(1)) == 1 and len(daemon.threads()) == BASE_THREADS,
        "no run starts",
        1.0,
    )


def test_two_cpus_give_thirty_workers(plain_build, start_daemon):
    daemon = start_daemon([icmp_echo(1)], cpus=[0, 1])
    wait_for_threads(daemon, BASE_THREADS + 2 * WORKERS_PER_CPU)
    daemon.wait_for_reports(1)


@pytest.mark.skipif((os.cpu_count() or 1) < 2, reason="needs two CPUs")
def test_workers_are_pinned_in_order_and_real_time(plain_build, start_daemon):
    daemon = start_daemon(cpus=[0, 1])
    threads = wait_for_threads(daemon, BASE_THREADS + 2 * WORKERS_PER_CPU)

    def settled():
        places = [cpus_allowed(daemon, thread) for thread in threads]
        return (
            places
            if places.count("1") == WORKERS_PER_CPU and places.count("0") == WORKERS_PER_CPU + 1
            else None
        )

    # The API thread and the workers of the first CPU, then those of the second; main and the log
    # writer are free.
    places = wait_for(settled, "every thread on its CPU")
    assert len(set(places) - {"0", "1"}) == 1
    for thread, place in zip(threads, places):
        if place in ("0", "1"):
            assert (policy(daemon, thread), priority(daemon, thread)) == (SCHED_RR, 99)


def test_main_is_real_time_and_the_log_writer_is_not(plain_build, start_daemon):
    daemon = start_daemon(cpus=[])
    threads = wait_for_threads(daemon, BASE_THREADS)
    assert policy(daemon, daemon.pid) == SCHED_RR
    others = sorted(policy(daemon, thread) for thread in threads if thread != daemon.pid)
    assert others == [SCHED_OTHER, SCHED_RR]


def test_cpu_that_the_machine_lacks_is_logged_and_the_tests_run(start_daemon):
    daemon = start_daemon([icmp_echo(1)], cpus=[200])
    daemon.wait_for_record("set thread affinity failed", count=WORKERS_PER_CPU)
    assert daemon.wait_for_reports(1)[0].status == "successful"


def test_cpu_entries_that_are_no_numbers_count_as_zero(plain_build, start_daemon):
    daemon = start_daemon([icmp_echo(1)], cpus=["one"])
    threads = wait_for_threads(daemon, BASE_THREADS + WORKERS_PER_CPU)
    wait_for(
        lambda: sum(cpus_allowed(daemon, thread) == "0" for thread in threads)
        == WORKERS_PER_CPU + 1,
        "the workers on CPU 0",
    )


def test_threads_have_stacks_of_128_kib(plain_build, start_daemon):
    daemon = start_daemon(cpus=[0])
    wait_for_threads(daemon, BASE_THREADS + WORKERS_PER_CPU)
    stacks = stack_sizes(daemon.pid)
    assert stacks.count(STACK_BYTES) >= WORKERS_PER_CPU + 1, stacks
    # Nothing of the usual 8 MiB besides main's own stack, which the system grows. (What is mapped
    # right behind a stack looks like a part of it.)
    assert [size for size in stacks if size > 8 * STACK_BYTES] == []


# The C library's.
GUARD_BYTES = 64 << 10 if platform.machine() == "aarch64" else os.sysconf("SC_PAGESIZE")


def stack_sizes(pid):
    """Sizes of the writable mappings that lie directly above a guard page."""
    sizes = []
    guard_end = None
    with open(f"/proc/{pid}/maps") as maps:
        for line in maps:
            span, permissions, _, device = line.split()[:4]
            begin, end = (int(part, 16) for part in span.split("-"))
            if device != "00:00":
                continue
            if permissions.startswith("rw") and begin == guard_end:
                sizes.append(end - begin)
            is_guard = permissions.startswith("---") and end - begin == GUARD_BYTES
            guard_end = end if is_guard else None
    return sizes


def test_control_client_runs_one_thread(plain_build, lab):
    server = lab.socket(socket.AF_INET, socket.SOCK_DGRAM, bind=ADDRESS)
    server.settimeout(DEFAULT_DEADLINE)
    client = lab.popen(*Ctl(lab).command("--timeout", "60", "status"))
    server.recv(1024)  # it waits for the answer now
    assert os.listdir(f"/proc/{client.pid}/task") == [str(client.pid)]


def test_responder_runs_one_thread(plain_build, lab):
    program = plain_build.program("ip-sla-responder")
    responder = lab.popen(program, "--control-port", "0", stdout=subprocess.PIPE, text=True)
    assert responder.stdout.readline().startswith("listening on ")
    assert os.listdir(f"/proc/{responder.pid}/task") == [str(responder.pid)]
