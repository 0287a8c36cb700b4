"""The services under a systemd of their own: start, notification, watchdog, reload, end."""

import json
import os
import signal

import pytest
from support.tasks import icmp_echo
from support.udp_tasks import udp_task
from support.waiting import SCALE, wait_for

SENDER = "ip-sla-sender"
TASKS = "/etc/ip-sla/tasks.json"
# The responder's own ports, unless it is told others.
CONTROL_PORT, MEASUREMENT_PORT = 50000, 50001


@pytest.fixture
def equipped(machine, packages):
    """The machine with all packages; of the services only the exporter runs."""
    paths = [f"/packages/{path.name}" for path in packages.values()]
    machine.run("dpkg", "--install", *paths)
    machine.run("systemctl", "stop", SENDER, "ip-sla-responder")
    return machine


def _write_tasks(machine, *tasks):
    machine.path(TASKS).write_text(json.dumps({"IP-SLA-tasks": tasks, "cpus": [0]}))


def _write_keys(machine, name, **keys):
    storage = [{"key-id": int(number[1:]), "key-string": text} for number, text in keys.items()]
    machine.path(f"/etc/ip-sla/{name}").write_text(json.dumps({"keychain-storage": storage}))


def _results(machine):
    shown = machine.run("ip-sla-ctl", "show", "--json", check=False)
    tasks = json.loads(shown.stdout)["tasks"] if shown.stdout else []
    return {task["sla-id"]: task["reason"] or task["status"] for task in tasks}


def _wait_for_good(machine, *numbers):
    def good():
        found.update(_results(machine))
        return all(found.get(number) == "successful" for number in numbers)

    found = {}
    try:
        wait_for(good, f"good runs of {numbers}")
    except AssertionError:
        raise AssertionError(f"{found}\n{machine.journal(SENDER)}")


def _drop_in(machine, text):
    directory = machine.path(f"/etc/systemd/system/{SENDER}.service.d")
    directory.mkdir(parents=True)
    (directory / "test.conf").write_text(text)
    machine.run("systemctl", "daemon-reload")


def test_everything_works_in_the_sandbox(equipped):
    _write_keys(equipped, "keychain.json", k7="the secret of seven")
    _write_keys(equipped, "responder-keychain.json", k7="the secret of seven")
    keyed = {"mode": "keychain", "algorithm": "hmac-sha256", "key-id": 7}
    udp = udp_task(
        2,
        authentication=keyed,
        control={"dst-port": CONTROL_PORT, "src-port": 900},
        measurement={"dst-port": MEASUREMENT_PORT, "src-port": 901},
    )
    _write_tasks(equipped, icmp_echo(1), udp)
    equipped.run("systemctl", "start", "ip-sla-responder", SENDER)
    _wait_for_good(equipped, 1, 2)
    pid = int(equipped.property(SENDER, "MainPID"))
    assert equipped.run("chrt", "--pid", pid).stdout.count("SCHED_RR") == 1

    # A VRF made after the start.
    equipped.run("ip", "netns", "add", "later")
    equipped.run("ip", "-n", "later", "link", "set", "lo", "up")
    _write_tasks(equipped, icmp_echo(1), udp, icmp_echo(3, vrf="later"))
    equipped.run("systemctl", "reload", SENDER)
    _wait_for_good(equipped, 1, 2, 3)
    assert int(equipped.property(SENDER, "MainPID")) == pid

    # Neither keys nor dumps reach the journal.
    assert "the secret of seven" in equipped.path("/var/log/ip-sla/sender.log").read_text()
    journal = equipped.run("journalctl", "--no-pager", "-o", "cat").stdout
    assert "secret of" not in journal and "List of keys" not in journal
    assert equipped.run("stat", "-c", "%a", "/var/log/ip-sla").stdout == "750\n"

    equipped.run("systemctl", "stop", SENDER)
    assert equipped.property(SENDER, "Result") == "success"
    assert equipped.property(SENDER, "ExecMainStatus") == "0"


def test_a_daemon_that_stands_still_is_started_again(equipped):
    # The daemon gives a sign of life every ten seconds.
    _drop_in(equipped, f"[Service]\nWatchdogSec={10 + 2 * SCALE}\nRestartSec=100ms\n")
    equipped.run("systemctl", "start", SENDER)
    first = int(equipped.property(SENDER, "MainPID"))
    equipped.run("systemctl", "kill", "--signal=STOP", SENDER)

    def is_another():
        pid = int(equipped.property(SENDER, "MainPID"))
        return pid not in (0, first) and equipped.property(SENDER, "ActiveState") == "active"

    wait_for(is_another, "the daemon to be started again", 60)
    assert "Watchdog timeout" in equipped.journal(SENDER)
    _wait_for_good(equipped, 1)


def test_a_daemon_that_keeps_ending_is_left_alone(equipped):
    _drop_in(equipped, "[Service]\nRestartSec=100ms\n")
    equipped.run("systemctl", "start", SENDER)

    def ended():
        equipped.run("systemctl", "kill", "--signal=KILL", SENDER, check=False)
        return equipped.property(SENDER, "ActiveState") == "failed"

    wait_for(ended, "systemd to give up", 60)
    assert "Start request repeated too quickly" in equipped.journal(SENDER)


def test_what_would_end_the_daemon_stops_the_start_with_its_reason(equipped):
    equipped.path(TASKS).write_text('{"IP-SLA-tasks": [')
    assert equipped.run("systemctl", "start", SENDER, check=False).returncode != 0
    assert equipped.property(SENDER, "ExecMainPID") == "0", "the daemon was started"
    assert TASKS in equipped.journal(SENDER)


def test_a_refused_reload_leaves_the_daemon_as_it_was(equipped):
    equipped.run("systemctl", "start", SENDER)
    _wait_for_good(equipped, 1)
    equipped.path(TASKS).write_text('{"IP-SLA-tasks": [')
    assert equipped.run("systemctl", "reload", SENDER, check=False).returncode != 0
    assert equipped.property(SENDER, "ActiveState") == "active"
    assert _results(equipped) == {1: "successful"}


def test_the_other_services_run_under_users_of_their_own(equipped):
    equipped.run("systemctl", "start", "ip-sla-responder")
    for service in ("ip-sla-responder", "ip-sla-exporter"):
        pid = equipped.property(service, "MainPID")
        status = equipped.path(f"/proc/{pid}/status").read_text()
        assert "\nUid:\t0\t" not in status
        assert "\nCapBnd:\t0000000000000000\n" in status
        assert "\nNoNewPrivs:\t1\n" in status
