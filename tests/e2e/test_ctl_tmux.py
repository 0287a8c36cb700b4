"""ip-sla-ctl as a person sees it: in a real terminal, whose lines are read back from its screen."""

import re
import shlex

import pytest
from support.ctl import CLOCK_REMARK, NO_SOURCE, Ctl, start_usual_daemon
from support.tasks import icmp_echo, icmp_jitter
from support.tmux import Tmux

MAIN_COLUMNS = "ID TYPE VRF DEST RESULT AGE RTT ONE-WAY sd/ds JITTER LOSS"
ALL_COLUMNS = MAIN_COLUMNS + " LOSS sd/ds JITTER sd/ds OK FAILED"


def _command(ctl, *arguments):
    return shlex.join(map(str, ctl.command(*arguments, TERM="screen", LC_ALL="C.UTF-8")))


def _shown(lab, ctl, width, *arguments):
    """The lines of a command that has ended."""
    command = _command(ctl, *arguments)
    screen = Tmux(lab, width, 40, f"{command}; echo status $?; exec sleep 1000")
    lines = screen.wait_for(r"^status \d+$|\nstatus \d+$")
    end = next(index for index, line in enumerate(lines) if line.startswith("status "))
    return lines[:end]


def _unwrapped(lines):
    """The lines with what the program itself broke at spaces joined again."""
    joined = []
    for line in lines:
        starts_anew = re.match(r" *\d+ |ID |  (hint: |source )|the clock ", line + " ")
        if starts_anew or not joined:
            joined.append(line)
        else:
            joined[-1] += " " + line.strip()
    return joined


@pytest.mark.parametrize(
    "width, columns",
    [
        (40, "ID DEST RESULT AGE RTT LOSS"),
        (80, MAIN_COLUMNS),
        (120, ALL_COLUMNS),
        (200, ALL_COLUMNS),
    ],
)
def test_table_fits_the_terminal(lab, start_daemon, width, columns):
    start_usual_daemon(lab, start_daemon)
    lines = _unwrapped(_shown(lab, Ctl(lab), width, "show", "--all"))
    assert " ".join(lines[0].split()) == columns
    assert all(len(line) <= width for line in lines if not line.startswith(("  ", "the clock")))
    rows = [line for line in lines[1:] if line != CLOCK_REMARK]
    assert [row.split()[0] for row in rows] == ["5", NO_SOURCE.split()[0], "hint:", "1", "2", "9"]
    assert rows[1] == "  " + NO_SOURCE
    assert len({row.index("127.0.0.1") for row in (rows[0], rows[3], rows[5])}) == 1, "one column"


def test_details_fit_a_narrow_terminal(lab, start_daemon):
    start_usual_daemon(lab, start_daemon)
    lines = _shown(lab, Ctl(lab), 40, "show", "--metrics", "2")
    assert lines[0] == "task 2 icmp-jitter 10.1.0.1 -> 10.1.0.2,"
    values = next(line for line in lines if line.startswith("  round trip"))
    assert re.fullmatch(r"  round trip( +\d+\.\d+){3} +-", values)


def test_status_fits_a_narrow_terminal(lab, start_daemon):
    start_usual_daemon(lab, start_daemon)
    lines = _shown(lab, Ctl(lab), 40, "status")
    assert " ".join(lines[lines.index("") + 1].split()) == "ID TYPE SCHEDULED RESULT AGE"


def _rows(lines):
    return [int(line.split()[0]) for line in lines if re.match(r" *\d+ +icmp", line)]


def test_watch_scrolls_and_says_what_is_out_of_sight(lab, start_daemon):
    daemon = start_daemon(
        [icmp_jitter(number, time=30, packets=1) for number in range(1, 40)]
        + [icmp_echo(40, time=30, src="192.0.2.10")]
    )
    for number in (1, 39, 40):
        daemon.wait_for_reports(number)
    ctl = Ctl(lab)
    command = _command(ctl, "watch")
    screen = Tmux(lab, 80, 24, f"{command}; echo status $?; exec sleep 1000")
    lines = screen.wait_for(r"rows 1-\d+ of 40, 0 failing out of sight; arrows, page keys, q")
    assert re.match(r"\d\d:\d\d:\d\d  tasks 40, failing 1, every 2 s; q ends", lines[0])
    assert " ".join(lines[2].split()) == MAIN_COLUMNS
    assert lines[4] == "  " + NO_SOURCE
    first = _rows(lines)
    assert first == [40, *range(1, len(first))]
    screen.type("Down")
    assert _rows(screen.wait_for(r"rows 2-\d+ of 40, 1 failing out of sight"))[0] == 1
    screen.type("NPage")
    screen.wait_for(r"rows (1\d|2\d)-\d+ of 40, 1 failing out of sight")
    screen.type("End")
    assert _rows(screen.wait_for(r"rows \d+-40 of 40"))[-1] == 39
    screen.type("PPage")
    screen.wait_for(r"rows \d+-(1|2|3)\d of 40")
    screen.type("Home")
    assert _rows(screen.wait_for(r"rows 1-\d+ of 40")) == first
    screen.type("q")
    screen.wait_for(r"status 0")
