"""What the daemon writes and opens when it starts."""

import re
import signal
import stat

import pytest

from support.api_client import RELOAD_TASKS, ApiClient, Header
from support.tasks import icmp_echo, icmp_jitter, udp_jitter
from support.waiting import holds_for, wait_for


def test_log_begins_with_the_dumps_of_tasks_and_keys(start_daemon):
    daemon = start_daemon([icmp_jitter(20), icmp_echo(3)], keychain={7: "seventh", 5: "fifth"})
    records = daemon.log_records()
    assert records[0] == "List IP SLA operations: 2 tasks"
    tasks = [record for record in records if record.startswith(" [Task #")]
    assert [record.splitlines()[:2] for record in tasks] == [
        [" [Task #1]", "   |- ID                 : #3"],
        [" [Task #3]", "   |- ID                 : #20"],
    ]
    keys = records.index("List of keys in the storage: 2 keys")
    assert records[keys + 1 : keys + 3] == [
        ' [Key #1]\n   |- ID     : #5\n   |- String : "fifth"\n   -',
        ' [Key #3]\n   |- ID     : #7\n   |- String : "seventh"\n   -',
    ]


def test_system_log_copy_has_prefix_module_and_severity(start_daemon):
    daemon = start_daemon([icmp_echo(3)], keychain={5: "fifth", 6: "sixth"})
    first = daemon.syslog()[0]
    assert (first.module, first.flag, first.severity) == (59, 1, 7)
    assert re.fullmatch(
        r"%IP_SLA-D-DEBUG: print_funcs\.cpp:\d+:PrintTaskConfigs\(\): List IP SLA operations: 1 tasks",
        first.text,
    )
    numbers = [re.search(r" \[(Task|Key) #\d+\]", record.text) for record in daemon.syslog()]
    assert [match.group(0) for match in numbers if match] == [
        " [Task #2]",
        " [Key #2]",
        " [Key #4]",
    ]


def test_lines_without_content_reach_only_the_system_log(start_daemon):
    daemon = start_daemon([icmp_echo(3)])
    assert not any("VRF instance" in record for record in daemon.log_records())
    assert any(record.text.endswith("   |- VRF instance       : ") for record in daemon.syslog())


def test_every_test_has_a_file_of_its_own(lab, start_daemon):
    daemon = start_daemon([icmp_echo(3), icmp_echo(4)])
    for number in (3, 4):
        assert daemon.wait_for_record("func 'NewStart' timeout 0 ms", task=number)
    directory = lab.path("/var/log/ip-sla")
    assert sorted(path.name for path in directory.iterdir()) == [
        "sender.log",
        "test_3.log",
        "test_4.log",
    ]
    assert stat.S_IMODE(directory.stat().st_mode) == 0o755
    assert not any("NewStart" in record for record in daemon.log_records())


def test_task_zero_shares_the_daemons_file(lab, start_daemon):
    daemon = start_daemon([icmp_echo(0)])
    daemon.wait_for_reports(0)
    assert not lab.log_path(0).with_name("test_0.log").exists()


def test_faulty_tasks_are_skipped_and_the_others_run(start_daemon):
    tasks = [
        icmp_echo(1, measurement={"packet-size": 41}),
        icmp_echo(2),
        icmp_echo(2),
        udp_jitter(3, packets=50, interval=20, timeout=0, time=1),
        icmp_echo(4, schedule=False),
        icmp_echo(5, authentication={"mode": "keychain", "algorithm": "sha256", "key-id": 9}),
    ]
    daemon = start_daemon(tasks, keychain={8: "eight"})
    skipped = [record for record in daemon.log_records() if "parse skipped" in record]
    assert skipped == [
        "SLA task ID #1 parse skipped: invalid packets size",
        "SLA task ID #0 parse skipped: duplicate task",
        "SLA task ID #3 parse skipped: invalid scheduled time",
        "SLA task ID #4 parse skipped: invalid scheduled time",
        "SLA task ID #5 parse skipped: invalid control phase authentication secret key id",
    ]
    assert "List IP SLA operations: 1 tasks" in daemon.log_records()
    daemon.wait_for_reports(2)


def test_api_socket_is_bound_to_loopback_only(lab, start_daemon):
    daemon = start_daemon()
    sockets = lab.run("cat", "/proc/net/udp").stdout
    assert re.findall(r"^ *\d+: (\S+) ", sockets, re.MULTILINE) == [f"0100007F:{10101:04X}"]
    assert daemon.is_running()


def test_api_answers_while_tests_run(lab, start_daemon):
    daemon = start_daemon([icmp_echo(3), icmp_echo(9)])
    client = ApiClient(lab)
    assert client.status(3, 4, 9) == [{"sla-id": 3, "status": True}, {"sla-id": 9, "status": True}]
    daemon.wait_for_reports(9)
    (statistics,) = client.statistics(9, groups=["rtt-values"])
    assert (statistics["sd-pkt-count"], statistics["ds-pkt-count"], statistics["status"]) == (
        5,
        5,
        "successful",
    )


def test_clock_watcher_is_armed_as_the_timer_says(start_daemon):
    """Cancel-on-set alone (value 2), on the real-time clock, never expiring."""
    daemon = start_daemon()
    (timer,) = [
        number
        for number, target in daemon.descriptors().items()
        if _is_real_time_timer(daemon, number, target)
    ]
    with open(f"/proc/{daemon.pid}/fdinfo/{timer}") as info:
        text = info.read()
    assert "settime flags: 02" in text
    assert "it_interval: (0, 0)" in text


def _is_real_time_timer(daemon, number, target):
    if "timerfd" not in target:
        return False
    with open(f"/proc/{daemon.pid}/fdinfo/{number}") as info:
        return re.search(r"^clockid: 0$", info.read(), re.MULTILINE) is not None


def _said(daemon, *texts):
    """Last in both logs: the process is aborted, but not before what it has logged is written."""
    system = [record.text for record in daemon.syslog()]
    said = all(any(line.endswith(f"(): {text}") for line in system) for text in texts)
    return said and daemon.log_records()[-len(texts) :] == list(texts)


ABORTED = (-signal.SIGABRT, 128 + signal.SIGABRT)


def _last_words(daemon, vrf, reason):
    """On the terminal, before what the C++ library says; returned as it stands in the log."""
    line = f"task 1 in {vrf} cannot be created: {reason}"
    assert daemon.stderr.startswith(line + "\n")
    return line


class TestFatalConfigurations:
    """A configuration that the parser accepts but that cannot be started ends the process
    abnormally.
    """

    @pytest.mark.parametrize("start", ["soon", "25:00:00", ""])
    def test_start_time_that_cannot_be_parsed(self, start_daemon, start):
        daemon = start_daemon([icmp_echo(1, scheduler={"Start-time": start})], wait=False)
        assert daemon.wait_exit() in ABORTED
        reason = f"Cannot parse time string: {start}"
        assert _said(daemon, _last_words(daemon, "the default VRF", reason))

    NO_VRF = "Catch exception SetNetworkNamespaceredfailed: open() failed: %m"
    NO_SOCKET = "CreateNetlinkSocketInVrf failed"

    def test_vrf_that_does_not_exist(self, start_daemon):
        daemon = start_daemon([icmp_echo(1, vrf="red")], wait=False)
        assert daemon.wait_exit() in ABORTED
        assert _said(daemon, self.NO_VRF, _last_words(daemon, "VRF red", self.NO_SOCKET))

    def test_vrf_that_does_not_exist_at_a_reload(self, lab, start_daemon):
        daemon = start_daemon([icmp_echo(2)])
        daemon.write_tasks([icmp_echo(1, vrf="red"), icmp_echo(2)])
        ApiClient(lab).send(Header(command=RELOAD_TASKS, length=28, block=8).pack())
        assert daemon.wait_exit() in ABORTED
        words = _last_words(daemon, "VRF red", self.NO_SOCKET)
        assert words in daemon.log_records()

    def test_own_namespace_not_registered_as_1(self, lab, start_daemon):
        lab.add_vrf("red")
        lab.unregister_own_namespace()
        daemon = start_daemon([icmp_echo(1, vrf="red", src="10.1.0.1", dst="10.1.0.2")], wait=False)
        assert daemon.wait_exit() in ABORTED
        reason = "Catch exception SetNetworkNamespace1failed: open() failed: %m"
        assert _said(daemon, reason, _last_words(daemon, "VRF red", self.NO_SOCKET))


def test_own_namespace_needs_no_name_without_vrfs(lab, start_daemon):
    lab.unregister_own_namespace()
    daemon = start_daemon([icmp_echo(1)])
    assert daemon.wait_for_reports(1)[0].status == "successful"


class TestSchedule:
    def test_negative_life_time_never_starts(self, lab, start_daemon):
        daemon = start_daemon([icmp_echo(1, scheduler={"life-time": "-1"}), icmp_echo(2)])
        daemon.wait_for_reports(2, count=2)
        assert daemon.log_records(1) == []

    def test_life_time_zero_stops_at_the_first_start(self, start_daemon):
        daemon = start_daemon([icmp_echo(1, scheduler={"life-time": 0}), icmp_echo(2)])
        daemon.wait_for_reports(2, count=2)
        assert daemon.log_records(1) == ["func 'NewStart' timeout 0 ms"]

    def test_start_earlier_today_wraps_to_a_long_wait(self, start_daemon):
        daemon = start_daemon([icmp_echo(1, scheduler={"Start-time": "00:00:00"})])
        (record,) = daemon.wait_for_record("func 'NewStart' timeout", task=1)
        delay = int(re.fullmatch(r"func 'NewStart' timeout (-?\d+) ms", record).group(1))
        assert -86401000 <= delay <= 0 and delay % 1000 == 0
        if delay < 0:  # at midnight itself it is a start like any other
            holds_for(lambda: daemon.reports(1) == [], "a start in the past waits", 1.5)

    def test_life_time_ends_the_repetition(self, start_daemon):
        daemon = start_daemon([icmp_echo(1, scheduler={"life-time": 3}), icmp_echo(2)])
        daemon.wait_for_reports(1, count=2)
        daemon.wait_for_reports(2, count=6)
        ended = len(daemon.reports(1))
        assert 2 <= ended <= 4
        daemon.wait_for_reports(2, count=8)
        assert len(daemon.reports(1)) == ended

    def test_runs_start_every_time_seconds(self, start_daemon):
        daemon = start_daemon([icmp_echo(1, time=2, packets=2)])
        daemon.wait_for_reports(1, count=2)
        delays = [record for record in daemon.log_records(1) if "'NewStart'" in record]
        assert delays[0] == "func 'NewStart' timeout 0 ms"
        # A run that crosses the turn of a second is a second nearer to the next one.
        assert set(delays[1:]) <= {
            "func 'NewStart' timeout 2000 ms",
            "func 'NewStart' timeout 1000 ms",
        }
