"""docs/operations.md and the README on a running daemon: what they say that a command can show."""

import os
import pathlib
import pwd
import re
import signal
import subprocess

import pytest
from support.api_client import ApiClient
from support.ctl import Ctl
from support.tasks import icmp_echo, udp_jitter
from support.udp_tasks import udp_task
from support.responder_program import ResponderProgram
from support.waiting import wait_for

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs" / "operations.md").read_text()
README = (ROOT / "README.md").read_text()
DEBUG = 7
KEY = "a key that nobody is to see"
PASSWORD = "a password likewise"
SECOND_LINE = "second line of a key"


def _blocks(page, language):
    """The fenced blocks of a page, without the indentation of a list."""
    found = re.findall(rf"^( *)```{language}\n(.*?)^ *```$", page, re.M | re.S)
    return [re.sub(rf"^{indent}", "", text, flags=re.M) for indent, text in found]


# -- who may ask the daemon
# -------------------------------------------------------------------------------------------------


def _ask_as(lab, user):
    """Whether a user of the machine gets a datagram to the daemon."""
    send = "import socket; socket.socket(2, 2).sendto(b'?', ('127.0.0.1', 10101))"
    command = ["setpriv", "--reuid", user, "--regid", user, "--clear-groups"]
    return lab.run(*command, "/usr/bin/python3", "-c", send, check=False).returncode == 0


def test_a_rule_keeps_other_users_from_the_daemon(lab, start_daemon, tmp_path):
    start_daemon()
    assert _ask_as(lab, "65534") and _ask_as(lab, "0")
    (rule,) = _blocks(PAGE, "nft")
    # A user that this machine has, for the one that the page has made.
    assert "adduser --system --group --no-create-home ip-sla-exporter\n" in PAGE
    (tmp_path / "rule.nft").write_text(rule.replace("ip-sla-exporter", "daemon"))
    lab.run("nft", "-f", tmp_path / "rule.nft")
    assert not _ask_as(lab, "65534") and _ask_as(lab, "0")
    assert _ask_as(lab, str(pwd.getpwnam("daemon").pw_uid)), "the exporter"
    assert "tasks: configured 0" in Ctl(lab)("status")


# -- keys in the logs
# -------------------------------------------------------------------------------------------------


@pytest.fixture
def keyed(lab, start_daemon):
    """A daemon whose logs show a key and a password, the latter also after a file's fault."""
    ResponderProgram(lab, "--port-range", "2001-2099", "--allow-open", "--password", PASSWORD)
    password = {"mode": "password", "algorithm": "sha256", "key-string": PASSWORD}
    daemon = start_daemon(
        [udp_task(1, authentication=password)], keychain={5: KEY, 6: f"first line\n{SECOND_LINE}"}
    )
    daemon.wait_for_reports(1)
    daemon.write_tasks([], document=f'{{"IP-SLA-tasks": [,\n\n"{PASSWORD}"\n')
    ApiClient(lab).reload_tasks()
    daemon.wait_for_record("ParseTaskConfigs() failed")
    return daemon


def test_keys_are_where_the_page_says(lab, keyed):
    assert KEY in lab.log_text() and PASSWORD in lab.log_text()
    assert PASSWORD in lab.log_text(1), "in a run's control dump"
    assert lab.log_text().rindex(PASSWORD) > lab.log_text().index("JSON parse error"), "and there"
    shown = [record for record in keyed.syslog() if KEY in record.text or PASSWORD in record.text]
    assert len(shown) >= 3
    assert {record.severity for record in shown} == {DEBUG}, "LogLevelMax=info keeps them out"
    assert "LogLevelMax=info" in "".join(_blocks(PAGE, "ini"))
    modes = {path.stat().st_mode & 0o777 for path in lab.path("/var/log/ip-sla").iterdir()}
    assert modes == {0o600}


@pytest.mark.parametrize("task", [0, 1])
def test_keys_are_cut_out_of_a_log(lab, keyed, task):
    (command,) = _blocks(PAGE, "sh")
    command = command.replace("sender.log", str(lab.log_path(task)))
    cut = subprocess.run(["sh", "-c", command], capture_output=True, text=True, check=True).stdout
    assert task or SECOND_LINE in lab.log_text()
    assert not [secret for secret in (KEY, PASSWORD, SECOND_LINE) if secret in cut]
    assert cut.count("(cut)") >= 1
    assert ("SLA task:" if task else "ParseTaskConfigs() failed") in cut, "the rest stays"


# -- signals, descriptors, memory
# -------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGUSR1], ids=["SIGHUP", "SIGUSR1"])
def test_other_signals_end_the_daemon(start_daemon, number):
    daemon = start_daemon()
    daemon.expected_exit = True
    daemon.process.send_signal(number)
    assert daemon.wait_exit() == -number


def test_tasks_need_no_more_than_the_page_says(build, start_daemon):
    row = re.search(r"\| descriptors \| (\d+), .*most (\d) \(ICMP\) or (\d) \(UDP\)", PAGE)
    own, icmp, udp = map(int, row.groups())
    count, probes = 40, 200
    silent = {"dst-address": "192.0.2.1"}
    daemon = start_daemon(
        [icmp_echo(number, time=30, packets=probes) for number in range(1, count + 1)]
        + [
            udp_jitter(number, time=30, control=silent, measurement=silent)
            for number in range(count + 1, 2 * count + 1)
        ]
    )
    seen = []
    while not daemon.reports(1):
        seen.append(len(os.listdir(f"/proc/{daemon.pid}/fd")))
    # A worker thread that opens a socket holds the daemon's own namespace, as it would a VRF's.
    workers = 15 * len(daemon.cpus)
    assert own < max(seen) <= own + workers + count * (icmp + udp)
    daemon.wait_for_reports(count)
    if not build.sanitizers:
        (kib,) = re.findall(
            r"VmRSS:\s+(\d+) kB", pathlib.Path(f"/proc/{daemon.pid}/status").read_text()
        )
        row = re.search(r"\| memory \| (\d+) MB \| (\d+) KB, and (\d+) bytes", PAGE)
        base, each, probe = map(int, row.groups())
        said = base * 1000 + 2 * count * each + count * probes * probe / 1000
        assert int(kib) * 1.024 < 1.5 * said


# -- the README
# -------------------------------------------------------------------------------------------------


def test_readmes_smallest_files_measure(lab, start_daemon):
    tasks, keychain = _blocks(README, "json")
    daemon = start_daemon(document=tasks, keychain=keychain)
    daemon.wait_for_reports(1)
    ctl = Ctl(lab)
    assert "0 faults, 0 warnings" in ctl("check", daemon.tasks_path, daemon.keychain_path)
    assert wait_for(lambda: "icmp-echo" in ctl("show"), "a result")


def test_jitter_is_its_standard_deviation_alone(lab, start_daemon):
    ResponderProgram(lab, "--port-range", "2001-2099")
    daemon = start_daemon([udp_task(1, packets=20)])
    daemon.wait_for_reports(1, count=2)
    (result,) = ApiClient(lab).statistics(1, groups=["jitter-values"])
    jitter = result["jitter-values"]
    assert {name for name, value in jitter.items() if value == 0} == {
        *("sd-min", "sd-avg", "sd-max"),
        *("ds-min", "ds-avg", "ds-max"),
    }
    assert jitter["sd-sd"] > 0 and jitter["ds-sd"] > 0
