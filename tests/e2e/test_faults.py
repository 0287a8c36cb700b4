"""System calls that fail once, under a running daemon: what the run that is hit reports, and that
the next one is right.
"""


import errno
import signal
from collections import Counter

import pytest
from support.api_client import (
    RELOAD_KEYCHAIN,
    RELOAD_TASKS,
    STATISTICS,
    STATUS,
    ApiClient,
    Header,
)
from support.fault_table import CUT, FEWER, ICMP, NONE, RUN_FAULTS, UDP
from support.faults import Faults
from support.tasks import icmp_echo
from support.udp_tasks import start_responder, udp_task
from support.waiting import allowance, wait_for

PACKETS = 5
GROUPS = 4  # tests that share the table, each with one daemon


def tasks():
    """One task enters a VRF, the other has a control phase: an order then finds its run."""
    inside = {"vrf": "red", "src": "10.1.0.1", "dst": "10.1.0.2"}
    return [
        icmp_echo(ICMP, packets=PACKETS, interval=2, timeout=allowance(150), **inside),
        udp_task(
            UDP,
            packets=PACKETS,
            interval=2,
            timeout=allowance(150),
            control={"timeout": allowance(300)},
        ),
    ]


@pytest.fixture
def faulty(lab, start_daemon):
    lab.add_vrf("red")
    start_responder(lab)
    faults = Faults(lab)
    daemon = start_daemon(tasks(), env=faults.environment)
    for number in (ICMP, UDP):
        wait_for_good_run(daemon, number)
    return daemon, faults


def is_right(report):
    return report.error == "" and report.status == "successful" and report.ds_packets == PACKETS


def wait_for_good_run(daemon, number, seen=0):
    return wait_for(
        lambda: next((run for run in daemon.reports(number)[seen:] if is_right(run)), None),
        f"a right run of task {number}",
    )


def hits_as_the_table_says(fault, report):
    if fault.run == NONE:
        return is_right(report)
    if fault.run == FEWER:
        return report.status == "successful" and 0 < report.ds_packets < PACKETS
    if fault.run == CUT and report.status == "successful":
        return report.ds_packets < PACKETS
    return report.status == "fail" and report.error == fault.run


def go_through(daemon, faults, fault):
    seen = len(daemon.reports(fault.task))
    faults.order(fault.call, fault.error, **fault.order)
    faults.wait_hit()
    wait_for(
        lambda: any(
            hits_as_the_table_says(fault, run) for run in daemon.reports(fault.task)[seen:]
        ),
        f"a run with {fault.run!r} after {fault.name}",
        deadline=10,
    )
    wait_for(lambda: faults.hits == fault.order.get("times", 1), "every failure", deadline=10)
    faults.withdraw()
    records = daemon.log_records(fault.task)
    assert fault.line == "" or fault.line in records, fault.name
    wait_for_good_run(daemon, fault.task, len(daemon.reports(fault.task)))
    # Nothing but what was ordered went wrong meanwhile.
    strange = [
        run
        for run in daemon.reports(fault.task)[seen:]
        if not is_right(run) and not hits_as_the_table_says(fault, run)
    ]
    assert strange == [], fault.name


@pytest.mark.parametrize("group", range(GROUPS))
def test_run_that_is_hit_says_so_and_the_next_is_right(lab, faulty, group):
    daemon, faults = faulty
    for fault in RUN_FAULTS[group::GROUPS]:
        go_through(daemon, faults, fault)
    descriptors = len(daemon.descriptors())
    assert descriptors < 60, "what a failed start opened is closed again"
    assert daemon.process.poll() is None
    (status,) = ApiClient(lab).status(UDP)
    assert status["status"] is True


NO_SOURCE = "source address or interface not exist"


@pytest.fixture
def one_task(lab, start_daemon):
    faults = Faults(lab)
    daemon = start_daemon([icmp_echo(1, packets=PACKETS)], env=faults.environment)
    wait_for_good_run(daemon, 1)
    return daemon, faults


def test_requests_that_cannot_be_received_are_received_again(lab, one_task):
    daemon, faults = one_task
    for error in (errno.ENOMEM, errno.EINTR):
        faults.order("recvmsg", error, socket="api", detail=0)
        (status,) = ApiClient(lab).status(1)
        assert status["status"] is True
        assert faults.withdraw() == 1


def test_reply_that_cannot_be_sent_is_the_only_one(lab, one_task):
    daemon, faults = one_task
    faults.order("sendto", errno.ENOBUFS, socket="api")
    ApiClient(lab).send(Header(command=7).pack())
    faults.wait_hit()
    faults.withdraw()
    assert ApiClient(lab).request(7).result == 0
    daemon.wait_for_record("No buffer space available")


def test_reload_that_cannot_read_its_file_changes_nothing(lab, one_task):
    daemon, faults = one_task
    daemon.write_tasks([icmp_echo(1, packets=PACKETS), icmp_echo(2, packets=PACKETS)])
    faults.order("fopen", errno.EMFILE, path=str(daemon.tasks_path))
    assert ApiClient(lab).reload_tasks() == 4
    assert faults.withdraw() == 1
    wait_for_good_run(daemon, 1, len(daemon.reports(1)))
    assert ApiClient(lab).reload_tasks() == 0
    wait_for_good_run(daemon, 2)


def test_keychain_that_cannot_be_read_again_ends_the_daemon(lab, one_task):
    daemon, faults = one_task
    faults.order("fopen", errno.EMFILE, path=str(daemon.keychain_path))
    ApiClient(lab).send(Header(command=RELOAD_KEYCHAIN, length=28, block=8).pack())
    assert daemon.wait_exit() == 1
    assert daemon.log_records()[-1] == "ParseKeychainConfigs() failed"


class TestMemory:
    """Every piece of memory that a request takes, refused in turn."""

    MOST = 3000  # more than any of these requests takes

    @pytest.mark.parametrize(
        "command, body",
        [
            (STATUS, b'{"tasks":[1]}\0'),
            (STATISTICS, b'{"tasks":[{"sla-id":1,"metrics":["rtt-values","loss-values"]}]}\0'),
            (STATISTICS, b'{"tasks":[}\0'),
        ],
        ids=["status", "statistics", "not JSON"],
    )
    def test_request_without_memory_fails_alone(self, lab, start_daemon, command, body):
        if lab.build.sanitizers:
            pytest.skip("the sanitizers have an allocator of their own")
        # The recording system log would itself be refused memory.
        faults = Faults(lab, recorder=False)
        daemon = start_daemon([icmp_echo(1, packets=PACKETS)], env=faults.environment)
        wait_for_good_run(daemon, 1)
        client = ApiClient(lab)
        client.socket.settimeout(0.15)
        request = Header(command=command, length=28 + len(body), block=8 + len(body)).pack() + body
        outcomes = Counter()
        for skip in range(self.MOST):
            faults.order("malloc", errno.ENOMEM, skip=skip)
            client.send(request)
            outcomes[self.outcome(client)] += 1
            assert daemon.process.poll() is None, daemon.stderr
            if faults.withdraw() == 0:
                break
        assert skip + 1 < self.MOST
        assert sum(outcomes.values()) > 5, "a request does take memory"
        client.socket.settimeout(10)
        (status,) = client.status(1)
        assert status["status"] is True
        wait_for_good_run(daemon, 1, len(daemon.reports(1)))

    @staticmethod
    def outcome(client):
        try:
            return client.collect().result
        except TimeoutError:
            return "no reply"


class TestNetlink:
    @pytest.mark.parametrize("error", [errno.ENOBUFS, errno.ENOMEM], ids=["lost", "no memory"])
    def test_messages_that_cannot_be_received(self, lab, one_task, error):
        daemon, faults = one_task
        seen = len(daemon.reports(1))
        faults.order("recvfrom", error, socket="netlink")
        lab.run("ip", "address", "del", "127.0.0.1/8", "dev", "lo")
        faults.wait_hit()
        wait_for(
            lambda: any(run.error == NO_SOURCE for run in daemon.reports(1)[seen:]),
            "a run without source",
        )
        faults.withdraw()
        lab.run("ip", "address", "add", "127.0.0.1/8", "dev", "lo")
        wait_for_good_run(daemon, 1, len(daemon.reports(1)))

    def test_interface_that_cannot_be_asked_about_is_asked_about_again(self, lab, one_task):
        daemon, faults = one_task
        lab.run("ip", "address", "del", "127.0.0.1/8", "dev", "lo")
        wait_for(
            lambda: daemon.reports(1)[-1].error == NO_SOURCE,
            "a run without source",
        )
        faults.order("socket", errno.EMFILE, socket="probes")
        lab.run("ip", "address", "add", "127.0.0.1/8", "dev", "lo")
        faults.wait_hit()
        faults.withdraw()
        wait_for_good_run(daemon, 1, len(daemon.reports(1)))

    @pytest.mark.parametrize("call", ["socket", "getifaddrs"])
    def test_vrf_made_again_that_cannot_be_watched_at_once(self, lab, start_daemon, call):
        lab.add_vrf("red")
        faults = Faults(lab)
        inside = {"vrf": "red", "src": "10.1.0.1", "dst": "10.1.0.2"}
        daemon = start_daemon([icmp_echo(1, packets=PACKETS, **inside)], env=faults.environment)
        wait_for_good_run(daemon, 1)
        faults.order(call, errno.EMFILE, socket="netlink")
        lab.run("ip", "link", "del", "red-out")
        lab.run("ip", "netns", "del", "red")
        lab.add_vrf("red")
        faults.wait_hit()
        faults.withdraw()
        wait_for_good_run(daemon, 1, len(daemon.reports(1)))

    def test_new_vrf_without_a_socket_ends_the_daemon(self, lab, one_task):
        daemon, faults = one_task
        lab.add_vrf("red")
        daemon.write_tasks([icmp_echo(1), icmp_echo(2, vrf="red", src="10.1.0.1", dst="10.1.0.2")])
        faults.order("socket", errno.EMFILE, socket="netlink")
        ApiClient(lab).send(Header(command=RELOAD_TASKS, length=28, block=8).pack())
        assert daemon.wait_exit() in (-signal.SIGABRT, 128 + signal.SIGABRT)
        last = "task 2 in VRF red cannot be created: CreateNetlinkSocketInVrf failed"
        assert last in daemon.log_records() and daemon.stderr.startswith(last + "\n")


class TestThreads:
    """A daemon that started without a CPU list starts its workers at a reload."""

    @pytest.mark.parametrize("first", [0, 4], ids=["none", "some"])
    def test_workers_that_cannot_be_started(self, lab, start_daemon, first):
        faults = Faults(lab)
        daemon = start_daemon([], cpus=[], env=faults.environment)
        daemon.cpus = [0]
        daemon.write_tasks([icmp_echo(1, packets=PACKETS)])
        faults.order("pthread_create", errno.EAGAIN, skip=first)
        client = ApiClient(lab)
        assert client.reload_tasks() == 0
        assert faults.withdraw() == 1
        daemon.wait_for_record("Start main loop failed: ")
        if first == 0:
            assert client.reload_tasks() == 0
        wait_for_good_run(daemon, 1)


def test_timer_that_cannot_be_set_spoils_no_later_run(lab, one_task):
    daemon, faults = one_task
    faults.order("timerfd_settime", errno.ENOMEM)
    faults.wait_hit()
    faults.withdraw()
    wait_for_good_run(daemon, 1, len(daemon.reports(1)))
    wait_for_good_run(daemon, 1, len(daemon.reports(1)))
