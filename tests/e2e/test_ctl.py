"""ip-sla-ctl against a daemon: what each command prints, exactly but for measured times, and its
exit status.
"""

import os
import re
import signal

import pytest
from support import schemas
from support.ctl import ECHO, FAILING, HEADER, JITTER, NO_SOURCE, Ctl, masked, start_usual_daemon
from support.tasks import icmp_echo
from support.waiting import wait_for


@pytest.fixture
def ctl(lab):
    return Ctl(lab)


@pytest.fixture
def daemon(lab, start_daemon):
    return start_usual_daemon(lab, start_daemon)


# -- show
# ------------------------------------------------------------------------------------------------------------


def test_show_is_a_table_of_all_results_and_tells_a_failing_test(ctl, daemon):
    assert masked(ctl("show", status=1)) == [HEADER, ECHO, JITTER, FAILING]


def test_show_columns_are_aligned(ctl, daemon):
    header, *rows = ctl("show", status=1).splitlines()
    for column in ("TYPE", "VRF", "DESTINATION", "RESULT", "ERROR"):
        at = header.index(column)
        assert all(row[at] != " " and row[at - 2 : at] == "  " for row in rows), column
    for column in ("RTT/ms", "JITTER-DS/ms", "LOSS/%", "OK", "FAILED"):
        end = header.index(f" {column} ") + 1 + len(column)
        assert all(row[end - 1] != " " and row[end : end + 2] == "  " for row in rows), column


def test_show_of_chosen_tasks(ctl, daemon):
    assert masked(ctl("show", 2, 1)) == [HEADER, ECHO, JITTER]
    assert masked(ctl("show", 9)) == [HEADER, "9 - - - not run - - - - - - - - - - - -"]


def test_show_all_includes_what_has_not_run(ctl, daemon):
    rows = masked(ctl("show", "--all", status=1))
    assert rows == [HEADER, ECHO, JITTER, FAILING, "9 - - - not run - - - - - - - - - - - -"]


def test_show_of_an_unknown_task_is_an_error(ctl, daemon):
    text = ctl("show", 1, 7, status=3, error="ip-sla-ctl: no task 7 is configured\n")
    assert masked(text) == [HEADER, ECHO]
    assert ctl("show", 7, status=3, error="ip-sla-ctl: no task 7 is configured\n") == ""


def test_show_metrics_has_every_value(ctl, daemon):
    lines = [
        re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", "TIME", line)
        for line in masked(ctl("show", "--metrics", 2, 9))
    ]
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


# -- status
# ----------------------------------------------------------------------------------------------------------


def test_status_names_every_configured_task(ctl, daemon):
    rows = masked(ctl("status", status=1))
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


# -- reload
# ----------------------------------------------------------------------------------------------------------


def test_reload_tasks_prints_what_was_applied(ctl, start_daemon):
    daemon = start_daemon([icmp_echo(number, time=60) for number in (1, 2, 3)])
    for number in (1, 2, 3):
        daemon.wait_for_reports(number)
    daemon.write_tasks(
        [
            icmp_echo(1, time=60),
            icmp_echo(3, time=60, packets=4),
            icmp_echo(4, time=60),
            icmp_echo(6),
        ]
    )
    assert ctl("reload", "tasks").splitlines() == [
        "tasks reloaded: 2 added, 1 removed, 1 changed, 1 unchanged, 0 skipped",
        "added:     4 6",
        "removed:   2",
        "changed:   3",
    ]
    assert ctl("reload", "tasks") == (
        "tasks reloaded: 0 added, 0 removed, 0 changed, 4 unchanged, 0 skipped\n"
    )
    assert ctl.json("reload", "tasks") == {
        "reloaded": "tasks",
        "added": [],
        "removed": [],
        "changed": [],
        "unchanged": [1, 3, 4, 6],
        "skipped": [],
    }


NOT_RELOADED = "ip-sla-ctl: not reloaded; with --force the daemon is told all the same\n"


def test_reload_of_a_file_with_faults_is_refused(ctl, lab, daemon):
    daemon.write_tasks([], "nonsense")
    path = daemon.tasks_path
    error = f"ip-sla-ctl: {path}:1:2: not valid JSON\n"
    assert ctl("reload", "tasks", status=1, error=error + NOT_RELOADED) == ""
    text = (
        "the daemon could not read the tasks file and goes on with the tasks it has; its log says "
        'why, and so does "ip-sla-ctl check"'
    )
    forced = {"status": 1, "error": f"{error}ip-sla-ctl: {text}\n"}
    assert ctl.json("reload", "tasks", "--force", **forced) == {"error": text}

    daemon.write_tasks([icmp_echo(1), icmp_echo(7, measurement={"ttl": 256})])
    result = lab.run(*ctl.command("reload", "tasks", path), check=False)
    assert (result.returncode, result.stdout) == (1, "")
    assert "task 2 (id 7): icmp-echo.ttl = 256: invalid ttl value" in result.stderr
    result = lab.run(*ctl.command("reload", "tasks", "--force"))
    assert result.stdout.splitlines()[-1] == "skipped:   task 2 (id 7): invalid ttl value"


def test_reload_tells_when_the_daemon_reads_another_file(ctl, daemon):
    error = f"ip-sla-ctl: the daemon reads {daemon.tasks_path}, not /etc/hostname\n"
    ctl("reload", "tasks", "/etc/hostname", status=1, error=error + NOT_RELOADED)


def test_reload_that_no_test_can_be_made_from_is_refused(ctl, lab, daemon):
    daemon.write_tasks([icmp_echo(1, scheduler={"Start-time": "soon"})])
    result = lab.run(*ctl.command("reload", "tasks"), check=False)
    assert result.returncode == 1 and "cannot be read as a time" in result.stderr
    assert daemon.is_running()
    result = lab.run(*ctl.command("reload", "tasks", "--force"), check=False)
    assert result.returncode == 2
    assert "the daemon ended: a test of the new tasks file could not be created" in result.stderr
    daemon.wait_exit()


def test_reload_asks_little(ctl, lab, start_daemon):
    """The log has room for the daemon's own words."""
    daemon = start_daemon([icmp_echo(number, time=60) for number in (1, 2, 3, 4)])
    for number in (1, 2, 3, 4):
        daemon.wait_for_reports(number)
    before = len(lab.log_text())
    ctl("reload", "tasks")
    grown = lab.log_text()[before:]
    dump = grown.index("SENDER_API_CSLD_PARSE_TASKS_CONFIG")
    after = grown.index("Recive commad", dump)
    assert len(grown) - (after - dump) < 5000


def test_reload_keychain(ctl, daemon):
    daemon.write_keychain({1: "a", 5: "b"})
    assert ctl("reload", "keychain") == "keychain reloaded: 2 keys: 1 5\n"
    assert ctl.json("reload", "keychain") == {"reloaded": "keychain", "keys": [1, 5], "skipped": []}


def test_keychain_that_loses_a_key_in_use_is_refused(ctl, start_daemon):
    authentication = {"mode": "keychain", "algorithm": "sha256", "key-id": 3}
    daemon = start_daemon([icmp_echo(1, authentication=authentication)], keychain={3: "a", 4: "b"})
    daemon.write_keychain({4: "b"})
    error = "ip-sla-ctl: task 1 uses key 3, which the keychain would not have\n"
    ctl("reload", "keychain", status=1, error=error + NOT_RELOADED)
    ctl("reload", "keychain", "--force", error=error)


def test_keychain_that_cannot_be_read_is_always_refused(ctl, daemon):
    daemon.write_keychain("nonsense")
    error = (
        f"ip-sla-ctl: {daemon.keychain_path}:1:2: not valid JSON\n"
        "ip-sla-ctl: not reloaded: the daemon would end\n"
    )
    ctl("reload", "keychain", status=1, error=error)
    ctl("reload", "keychain", "--force", status=1, error=error)
    assert daemon.is_running()


# -- probe
# -----------------------------------------------------------------------------------------------------------

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
    assert ctl("probe", 1, "-w", "rtt=0", "-c", "rtt=0", status=2).startswith(
        "CRITICAL - task 1 icmp-echo: rtt "
    )
    assert re.fullmatch(
        rf"CRITICAL - task 5 icmp-echo: {NO_SOURCE} \| age=\d+s;;;;\n", ctl("probe", 5, status=2)
    )
    assert ctl("probe", 9, status=3) == "UNKNOWN - task 9 has no result yet\n"
    assert ctl("probe", 7, status=3) == "UNKNOWN - no task 7 is configured\n"
    assert ctl.json("probe", 5, status=2)["state"] == "CRITICAL"


def test_probe_without_a_daemon_is_unknown(ctl, lab):
    assert ctl("probe", 1, status=3) == "UNKNOWN - no daemon answers on 127.0.0.1:10101\n"


# -- no daemon, wrong command lines
# ----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "arguments",
    [
        ["show"],
        ["show", "--all"],
        ["show", 1],
        ["watch"],
        ["status"],
        ["reload", "tasks"],
        ["reload", "keychain"],
    ],
)
def test_no_daemon(ctl, arguments):
    text = "no daemon answers on 127.0.0.1:10101"
    assert ctl(*arguments, status=2, error=f"ip-sla-ctl: {text}\n") == ""
    assert ctl.json(*arguments, status=2, error=f"ip-sla-ctl: {text}\n") == {"error": text}


def test_daemon_that_does_not_answer(ctl, daemon):
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        assert (
            ctl("show", "--timeout", "0.3", status=2, error="ip-sla-ctl: no reply within 300 ms\n")
            == ""
        )
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
