"""ip-sla-ctl on a terminal: colours, widths, the live view; and what bash completes."""

import json
import re
import signal

import pytest
from support import schemas
from support.ctl import NO_SOURCE, Ctl, Piped, Terminal, masked, start_usual_daemon
from support.tasks import icmp_echo, icmp_jitter
from support.waiting import SCALE, holds_for, wait_for

NUMBER = r"\d+(\.\d+)?"


@pytest.fixture
def ctl(lab):
    return Ctl(lab)


@pytest.fixture
def daemon(lab, start_daemon):
    return start_usual_daemon(lab, start_daemon)


def test_failing_test_is_coloured_on_a_terminal_only(ctl, daemon):
    red = f"\x1b[1;31m{NO_SOURCE}\x1b[0m"
    coloured = Terminal(ctl, "show")
    assert coloured.wait_exit() == 1
    assert red in coloured.text and "\x1b[1;31mFAIL\x1b[0m" in coloured.text
    for environment in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
        plain = Terminal(ctl, "show", **environment)
        assert plain.wait_exit() == 1
        assert "\x1b" not in plain.text and NO_SOURCE in plain.text
    assert "\x1b" not in ctl("show", status=1)


def test_watch_on_a_terminal_marks_changes_and_ends_on_ctrl_c(ctl, daemon):
    screen = Terminal(ctl, "watch", "--interval", "0.3")
    screen.wait_for(r"\x1b\[2J.*tasks 3, failing 1, every 0\.3 s; q ends.*ID.*icmp-echo")
    screen.wait_for(r"\x1b\[7m\d+\x1b\[0m")  # a count that went up
    screen.process.send_signal(signal.SIGINT)
    assert screen.wait_exit() == 0
    assert screen.text.endswith("\x1b[?25h"), "the cursor is back"


def test_watch_on_a_terminal_survives_the_daemons_restart(ctl, lab, start_daemon):
    first = start_daemon([icmp_echo(1)])
    first.wait_for_reports(1)
    screen = Terminal(ctl, "watch", "--interval", "0.2", "--timeout", "0.5")
    screen.wait_for(r"tasks 1, failing 0")
    first.stop()
    screen.wait_for(r"no daemon answers")
    seen = len(screen.text)
    start_daemon([icmp_echo(1), icmp_echo(2)]).wait_for_reports(2)
    wait_for(lambda: "tasks 2, failing 0" in screen.read()[seen:], "the new daemon's tasks")
    screen.process.send_signal(signal.SIGTERM)
    assert screen.wait_exit() == 0


def test_watch_shows_no_more_than_the_terminal_has_room_for(ctl, start_daemon):
    daemon = start_daemon([icmp_echo(number) for number in range(1, 21)])
    for number in range(1, 21):
        daemon.wait_for_reports(number)
    screen = Terminal(ctl, "watch", "--count", "1", height=10)
    assert screen.wait_exit() == 0
    assert "rows 1-5 of 20, 0 failing out of sight; arrows, page keys, q" in screen.text
    assert screen.text.count("\n") == 9


def test_watch_without_a_terminal_prints_lines_for_new_results(ctl, daemon):
    lines = ctl("watch", "--interval", "0.2", "--count", "12").splitlines()
    stamp = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d "
    first, second, third, *later = lines
    assert re.fullmatch(
        stamp
        + rf"task 1 icmp-echo dst=127\.0\.0\.1 result=ok rtt={NUMBER}ms loss=0% ok=\d+ failed=0",
        first,
    )
    assert re.match(stamp + r"task 2 icmp-jitter vrf=blue dst=10\.1\.0\.2 result=ok rtt=", second)
    assert re.fullmatch(
        stamp
        + rf'task 5 icmp-echo dst=127\.0\.0\.1 result=FAIL ok=0 failed=\d+ error="{NO_SOURCE}"',
        third,
    )
    assert later, "new results within two seconds"
    assert all(re.match(stamp + "task [125] ", line) for line in later)
    assert len(set(lines)) == len(lines)


def test_watch_json_is_a_document_per_refresh(ctl, daemon):
    lines = ctl("--json", "watch", "-n", "0.1", "--count", "3", 1).splitlines()
    assert len(lines) == 3
    for line in lines:
        schemas.check(json.loads(line), "task-results")


def test_watch_of_many_tasks_tells_of_none_before_its_values(ctl, start_daemon):
    count = 60
    daemon = start_daemon(
        [icmp_jitter(number, time=600, packets=1) for number in range(1, count + 1)]
    )
    for number in range(1, count + 1):
        daemon.wait_for_reports(number)
    many = ["watch", "--interval", "0.2", "--count", "6"]
    documents = [json.loads(line)["tasks"] for line in ctl("--json", *many).splitlines()]
    assert all(task["rtt-values"] for tasks in documents for task in tasks)
    assert 0 < len(documents[0]) < len(documents[-1]) == count
    lines = ctl(*many).splitlines()
    assert len(lines) == count, "one for each, and no task is gone"
    assert all(re.search(rf" result=ok rtt={NUMBER}ms ", line) for line in lines)


def test_watch_of_an_unknown_task_is_an_error(ctl, daemon):
    assert ctl("watch", 7, status=3, error="ip-sla-ctl: no task 7 is configured\n") == ""


def test_watch_in_a_pipe_ends_on_ctrl_c(ctl, daemon):
    process = ctl.lab.popen(
        *ctl.command("watch", "--interval", "60"), stdout=-1, stderr=-1, text=True
    )
    assert "task 1" in process.stdout.readline()
    process.send_signal(signal.SIGINT)
    assert process.wait(timeout=20 * SCALE) == 0


def _has_task_2_only_now(line):
    """A line, or a document, that tells of both tasks or of the one that is new."""
    if line.startswith("{"):
        return [task["sla-id"] for task in json.loads(line)["tasks"]] == [1, 2]
    return " task 2 icmp-echo dst=127.0.0.1 result=ok " in line


@pytest.mark.parametrize("options", [[], ["--json"]])
def test_watch_in_a_pipe_survives_the_daemons_restart(ctl, start_daemon, options):
    first = start_daemon([icmp_echo(1)])
    first.wait_for_reports(1)
    watch = Piped(ctl, *options, "watch", "--interval", "0.1")
    wait_for(lambda: watch.lines, "the first output")
    first.stop()
    text = "ip-sla-ctl: no daemon answers on 127.0.0.1:10101\n"
    wait_for(lambda: watch.errors.endswith(text), "word of the daemon's end")
    before = len(watch.lines)
    holds_for(lambda: watch.errors.count(text) == 1, "said once, not at each refresh", 0.5)
    assert len(watch.lines) == before, "nothing is told of a daemon that is away"
    start_daemon([icmp_echo(1), icmp_echo(2)])
    wait_for(lambda: any(map(_has_task_2_only_now, watch.lines)), "the new daemon's tasks")
    watch.process.send_signal(signal.SIGINT)
    assert watch.process.wait(timeout=20 * SCALE) == 0
    assert watch.errors.count(text) == 1
