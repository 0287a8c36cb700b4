"""Reloading both files through the Sender API while tests run: what is undisturbed, what starts
afresh, what is gone.
"""

import socket
import struct

import pytest
from support.api_client import HEADER_SIZE, RELOAD_KEYCHAIN, RELOAD_TASKS, ApiClient, Header
from support.responder import ScriptedResponder
from support.tasks import icmp_echo, icmp_jitter, udp_jitter
from support.waiting import DEFAULT_DEADLINE, SCALE, wait_for

PROBES, INTERVAL, TIMEOUT = 10, 20, 1000


def _task(number, **changes):
    """Tells itself to the responder by its timeout, which is part of the duration in its control
    requests.
    """
    options = {
        "time": 2,
        "packets": PROBES,
        "interval": INTERVAL,
        "timeout": TIMEOUT + number,
        **changes,
    }
    return udp_jitter(number, **options)


def _runs_by_task(responder):
    """Task id to its runs so far, oldest first."""
    runs = {}
    for (request, _), session in zip(list(responder.requests), list(responder.runs)):
        (duration,) = struct.unpack_from(">I", request, 168)
        runs.setdefault(duration - (INTERVAL + 7) * PROBES - TIMEOUT, []).append(session)
    return runs


def _completed(session):
    return [sequence for _, sequence, _ in session.arrivals] == list(range(1, PROBES + 1))


def test_reload_among_50_tests_disturbs_none_that_is_unchanged(lab, start_daemon):
    responder = ScriptedResponder(lab)
    before = {number: _task(number) for number in range(1, 51)}
    daemon = start_daemon(before.values(), cpus=[0, 1])
    client = ApiClient(lab)
    wait_for(
        lambda: all(len(runs) >= 2 for runs in _runs_by_task(responder).values()),
        "every test's second run",
        40,
    )
    wait_for(lambda: len(client.all_statistics(groups=[])) == 50, "every test's result", 40)

    old = {task["sla-id"]: task for task in client.all_statistics(groups=[])}
    after = dict(before)
    after[7] = _task(7, control={"retry": 2})
    del after[9]
    after[60] = _task(60)
    daemon.write_tasks(after.values())
    runs_of_9 = len(_runs_by_task(responder)[9])
    assert client.reload_tasks() == 0

    (changed,) = client.statistics(7, groups=[]) or [{"successful-count": 0, "failed-count": 0}]
    assert (
        changed["successful-count"] + changed["failed-count"] <= 1
    ), "a changed test starts afresh"
    assert client.statistics(9) == [] and client.status(9) == []
    wait_for(
        lambda: len(client.all_statistics(groups=[])) == 50,
        "a result of the new and of the changed test",
        40,
    )
    marks = {number: len(runs) for number, runs in _runs_by_task(responder).items()}
    wait_for(
        lambda: all(len(_runs_by_task(responder)[number]) >= marks[number] + 3 for number in after),
        "three more runs of every test",
        40,
    )

    new = {task["sla-id"]: task for task in client.all_statistics(groups=[])}
    assert set(new) == set(after)
    runs = _runs_by_task(responder)
    for number in set(before) - {7, 9}:
        lost = [index for index, run in enumerate(runs[number][:-1]) if not _completed(run)]
        assert not lost, f"task {number} lost probes in its runs {lost}"
        assert new[number]["successful-count"] >= old[number]["successful-count"] + 3
        assert new[number]["failed-count"] == 0
    assert len(runs[9]) <= runs_of_9 + 1, "a removed test goes on"
    names = daemon.descriptors().values()
    assert not [name for name in names if name.endswith("test_9.log")]
    assert [name for name in names if name.endswith("test_60.log")]


def test_unchanged_file_restarts_nothing(lab, start_daemon):
    daemon = start_daemon([icmp_echo(1), icmp_echo(2)])
    client = ApiClient(lab)
    daemon.wait_for_reports(2, 2)
    before = {task["sla-id"]: task["successful-count"] for task in client.all_statistics()}
    assert client.reload_tasks() == 0
    after = {task["sla-id"]: task["successful-count"] for task in client.all_statistics()}
    assert set(after) == {1, 2}
    assert all(after[number] >= before[number] for number in (1, 2))


def test_the_watchdog_is_told_while_a_reload_of_many_tasks_lasts(lab, start_daemon):
    """Each task takes a pause of 10 ms on the thread that tells it, every 10 s."""
    watchdog = lab.socket(socket.AF_UNIX, socket.SOCK_DGRAM, bind="\0ipsla-watchdog")
    watchdog.settimeout(DEFAULT_DEADLINE * SCALE)
    waiting = {"Start-time": "00:00:00"}
    daemon = start_daemon(
        [icmp_echo(number, scheduler=waiting) for number in range(1, 1301)],
        env={"NOTIFY_SOCKET": "@ipsla-watchdog"},
    )
    client = ApiClient(lab)
    client.send(Header(command=RELOAD_TASKS, length=HEADER_SIZE, block=HEADER_SIZE - 20).pack())
    while watchdog.recv(100) != b"WATCHDOG=1":
        pass
    client.socket.setblocking(False)
    with pytest.raises(BlockingIOError):
        client.receive()  # the reload has not ended yet
    client.socket.settimeout(DEFAULT_DEADLINE * SCALE)
    assert client.collect().result == 0
    assert daemon.is_running()


def test_changed_interval_restarts_that_task_alone(lab, start_daemon):
    daemon = start_daemon([icmp_echo(number, time=60) for number in (2, 3)])
    client = ApiClient(lab)
    daemon.wait_for_reports(2)
    daemon.wait_for_reports(3)
    daemon.write_tasks([icmp_echo(2, time=60), icmp_echo(3, time=60, interval=11)])
    assert client.reload_tasks() == 0
    daemon.wait_for_reports(3, 2)
    counts = {task["sla-id"]: task["successful-count"] for task in client.all_statistics()}
    assert counts == {2: 1, 3: 1}
    assert len(daemon.reports(2)) == 1


def test_file_that_cannot_be_used_is_refused_and_changes_nothing(lab, start_daemon):
    daemon = start_daemon([icmp_echo(1), icmp_echo(2)])
    client = ApiClient(lab)
    for document in ("nonsense", "{}", '{"IP-SLA-tasks": 5}', ""):
        daemon.write_tasks([], document)
        assert client.reload_tasks() == 4, document
        assert [task["sla-id"] for task in client.status(1, 2)] == [1, 2]
    daemon.tasks_path.unlink()
    assert client.reload_tasks() == 4
    daemon.wait_for_record("ParseTaskConfigs() failed", count=5)
    daemon.wait_for_reports(1, len(daemon.reports(1)) + 1)


def test_reload_skips_faulty_tasks_as_the_start_does(lab, start_daemon):
    daemon = start_daemon([icmp_echo(1), icmp_echo(2)])
    client = ApiClient(lab)
    daemon.write_tasks([icmp_echo(1), icmp_echo(2, measurement={"dscp": 64})])
    assert client.reload_tasks() == 0
    assert [task["sla-id"] for task in client.status(1, 2)] == [1]
    daemon.wait_for_record("SLA task ID #2 parse skipped: invalid dscp value")


def test_each_reload_writes_the_dump_that_it_names(lab, start_daemon):
    daemon = start_daemon([icmp_echo(1)])
    client = ApiClient(lab)

    def dumps():
        text = "\n".join(daemon.log_records())
        return text.count("List IP SLA operations"), text.count("List of keys in the storage")

    tasks, keys = dumps()
    assert client.reload_tasks() == 0
    wait_for(lambda: dumps() == (tasks + 1, keys), "the dump of the tasks alone")
    assert client.reload_keychain() == 0
    wait_for(lambda: dumps() == (tasks + 1, keys + 1), "the dump of the keys alone")


def test_first_cpus_of_a_reload_start_the_worker_threads(lab, start_daemon):
    daemon = start_daemon([icmp_echo(1)], cpus=[])
    client = ApiClient(lab)
    idle = len(daemon.threads())
    daemon.cpus = [0]
    daemon.write_tasks([icmp_echo(1)])
    assert client.reload_tasks() == 0
    assert len(daemon.threads()) == idle + 15
    daemon.wait_for_reports(1)
    daemon.cpus = [0, 1]
    daemon.write_tasks([icmp_echo(1)])
    assert client.reload_tasks() == 0
    assert len(daemon.threads()) == idle + 15, "worker threads are started once"


def test_failed_keychain_reload_ends_the_daemon_with_status_1(lab, start_daemon):
    daemon = start_daemon([icmp_echo(number, time=1) for number in range(1, 21)])
    client = ApiClient(lab)
    daemon.wait_for_reports(1)
    daemon.write_keychain("nonsense")
    client.send(Header(command=RELOAD_KEYCHAIN, length=28, block=8).pack())
    assert daemon.wait_exit() == 1
    assert "ParseKeychainConfigs() failed" in daemon.log_records()
    assert daemon.stderr == f"ip-sla-sender: {daemon.keychain_path}:1:1: is not JSON\n"
    client.socket.settimeout(0.2)
    with pytest.raises(TimeoutError):
        client.receive()


def test_200_reloads_leak_nothing(lab, start_daemon):
    """Tasks come, go and change, VRFs with them."""
    lab.add_vrf("blue")
    stay = [icmp_echo(1), icmp_jitter(2)]
    variants = [
        stay,
        stay + [icmp_echo(3, src="10.1.0.1", dst="10.1.0.2", vrf="blue"), icmp_jitter(4)],
        stay + [icmp_jitter(4, interval=11)],
        [icmp_echo(1)],
    ]
    daemon = start_daemon(stay)
    client = ApiClient(lab)

    def reload(variant):
        daemon.write_tasks(variant)
        assert client.reload_tasks() == 0
        assert [task["sla-id"] for task in client.status(1, 2, 3, 4)] == [
            task["sla-id"] for task in variant
        ]

    def settled():
        """Descriptors apart from those of a run under way."""
        names = [name for name in daemon.descriptors().values() if "socket" not in name]
        return sorted(names), len(daemon.threads())

    def sockets():
        return sum("socket" in name for name in daemon.descriptors().values())

    for index in range(8):
        reload(variants[index % 4])
    reload(stay)
    expected, memory = settled(), _resident_kib(daemon)
    idle_sockets = min(sockets() for _ in range(200))
    for index in range(200):
        reload(variants[index % 4])
    reload(stay)
    assert settled() == expected
    wait_for(lambda: sockets() <= idle_sockets, "as many sockets as before")
    if not lab.build.sanitizers:
        assert _resident_kib(daemon) < memory + 4096


def _resident_kib(daemon):
    with open(f"/proc/{daemon.pid}/status") as status:
        (line,) = [line for line in status if line.startswith("VmRSS:")]
    return int(line.split()[1])
