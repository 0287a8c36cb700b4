"""Looking must not destroy: what ip-sla-ctl makes the daemon write into a log that keeps 1 MiB."""

import shlex

import pytest
from support.api_client import ApiClient
from support.completion import bash_completes, zsh_completes
from support.ctl import Ctl, start_usual_daemon
from support.tasks import icmp_echo, icmp_jitter
from support.tmux import Tmux
from support.waiting import wait_for

KILOBYTE = 1000


@pytest.fixture
def ctl(lab):
    return Ctl(lab)


def _growth(size, action):
    """By how much a log has grown, its last lines written."""
    before = _settled(size)
    action()
    return _settled(size) - before


def _settled(size):
    """The log's writer has a thread of its own."""
    sizes = [-1, -1]

    def is_settled():
        sizes.append(size())
        return sizes[-1] == sizes[-2] == sizes[-3]

    wait_for(is_settled, "the log to be written")
    return sizes[-1]


@pytest.fixture
def usual_log(lab, start_daemon):
    """Grows with each question; far below the size at which it is cut."""
    start_usual_daemon(lab, start_daemon)
    return lambda: lab.log_path().stat().st_size


def _look(ctl, *arguments):
    """Whether a test fails on a busy machine is not of interest."""
    result = ctl.lab.run(*ctl.command(*arguments), check=False)
    assert result.returncode in (0, 1) and result.stderr == "", result
    return result.stdout


def test_looking_at_four_tasks_writes_little(ctl, usual_log):
    assert 0 < _growth(usual_log, lambda: ctl("status", status=1)) < 5 * KILOBYTE
    assert 0 < _growth(usual_log, lambda: ctl("show", "--all", status=1)) < 5 * KILOBYTE
    assert 0 < _growth(usual_log, lambda: ctl.json("show", status=1)) < 5 * KILOBYTE
    assert 0 < _growth(usual_log, lambda: bash_completes(ctl, "show", "")) < 5 * KILOBYTE
    assert 0 < _growth(usual_log, lambda: zsh_completes(ctl, "show", "")) < 5 * KILOBYTE


def test_a_reload_writes_little_more_than_the_daemon_itself(lab, ctl, usual_log):
    own = _growth(usual_log, lambda: ApiClient(lab).reload_tasks())
    assert own > KILOBYTE, "the tasks are dumped"
    assert own < _growth(usual_log, lambda: ctl("reload", "tasks")) < own + 5 * KILOBYTE


def test_only_a_scan_asks_for_every_id(ctl, usual_log):
    assert _growth(usual_log, lambda: ctl("status", "--scan", status=1)) > 300 * KILOBYTE


def _look_on_screen(ctl, *arguments):
    """The same on a terminal, from which the program has gone at the end."""
    command = shlex.join(map(str, ctl.command(*arguments, TERM="screen", LC_ALL="C.UTF-8")))
    Tmux(ctl.lab, 120, 40, f"{command}; echo status $?; exec sleep 1000").wait_for(r"^status 0")


@pytest.mark.parametrize(
    "look, arguments",
    [(_look, []), (_look, ["--json"]), (_look_on_screen, ["--sort", "rtt"])],
    ids=["lines", "json", "screen"],
)
def test_watch_of_many_tasks_writes_little_at_each_refresh(lab, ctl, start_daemon, look, arguments):
    count = 500
    tasks = [icmp_jitter(number, time=600, packets=1) for number in range(1, count)]
    daemon = start_daemon([*tasks, icmp_echo(count, time=1, packets=1)])
    for number in (1, count // 2, count - 1, count):
        daemon.wait_for_reports(number)

    # The log itself is cut meanwhile; the system log has a copy of every line.
    def size():
        return daemon.syslog_path.stat().st_size

    watch = ["watch", *arguments] if look is _look_on_screen else [*arguments, "watch"]
    once = _growth(size, lambda: look(ctl, *watch, "--count", 1))
    refreshes = 6
    several = _growth(
        size, lambda: look(ctl, *watch, "--interval", "0.5", "--count", 1 + refreshes)
    )
    assert 0 < (several - once) / refreshes < 60 * KILOBYTE
