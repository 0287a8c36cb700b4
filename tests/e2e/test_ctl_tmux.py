"""ip-sla-ctl as a person sees it: in a real terminal, whose lines are read back from its screen."""

import re
import shlex

import pytest
from support.ctl import CLOCK_REMARK, NO_SOURCE, Ctl, start_usual_daemon
from support.fake_daemon import FakeDaemon, task
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


def _round_trips(lines):
    """What stands below RTT in the rows of tasks that succeeded, by id."""
    rows = [re.match(r" *(\d+)\*? .* ok\*? +\S+ +(\S+)", line) for line in lines]
    return {int(row[1]): row[2].rstrip("*") for row in rows if row}


def _assert_values(lines):
    """Returns which tasks have them."""
    round_trips = _round_trips(lines)
    assert all(re.fullmatch(r"\d+\.\d+", it) for it in round_trips.values()), lines
    return set(round_trips)


@pytest.mark.parametrize("width", [40, 80])
@pytest.mark.parametrize("order", [[], ["--sort", "rtt"]], ids=["failing", "rtt"])
def test_watch_shows_values_of_rows_that_come_into_sight(lab, start_daemon, width, order):
    daemon = start_daemon([icmp_jitter(number, time=1, packets=1) for number in range(1, 7)])
    for number in range(1, 7):
        daemon.wait_for_reports(number)
    screen = Tmux(lab, width, 8, _command(Ctl(lab), "watch", *order, "--interval", "1"))
    first = screen.wait_for(r"rows 1-\d of 6")
    clocks = {first[0].split()[0]}
    seen = _assert_values(first)
    # A refresh replaces results out of sight: look behind several of them.
    while len(clocks) < 5:
        for key, shown in (("End", r"rows \d-6 of 6"), ("Home", r"rows 1-\d of 6")):
            screen.type(key)
            lines = screen.wait_for(shown)
            clocks.add(lines[0].split()[0])
            seen |= _assert_values(lines)
    assert len(seen) > 3, "more than a screenful"


def test_watch_asks_at_once_for_what_is_scrolled_into_sight(lab, start_daemon):
    count = 60
    daemon = start_daemon([icmp_jitter(number, time=600, packets=1) for number in range(1, 61)])
    for number in range(1, count + 1):
        daemon.wait_for_reports(number)
    # Too many for one refresh, and there is no second.
    command = _command(Ctl(lab), "watch", "--sort", "rtt", "--interval", "600")
    screen = Tmux(lab, 80, 12, command)
    lines = screen.wait_for(r"rows 1-\d of 60")
    seen = _assert_values(lines)
    remark = r"\d+ results not asked for yet; values out of sight may be older"
    assert any(re.fullmatch(remark, line) for line in lines), lines
    screen.type("End")
    assert _assert_values(screen.wait_for(r"rows \d+-60 of 60")) - seen


def test_watch_says_that_the_daemon_is_gone_when_a_key_asks_for_values(lab):
    """Between two refreshes, too."""
    daemon = FakeDaemon(lab, [task(number) for number in range(1, 101)])
    screen = Tmux(lab, 80, 12, _command(Ctl(lab), "watch", "--interval", "600") + "; echo $?; cat")
    screen.wait_for(r"rows 1-\d of 100")
    daemon.stop()
    screen.type("End")
    assert "no daemon answers on 127.0.0.1:10101" in screen.wait_for(r"rows \d+-100 of 100")
    screen.type("Home")
    assert "no daemon answers on 127.0.0.1:10101" in screen.wait_for(r"rows 1-\d of 100")
    screen.type("q")
    screen.wait_for(r"^0$")
