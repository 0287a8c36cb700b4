"""System calls that fail while the daemon starts: what it does without, and what it says of it."""

import errno
import signal

import pytest
from support.api_client import ApiClient
from support.faults import Faults
from support.tasks import icmp_echo
from support.waiting import wait_for

PACKETS = 5
CLOCK_REALTIME, CLOCK_MONOTONIC = 0, 1
# In the order in which they are started.
WRITER, API_THREAD, FIRST_WORKER, FIFTH_WORKER = 0, 1, 2, 6


@pytest.fixture
def faults(lab):
    return Faults(lab)


@pytest.fixture
def start(lab, start_daemon, faults):
    def started():
        return start_daemon([icmp_echo(1, packets=PACKETS)], env=faults.environment, wait=False)

    return started


def wait_for_good_run(daemon):
    seen = len(daemon.reports(1))
    wait_for(
        lambda: any(
            (run.status, run.ds_packets) == ("successful", PACKETS)
            for run in daemon.reports(1)[seen:]
        ),
        "a good run",
    )


def api_answers(lab):
    (status,) = ApiClient(lab).status(1)
    return status["status"]


@pytest.mark.parametrize("call", ["timerfd_create", "timerfd_settime"])
def test_clock_that_cannot_be_watched_costs_the_watch_alone(lab, faults, start, call):
    detail = {"detail": CLOCK_REALTIME} if call == "timerfd_create" else {}
    faults.order(call, errno.ENOMEM, **detail)
    daemon = start()
    wait_for_good_run(daemon)
    assert faults.withdraw() == 1
    assert api_answers(lab)
    reason = {"timerfd_create": "Create timer fd", "timerfd_settime": "Set time for timer fd"}[call]
    assert f"Sender api creation failed: {reason} failed" in daemon.log_records()
    said = (
        f"tests do not start over when the clock is set: {reason} failed; "
        "the tests run all the same"
    )
    assert daemon.stderr == f"ip-sla-sender: {said}\n"


def test_timers_without_a_descriptor_are_waited_for_otherwise(lab, faults, start):
    faults.order("timerfd_create", errno.ENFILE, detail=CLOCK_MONOTONIC, times=100)
    daemon = start()
    wait_for_good_run(daemon)
    wait_for_good_run(daemon)
    assert faults.withdraw() > 0
    assert api_answers(lab)


class TestThreads:
    @pytest.fixture(autouse=True)
    def no_thread_of_others(self, lab):
        if "thread" in lab.build.sanitizers:
            pytest.skip("the thread sanitizer starts a thread of its own first")

    def test_no_log_without_its_writer(self, faults, start):
        faults.order("pthread_create", errno.EAGAIN, skip=WRITER)
        daemon = start()
        assert daemon.wait_exit() == 1
        assert daemon.stderr.startswith("ip-sla-sender: no log in /var/log/ip-sla: ")
        assert "Resource temporarily unavailable" in daemon.stderr

    def test_no_daemon_without_the_thread_of_the_api(self, faults, start):
        faults.order("pthread_create", errno.EAGAIN, skip=API_THREAD)
        daemon = start()
        assert daemon.wait_exit() in (-signal.SIGABRT, 128 + signal.SIGABRT)
        assert "List of keys in the storage: 0 keys" in daemon.log_records()

    @pytest.mark.parametrize("first", [FIRST_WORKER, FIFTH_WORKER], ids=["none", "some"])
    def test_workers_that_cannot_be_started(self, lab, faults, start, first):
        faults.order("pthread_create", errno.EAGAIN, skip=first)
        daemon = start()
        daemon.wait_for_record("Start main loop failed: ")
        assert faults.withdraw() == 1
        if first == FIRST_WORKER:
            assert ApiClient(lab).reload_tasks() == 0
        wait_for_good_run(daemon)
