"""ip-sla-ctl against a daemon: what each command prints, exactly but for measured times, and its exit status."""

import fcntl
import json
import os
import pty
import re
import signal
import struct
import termios

import pytest
from support import schemas
from support.tasks import icmp_echo, icmp_jitter
from support.waiting import SCALE, wait_for

UNREACHABLE = "192.0.2.10"  # on no interface
NO_SOURCE = "source address or interface not exist"
HEADER = (
    "ID TYPE VRF DESTINATION RESULT AGE RTT/ms SD/ms DS/ms JITTER-SD/ms JITTER-DS/ms LOSS/% LOSS-SD/% LOSS-DS/% OK FAILED "
    "ERROR"
)
ECHO = "1 icmp-echo - 127.0.0.1 ok AGE N.NNN - - - - 0 - - COUNT 0 -"
JITTER = "2 icmp-jitter blue 10.1.0.2 ok AGE N.NNN N.NNN N.NNN N.NNN N.NNN 0 0 0 COUNT 0 -"
FAILING = f"5 icmp-echo - 127.0.0.1 FAIL AGE - - - - - - - - 0 COUNT {NO_SOURCE}"


class Ctl:
    """Runs ip-sla-ctl inside a lab."""

    def __init__(self, lab):
        self.lab = lab
        self.environment = {**lab.build.environment(), "TZ": "UTC0"}
        self.environment = {name: value for name, value in self.environment.items() if value}

    def command(self, *arguments, **environment):
        variables = [f"{name}={value}" for name, value in {**self.environment, **environment}.items()]
        launcher = self.lab.build.launcher()
        return ["env", "-i", *variables, *launcher, self.lab.build.program("ip-sla-ctl"), *map(str, arguments)]

    def __call__(self, *arguments, status=0, error=""):
        """Standard output; the exit status and standard error must be as given."""
        result = self.lab.run(*self.command(*arguments), check=False, timeout=60 * SCALE)
        assert (result.returncode, result.stderr) == (status, error), result.stdout
        return result.stdout

    def json(self, *arguments, **expected):
        text = self("--json", *arguments, **expected)
        assert text.count("\n") == 1, "one document, one line"
        return json.loads(text)


@pytest.fixture
def ctl(lab):
    return Ctl(lab)


def _masked(text):
    """The lines of a table with single spaces, and without what differs from run to run."""
    lines = [re.sub(r" +", " ", line.strip()) for line in text.splitlines()]
    lines = [re.sub(r"\b\d+\.\d{3}\b", "N.NNN", line) for line in lines]
    lines = [re.sub(r" \d+s (?=N|-)", " AGE ", line) for line in lines]
    lines = [re.sub(r" \d+ 0 -$", " COUNT 0 -", line) for line in lines]
    return [re.sub(r" 0 \d+ (source)", r" 0 COUNT \1", line) for line in lines]


@pytest.fixture
def daemon(lab, start_daemon):
    """Tasks 1 and 2 succeed, 5 fails, 9 has not run yet."""
    lab.add_vrf("blue")
    later = {"Start-time": "23:59:59"}
    tasks = [
        icmp_echo(1),
        icmp_jitter(2, src="10.1.0.1", dst="10.1.0.2", vrf="blue"),
        icmp_echo(5, src=UNREACHABLE),
        icmp_echo(9, time=3600, scheduler=later),
    ]
    started = start_daemon(tasks, env={"TZ": "UTC0"})
    for number in (1, 2, 5):
        started.wait_for_reports(number)
    return started


# -- show ------------------------------------------------------------------------------------------------------------


def test_show_is_a_table_of_all_results_and_tells_a_failing_test(ctl, daemon):
    assert _masked(ctl("show", status=1)) == [HEADER, ECHO, JITTER, FAILING]


def test_show_columns_are_aligned(ctl, daemon):
    header, *rows = ctl("show", status=1).splitlines()
    for column in ("TYPE", "VRF", "DESTINATION", "RESULT", "ERROR"):
        at = header.index(column)
        assert all(row[at] != " " and row[at - 2 : at] == "  " for row in rows), column
    for column in ("RTT/ms", "JITTER-DS/ms", "LOSS/%", "OK", "FAILED"):
        end = header.index(f" {column} ") + 1 + len(column)
        assert all(row[end - 1] != " " and row[end : end + 2] == "  " for row in rows), column


def test_show_of_chosen_tasks(ctl, daemon):
    assert _masked(ctl("show", 2, 1)) == [HEADER, ECHO, JITTER]
    assert _masked(ctl("show", 9)) == [HEADER, "9 - - - not run - - - - - - - - - - - -"]


def test_show_all_includes_what_has_not_run(ctl, daemon):
    rows = _masked(ctl("show", "--all", status=1))
    assert rows == [HEADER, ECHO, JITTER, FAILING, "9 - - - not run - - - - - - - - - - - -"]


def test_show_of_an_unknown_task_is_an_error(ctl, daemon):
    text = ctl("show", 1, 7, status=3, error="ip-sla-ctl: no task 7 is configured\n")
    assert _masked(text) == [HEADER, ECHO]
    assert ctl("show", 7, status=3, error="ip-sla-ctl: no task 7 is configured\n") == ""


def test_show_metrics_has_every_value(ctl, daemon):
    lines = [re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", "TIME", line) for line in _masked(ctl("show", "--metrics", 2, 9))]
    assert re.fullmatch(r"run of TIME to TIME, \d+s ago; \d+ ok, 0 failed", lines.pop(1))
    assert lines == [
        "task 2 icmp-jitter 10.1.0.1 -> 10.1.0.2, VRF blue: ok",
        "ms min avg max deviation",
        "round trip N.NNN N.NNN N.NNN -",
        "one-way SD N.NNN N.NNN N.NNN -",
        "one-way DS N.NNN N.NNN N.NNN -",
        "jitter SD N.NNN N.NNN N.NNN N.NNN",
        "jitter DS N.NNN N.NNN N.NNN N.NNN",
        "probes SD DS",
        "packets 5 5",
        "samples 5 5",
        "lost 0 0",
        "lost % 0 0",
        "out of sequence 0 0",
        "late 0, skipped 0, duplicate 0",
        "",
        "task 9: not run",
    ]


def test_show_json_is_the_statistics_document(ctl, daemon):
    document = ctl.json("show", status=1)
    schemas.check(document, "statistics")
    assert [(task["sla-id"], task["status"]) for task in document["tasks"]] == [
        (1, "successful"),
        (2, "successful"),
        (5, "fail"),
    ]
    document = ctl.json("show", 1, 9, 7, status=3, error="ip-sla-ctl: no task 7 is configured\n")
    assert [task["sla-id"] for task in document["tasks"]] == [1, 9]
    assert document["tasks"][1] == {"sla-id": 9, "schedule": True, "status": "not run"}
    assert document["unknown"] == [7]


def test_show_without_results(ctl, start_daemon):
    start_daemon([])
    assert ctl("show") == "no task has a result yet\n"
    assert ctl("show", "--all") == "no task is configured\n"
    assert ctl("status") == "no task is configured\n"
    assert ctl.json("show") == {"tasks": []}


def test_show_of_a_reply_in_many_fragments(ctl, start_daemon):
    daemon = start_daemon([icmp_echo(number, time=2, packets=1) for number in range(1, 101)])
    for number in (1, 50, 100):
        daemon.wait_for_reports(number)
    wait_for(lambda: len(ctl("show").splitlines()) == 101, "a row for each of 100 tasks")


# -- status ----------------------------------------------------------------------------------------------------------


def test_status_names_every_configured_task(ctl, daemon):
    rows = _masked(ctl("status", status=1))
    assert [re.sub(r" \d+s ", " AGE ", row) for row in rows] == [
        "ID SCHEDULED RESULT AGE ERROR",
        "1 yes ok AGE -",
        "2 yes ok AGE -",
        f"5 yes FAIL AGE {NO_SOURCE}",
        "9 yes not run - -",
    ]


def test_status_of_chosen_tasks(ctl, daemon):
    assert len(ctl("status", 1, 9).splitlines()) == 3
    document = ctl.json("status", 5, 9, 7, status=3, error="ip-sla-ctl: no task 7 is configured\n")
    assert document == {
        "tasks": [
            {"sla-id": 5, "status": True, "result": "fail"},
            {"sla-id": 9, "status": True, "result": "not run"},
        ],
        "unknown": [7],
    }


# -- reload ----------------------------------------------------------------------------------------------------------


def test_reload_tasks_prints_what_was_applied(ctl, start_daemon):
    daemon = start_daemon([icmp_echo(number, time=60) for number in (1, 2, 3)])
    for number in (1, 2, 3):
        daemon.wait_for_reports(number)
    daemon.write_tasks([icmp_echo(1, time=60), icmp_echo(3, time=60, packets=4), icmp_echo(4, time=60), icmp_echo(6)])
    assert ctl("reload", "tasks").splitlines() == [
        "tasks reloaded: 2 added, 1 removed, 1 restarted, 1 unchanged",
        "added:     4 6",
        "removed:   2",
        "restarted: 3",
    ]
    assert ctl("reload", "tasks") == "tasks reloaded: 0 added, 0 removed, 0 restarted, 4 unchanged\n"
    assert ctl.json("reload", "tasks") == {
        "reloaded": "tasks",
        "added": [],
        "removed": [],
        "restarted": [],
        "unchanged": [1, 3, 4, 6],
    }


def test_refused_reload_is_an_error(ctl, daemon):
    daemon.write_tasks([], "nonsense")
    text = (
        "the daemon could not read the tasks file and goes on with the tasks it has; its log says why, and so does "
        '"ip-sla-ctl check"'
    )
    assert ctl("reload", "tasks", status=1, error=f"ip-sla-ctl: {text}\n") == ""
    assert ctl.json("reload", "tasks", status=1, error=f"ip-sla-ctl: {text}\n") == {"error": text}


def test_reload_that_no_test_can_be_made_from_tells_the_daemons_end(ctl, daemon):
    daemon.write_tasks([icmp_echo(1, scheduler={"Start-time": "soon"})])
    text = "the daemon ended: a test of the new tasks file could not be created"
    ctl("reload", "tasks", status=2, error=f"ip-sla-ctl: {text}\n")
    daemon.wait_exit()


def test_reload_keychain(ctl, daemon):
    assert ctl("reload", "keychain") == "keychain reloaded\n"
    assert ctl.json("reload", "keychain") == {"reloaded": "keychain"}


@pytest.mark.parametrize("timeout", [[], ["--timeout", "0.2"]])
def test_keychain_that_cannot_be_read_tells_the_daemons_end(ctl, daemon, timeout):
    daemon.write_keychain("nonsense")
    text = "the daemon ended: the keychain file could not be read"
    ctl("reload", "keychain", *timeout, status=2, error=f"ip-sla-ctl: {text}\n")
    assert daemon.wait_exit() == 1


# -- check -----------------------------------------------------------------------------------------------------------


def _files(lab, tasks, keychain=None, cpus=(0,)):
    """Written where a user without privileges can read them."""
    lab.run("mkdir", "-p", "/run/check")
    names = ["/run/check/tasks.json", "/run/check/keychain.json"]
    lab.path(names[0]).write_text(
        tasks if isinstance(tasks, str) else json.dumps({"IP-SLA-tasks": tasks, "cpus": list(cpus)})
    )
    lab.path(names[1]).write_text(keychain or '{"keychain-storage": []}')
    return names


def test_check_of_good_files_needs_no_daemon(lab, ctl):
    tasks, keys = _files(lab, [icmp_echo(1), icmp_echo(2)], '{"keychain-storage": [{"key-id": 1, "key-string": "x"}]}')
    assert ctl("check", tasks, keys).splitlines() == [
        f"{tasks}: 2 tasks, 2 accepted, 0 faults, 0 warnings",
        f"{keys}: 1 key, 1 accepted, 0 faults, 0 warnings",
    ]
    assert ctl("check", tasks) == f"{tasks}: 2 tasks, 2 accepted, 0 faults, 0 warnings\n"


def test_check_needs_no_privileges(lab, ctl):
    tasks, _ = _files(lab, [icmp_echo(1)])
    lab.run("cp", lab.build.program("ip-sla-ctl"), "/run/check/ctl")
    libraries = lab.build.directory / "lib"
    lab.run("sh", "-c", f"cp -d {libraries}/*.so* /run/check/")
    result = lab.run(
        *("setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "--inh-caps=-all", "env"),
        "LD_LIBRARY_PATH=/run/check",
        *(f"{name}={value}" for name, value in ctl.environment.items()),
        *(*lab.build.launcher(), "/run/check/ctl", "check", tasks),
    )
    assert result.stdout == f"{tasks}: 1 task, 1 accepted, 0 faults, 0 warnings\n"


def test_check_names_every_fault_and_what_cannot_work(lab, ctl):
    tasks, keys = _files(
        lab,
        [
            icmp_echo(1, num_rep_hist=0, control={"retry": None}, measurement={"dscp": 64, "ttl": "x"}),
            icmp_echo(2, measurement={"packet-size": 42, "dst-address": "host.example"}),
            icmp_echo(2, scheduler={"Start-time": "now"}),
            icmp_echo(3, scheduler={"Start-time": "soon"}),
        ],
        '{"keychain-storage": [{"key-id": "1", "key-string": "x"}]}',
    )
    assert ctl("check", tasks, keys, status=1).splitlines() == [
        f"{tasks}: task 1 (id 1): num-rep-hist = 0: invalid history count value",
        f"{tasks}: task 1 (id 1): control-phase.retry (missing): no control phase retry configuration",
        f'{tasks}: task 1 (id 1): icmp-echo.ttl = "x": no measurement phase parametrs configuration',
        f"{tasks}: task 1 (id 1): icmp-echo.dscp = 64: invalid dscp value",
        f"{tasks}: task 3 (id 2): sla-id = 2: duplicate task",
        f'{tasks}: task 2 (id 2): warning: icmp-echo.dst-address = "host.example": '
        "is no IPv4 address and counts as 0.0.0.0",
        f"{tasks}: task 2 (id 2): warning: icmp-echo.packet-size = 42: "
        "leaves 0 of the 8 bytes of the ICMP message's header; the smallest that works is 70",
        f'{tasks}: task 4 (id 3): warning: scheduler.Start-time = "soon": '
        "cannot be read as a time, which ends the daemon when it creates the test",
        f"{keys}: key 1: key id #undefined parse skipped: no key configuration",
        f"{tasks}: 4 tasks, 2 accepted, 5 faults, 3 warnings",
        f"{keys}: 1 key, 0 accepted, 1 fault, 0 warnings",
    ]


def test_check_warnings_alone_are_no_failure(lab, ctl):
    tasks, _ = _files(lab, [icmp_echo(1)], cpus=())
    document = ctl.json("check", tasks)
    assert document == {
        "tasks": {
            "file": tasks,
            "elements": 1,
            "accepted": 1,
            "faults": [],
            "warnings": [
                {
                    "number": None,
                    "id": None,
                    "key": "cpus",
                    "value": "[]",
                    "reason": "names no CPU: the daemon starts no worker threads and runs no test",
                }
            ],
        },
        "keychain": None,
    }


def test_check_agrees_with_the_daemon(lab, ctl, start_daemon):
    """The first fault of each task is the one that the daemon logs."""
    tasks = [
        icmp_echo(1, num_rep_hist="x", measurement={"dscp": 64}),
        icmp_echo(2, measurement={"dscp": 64, "num-packets": 0}),
        icmp_jitter(3, control={"dst-port": 65536}, authentication={"mode": "secret"}),
        icmp_echo(4, packets=1000),
        icmp_echo(5),
        icmp_echo(5),
    ]
    daemon = start_daemon(tasks)
    path, _ = _files(lab, tasks)
    first = {}
    for fault in ctl.json("check", path, status=1)["tasks"]["faults"]:
        first.setdefault(fault["number"], fault["reason"])
    skipped = [record.split(": ", 1)[1] for record in daemon.log_records() if "parse skipped" in record]
    assert list(first.values()) == skipped and len(skipped) == 5


def test_check_of_files_that_cannot_be_used(lab, ctl):
    tasks, _ = _files(lab, "{\n nonsense")
    assert ctl("check", tasks, "/nonexistent", status=1).splitlines() == [
        f"{tasks}: not valid JSON at line 2, column 3",
        "/nonexistent: the file cannot be read",
        f"{tasks}: 0 tasks, 0 accepted, 1 fault, 0 warnings",
        "/nonexistent: 0 keys, 0 accepted, 1 fault, 0 warnings",
    ]


# -- probe -----------------------------------------------------------------------------------------------------------

NUMBER = r"\d+(\.\d+)?"


def test_probe_of_a_fine_task(ctl, daemon):
    line = ctl("probe", 1, "--warning", "rtt=5000,loss=1", "--critical", "loss=50")
    assert re.fullmatch(
        rf"OK - task 1 icmp-echo: rtt {NUMBER} ms, loss 0% \| rtt={NUMBER}ms;5000;;; loss=0%;1;50;0;100 age=\d+s;;;;\n",
        line,
    )
    line = ctl("probe", 2)
    assert re.fullmatch(
        rf"OK - task 2 icmp-jitter: rtt {NUMBER} ms, loss sd 0% ds 0% \| rtt={NUMBER}ms;;;; latency_sd={NUMBER}ms;;;; "
        rf"latency_ds={NUMBER}ms;;;; jitter_sd={NUMBER}ms;;;; jitter_ds={NUMBER}ms;;;; loss_sd=0%;;;0;100 "
        r"loss_ds=0%;;;0;100 age=\d+s;;;;"
        "\n",
        line,
    )


def test_probe_exits_as_monitoring_plugins_do(ctl, daemon):
    assert ctl("probe", 1, "-w", "rtt=0", status=1).startswith("WARNING - task 1 icmp-echo: rtt ")
    assert ctl("probe", 1, "-w", "rtt=0", "-c", "rtt=0", status=2).startswith("CRITICAL - task 1 icmp-echo: rtt ")
    assert re.fullmatch(rf"CRITICAL - task 5 icmp-echo: {NO_SOURCE} \| age=\d+s;;;;\n", ctl("probe", 5, status=2))
    assert ctl("probe", 9, status=3) == "UNKNOWN - task 9 has no result yet\n"
    assert ctl("probe", 7, status=3) == "UNKNOWN - no task 7 is configured\n"
    assert ctl.json("probe", 5, status=2)["state"] == "CRITICAL"


def test_probe_without_a_daemon_is_unknown(ctl, lab):
    assert ctl("probe", 1, status=3) == "UNKNOWN - no daemon answers on 127.0.0.1:10101\n"


# -- no daemon, wrong command lines ----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "arguments",
    [["show"], ["show", "--all"], ["show", 1], ["watch"], ["status"], ["reload", "tasks"], ["reload", "keychain"]],
)
def test_no_daemon(ctl, arguments):
    text = "no daemon answers on 127.0.0.1:10101"
    assert ctl(*arguments, status=2, error=f"ip-sla-ctl: {text}\n") == ""
    assert ctl.json(*arguments, status=2, error=f"ip-sla-ctl: {text}\n") == {"error": text}


def test_daemon_that_does_not_answer(ctl, daemon):
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        assert ctl("show", "--timeout", "0.3", status=2, error="ip-sla-ctl: no reply within 300 ms\n") == ""
    finally:
        os.kill(daemon.pid, signal.SIGCONT)


@pytest.mark.parametrize(
    "arguments",
    [
        [],
        ["nonsense"],
        ["show", "x"],
        ["show", "-1"],
        ["show", "65536"],
        ["show", "--all", "1"],
        ["show", "--nonsense"],
        ["watch", "--interval", "0"],
        ["reload"],
        ["reload", "nonsense"],
        ["check"],
        ["check", "a", "b", "c"],
        ["probe"],
        ["probe", "1", "2"],
        ["probe", "1", "--warning", "rtt"],
        ["show", "--timeout", "0"],
        ["show", "--port", "65536"],
    ],
)
def test_wrong_command_line_is_a_usage_error(lab, ctl, arguments):
    result = lab.run(*ctl.command(*arguments), check=False)
    assert result.returncode == 3
    assert result.stdout == ""
    assert "--help" in result.stderr


def test_help_and_version(ctl):
    assert ctl("--version").startswith("ip-sla-ctl ")
    assert "probe" in ctl("--help")
    for name in ("rtt", "latency", "jitter", "loss", "age"):
        assert re.search(rf"^  {name} ", ctl("probe", "--help"), re.M)


# -- watch and terminals ---------------------------------------------------------------------------------------------


class Terminal:
    """A program on a pseudo-terminal of a given size."""

    def __init__(self, ctl, *arguments, width=200, height=40, **environment):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", height, width, 0, 0))
        environment = {"TERM": "xterm", **environment}
        command = ctl.command(*arguments, **environment)
        self.process = ctl.lab.popen(*command, stdin=slave, stdout=slave, stderr=slave)
        os.close(slave)
        os.set_blocking(self.master, False)
        self.text = ""

    def read(self):
        try:
            while data := os.read(self.master, 65536):
                self.text += data.decode().replace("\r\n", "\n")
        except BlockingIOError:
            pass
        except OSError:  # the program ended and closed its side
            pass
        return self.text

    def wait_for(self, pattern):
        return wait_for(lambda: re.search(pattern, self.read(), re.S), f"{pattern!r} on the terminal")

    def wait_exit(self):
        wait_for(lambda: self.read() is not None and self.process.poll() is not None, "the program's end")
        self.read()
        os.close(self.master)
        return self.process.returncode


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


def test_narrow_terminal_gets_blocks(ctl, daemon):
    narrow = Terminal(ctl, "show", 1, 5, width=60, NO_COLOR="1")
    assert narrow.wait_exit() == 1
    assert _masked(narrow.text)[:4] == ["ID 1", "TYPE icmp-echo", "DESTINATION 127.0.0.1", "RESULT ok"]
    assert f"ERROR {NO_SOURCE}" in _masked(narrow.text)
    assert all(len(line) <= 60 for line in narrow.text.splitlines())


def test_watch_on_a_terminal_marks_changes_and_ends_on_ctrl_c(ctl, daemon):
    screen = Terminal(ctl, "watch", "--interval", "0.3")
    screen.wait_for(r"\x1b\[2J.*tasks 3, failing 1, every 0\.3 s; Ctrl-C ends.*ID.*icmp-echo")
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
    assert "(15 more lines)" in screen.text
    assert screen.text.count("\n") == 9


def test_watch_without_a_terminal_prints_lines_for_new_results(ctl, daemon):
    lines = ctl("watch", "--interval", "0.2", "--count", "12").splitlines()
    stamp = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d "
    first, second, third, *later = lines
    assert re.fullmatch(
        stamp + rf"task 1 icmp-echo dst=127\.0\.0\.1 result=ok rtt={NUMBER}ms loss=0% ok=\d+ failed=0", first
    )
    assert re.match(stamp + r"task 2 icmp-jitter vrf=blue dst=10\.1\.0\.2 result=ok rtt=", second)
    assert re.fullmatch(
        stamp + rf'task 5 icmp-echo dst=127\.0\.0\.1 result=FAIL ok=0 failed=\d+ error="{NO_SOURCE}"', third
    )
    assert later, "new results within two seconds"
    assert all(re.match(stamp + "task [125] ", line) for line in later)
    assert len(set(lines)) == len(lines)


def test_watch_json_is_a_document_per_refresh(ctl, daemon):
    lines = ctl("--json", "watch", "-n", "0.1", "--count", "3", 1).splitlines()
    assert len(lines) == 3
    for line in lines:
        schemas.check(json.loads(line), "statistics")


def test_watch_of_an_unknown_task_is_an_error(ctl, daemon):
    assert ctl("watch", 7, status=3, error="ip-sla-ctl: no task 7 is configured\n") == ""


def test_watch_in_a_pipe_ends_on_ctrl_c(ctl, daemon):
    process = ctl.lab.popen(*ctl.command("watch", "--interval", "60"), stdout=-1, stderr=-1, text=True)
    assert "task 1" in process.stdout.readline()
    process.send_signal(signal.SIGINT)
    assert process.wait(timeout=20 * SCALE) == 0


# -- bash completion -------------------------------------------------------------------------------------------------


def _complete(ctl, *words):
    """What bash offers for the last of the words."""
    script = f"""
        compopt() {{ :; }}
        source {os.path.dirname(__file__)}/../../tools/ctl/ip-sla-ctl.bash
        ip-sla-ctl() {{ {ctl.lab.build.program("ip-sla-ctl")} "$@"; }}
        COMP_WORDS=(ip-sla-ctl "$@")
        COMP_CWORD=$#
        _ip_sla_ctl
        printf '%s\\n' "${{COMPREPLY[@]}}"
    """
    result = ctl.lab.run("env", *(f"{k}={v}" for k, v in ctl.environment.items()), "bash", "-c", script, "bash", *words)
    return result.stdout.split()


def test_completion_offers_commands_options_and_task_ids(ctl, daemon):
    assert _complete(ctl, "") == ["show", "watch", "status", "reload", "check", "probe"]
    assert _complete(ctl, "s") == ["show", "status"]
    assert _complete(ctl, "reload", "") == ["tasks", "keychain"]
    assert _complete(ctl, "show", "--m") == ["--metrics"]
    assert _complete(ctl, "--timeout", "3", "probe", "") == ["1", "2", "5", "9"]
    assert _complete(ctl, "probe", "1", "--warning", "l") == ["latency=", "loss="]
