"""ip-sla-ctl against a daemon: what each command prints, exactly but for measured times, and its
exit status.
"""

import json
import os
import re
import signal
import time

import pytest
from support import schemas
from support.ctl import (
    ECHO,
    FAILING,
    HEADER,
    JITTER,
    NO_SOURCE,
    NOT_RUN,
    Ctl,
    masked,
    start_usual_daemon,
)
from support.api_client import ApiClient
from support.tasks import icmp_echo, udp_jitter_ntp
from support.udp_tasks import start_responder
from support.waiting import wait_for


@pytest.fixture
def ctl(lab):
    return Ctl(lab)


@pytest.fixture
def daemon(lab, start_daemon):
    return start_usual_daemon(lab, start_daemon)


# -- show
# --------------------------------------------------------------------------------------------------


def test_show_is_a_table_with_failing_tests_first_and_their_reasons(ctl, daemon):
    assert masked(ctl("show", status=1)) == [HEADER, *FAILING, ECHO, JITTER]


def test_show_columns_are_aligned(ctl, daemon):
    header, *lines = ctl("show", "--sort", "id", status=1).splitlines()
    rows = [line for line in lines if re.match(r" *\d ", line)]
    assert len(rows) == 3
    for column in ("TYPE", "VRF", "DEST", "RESULT"):
        at = header.index(column)
        assert all(row[at] != " " and row[at - 2 : at] == "  " for row in rows), column
    for column in ("RTT", "ONE-WAY sd/ds", "JITTER", "LOSS", "OK", "FAILED"):
        end = header.index(f"  {column}") + 2 + len(column)
        assert all(row[end - 1] != " " and row[end : end + 2] in ("  ", "") for row in rows), column


def test_show_sorts_and_selects(ctl, daemon):
    assert masked(ctl("show", "--sort", "id", status=1)) == [HEADER, ECHO, JITTER, *FAILING]
    assert masked(ctl("show", "--failing", status=1)) == [HEADER, *FAILING]
    assert ctl("show", "--failing", 1) == "no task is failing\n"


def test_show_of_chosen_tasks(ctl, daemon):
    assert masked(ctl("show", 2, 1)) == [HEADER, ECHO, JITTER]
    assert masked(ctl("show", 9)) == [HEADER, NOT_RUN]


def test_show_all_includes_what_has_not_run(ctl, daemon):
    rows = [HEADER, *FAILING, ECHO, JITTER, NOT_RUN]
    assert masked(ctl("show", "--all", status=1)) == rows
    assert masked(ctl("show", "--all", "--tasks", daemon.tasks_path, status=1)) == rows
    unnamed = "9 - - - not run - - - - - - - - -"
    daemon.tasks_path.rename(daemon.tasks_path.with_name("elsewhere.json"))
    note = (
        f"ip-sla-ctl: {daemon.tasks_path}: No such file or directory: tasks that have not run yet "
        "are left out (name the file with --tasks, or use --scan)\n"
    )
    assert masked(ctl("show", "--all", status=1, error=note)) == rows[:-1]
    assert masked(ctl("show", "--scan", status=1)) == [*rows[:-1], unnamed]


def test_tasks_file_that_was_named_must_be_readable(ctl, daemon):
    error = "ip-sla-ctl: /nonsense: No such file or directory\n"
    assert ctl("show", "--tasks", "/nonsense", status=3, error=error) == ""
    error = f"ip-sla-ctl: {daemon.keychain_path}: it is no tasks file\n"
    assert ctl("status", "--tasks", daemon.keychain_path, status=3, error=error) == ""


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
    clock = lines.pop(7)
    assert re.fullmatch(
        r"clock of this machine: (not synchronised|unknown|synchronised, estimated error \S+ ms)",
        clock,
    )
    assert lines == [
        "task 2 icmp-jitter 10.1.0.1 -> 10.1.0.2, VRF blue: ok",
        "ms min avg max deviation",
        "round trip N.NNN N.NNN N.NNN -",
        "one-way SD N.NNN N.NNN N.NNN -",
        "one-way DS N.NNN N.NNN N.NNN -",
        "jitter SD - - - N.NNN",
        "jitter DS - - - N.NNN",
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


def test_show_json_tells_measurements_from_zeros(ctl, daemon):
    document = ctl.json("show", status=1)
    schemas.check(document, "task-results")
    echo, jitter, failed = document["tasks"]
    assert [(task["sla-id"], task["status"]) for task in document["tasks"]] == [
        (1, "successful"),
        (2, "successful"),
        (5, "fail"),
    ]
    assert (jitter["type"], jitter["period-seconds"], jitter["loss-percent"]) == (
        "icmp-jitter",
        1,
        0,
    )
    assert abs(jitter["age-seconds"] - (document["time"] - jitter["finish-time"])) == 0
    assert jitter["rtt-values"]["min"] > 0 and echo["rtt-values"]["avg"] > 0
    assert echo["rtt-values"]["min"] is None and echo["loss-percent"] == 0
    assert set(echo["loss-values"].values()) == {None}
    assert [key for key, value in jitter["jitter-values"].items() if value is not None] == [
        "sd-sd",
        "ds-sd",
    ]
    assert failed["reason"] == NO_SOURCE and failed["sd-pkt-count"] is None
    assert set(failed["rtt-values"].values()) == {None}


def test_show_json_of_chosen_tasks(ctl, daemon):
    document = ctl.json("show", 1, 9, 7, status=3, error="ip-sla-ctl: no task 7 is configured\n")
    schemas.check(document, "task-results")
    assert [task["sla-id"] for task in document["tasks"]] == [1, 9]
    waiting = document["tasks"][1]
    assert (waiting["status"], waiting["type"], waiting["age-seconds"], waiting["stale"]) == (
        "not run",
        "icmp-echo",
        None,
        None,
    )
    assert document["unknown"] == [7]


def test_show_raw_is_the_daemons_own_text(ctl, daemon):
    text = ctl("show", "--raw", status=1)
    document = json.loads(text)
    schemas.check(document, "statistics")
    assert document["tasks"][0]["jitter-values"]["sd-min"] == 0, "its zeros are left as they are"
    error = "ip-sla-ctl: no task 7 is configured\n"
    chosen = json.loads(ctl("show", "--raw", 1, 7, status=3, error=error))
    schemas.check(chosen, "statistics")
    assert [task["sla-id"] for task in chosen["tasks"]] == [1]


def test_result_that_is_too_old_is_stale_and_fails_where_asked(ctl, start_daemon):
    tasks = [
        icmp_echo(1, time=60, scheduler={"life-time": "0"}),
        icmp_echo(2, time=60, scheduler={"life-time": "2"}),
        icmp_echo(3, time=60),
    ]
    daemon = start_daemon(tasks)
    daemon.wait_for_reports(2)
    daemon.wait_for_reports(3)
    document = wait_for(lambda: _with_stale(ctl.json("show"), 2), "task 2 to be at its life's end")
    fresh = document["tasks"][1]
    assert (fresh["sla-id"], fresh["stale"], fresh["stale-reason"]) == (3, False, None)
    assert document["tasks"][0]["stale-reason"] == "its life of 2 s has ended"
    assert "stale: its life of 2 s has ended" in ctl("show")
    failing = masked(ctl("show", "--max-age", "auto", "--failing", status=1))
    assert [row.split()[0] for row in failing] == ["ID", "2", "stale:"]
    assert ctl("show", "--max-age", "3600", 3) != ""
    ctl("show", "--max-age", "0", 3, status=1)


def _with_stale(document, number):
    marks = {task["sla-id"]: task["stale"] for task in document["tasks"]}
    return document if marks.get(number) else None


def test_show_remarks_that_ntp_results_mean_nothing(ctl, lab, start_daemon):
    start_responder(lab)
    start_daemon([udp_jitter_ntp(1)]).wait_for_reports(1)
    assert masked(ctl("show"))[1:] == [
        "1 udp-jitter-ntp - 127.0.0.1 ok AGE - - - - - - COUNT 0",
        "no usable replies",
        "hint: udp-jitter-ntp keeps no send times, so no reply of it can be used: take udp-jitter",
    ]
    task = ctl.json("show")["tasks"][0]
    assert (task["reason"], task["loss-percent"]) == ("no usable replies", None)
    line = ctl("probe", 1, "--warning", "rtt=5", status=3)
    assert re.fullmatch(
        r"UNKNOWN - task 1 udp-jitter-ntp: no usable replies \| age=\d+s;;;;\n", line
    )


def test_show_without_results(ctl, start_daemon):
    start_daemon([])
    assert ctl("show") == "no task has a result yet\n"
    assert ctl("show", "--all") == "no task is configured\n"
    assert "tasks: configured 0, scheduled 0, failing 0\n" in ctl("status")
    document = ctl.json("show")
    schemas.check(document, "task-results")
    assert document["tasks"] == []


def test_show_of_a_reply_in_many_fragments(ctl, start_daemon):
    daemon = start_daemon([icmp_echo(number, time=2, packets=1) for number in range(1, 101)])
    for number in (1, 50, 100):
        daemon.wait_for_reports(number)
    wait_for(lambda: len(ctl("show").splitlines()) == 101, "a row for each of 100 tasks")


# -- status
# --------------------------------------------------------------------------------------------------


def test_status_begins_with_the_daemon_and_names_every_task(ctl, daemon):
    lines = masked(ctl("status", status=1))
    version = ctl.lab.run(*ctl.command("-v", program="ip-sla-sender")).stdout.split()[4]
    moment = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \(\S+ ago\)"
    assert re.fullmatch(
        rf"daemon: version {re.escape(version)}, pid {daemon.pid}, since {moment}", lines[0]
    )
    assert lines[1:4] == [
        f"tasks file: {daemon.tasks_path}, last reload: none in the log",
        f"keychain file: {daemon.keychain_path}",
        "tasks: configured 4, scheduled 4, failing 1",
    ]
    assert [re.sub(r" \d+s$", " AGE", row) for row in lines[4:]] == [
        "",
        "ID TYPE SCHEDULED RESULT AGE",
        "1 icmp-echo yes ok AGE",
        "2 icmp-jitter yes ok AGE",
        "5 icmp-echo yes FAIL AGE",
        NO_SOURCE,
        "9 icmp-echo yes not run -",
    ]


def test_status_knows_the_last_reload(ctl, daemon):
    begin = int(time.time())
    api = ApiClient(ctl.lab)
    api.reload_tasks()
    status = ctl.json("status", status=1)["daemon"]
    assert begin <= status["last-reload"] <= time.time() and not status["last-reload-refused"]
    daemon.write_tasks([], "nonsense")
    api.reload_tasks()
    note = (
        f"ip-sla-ctl: {daemon.tasks_path}: it is no tasks file: tasks that have not run yet are "
        "left out (name the file with --tasks, or use --scan)\n"
    )
    status = ctl.json("status", status=1, error=note)["daemon"]
    assert status["configured"] is None
    assert status["last-reload-refused"] is True


def test_status_of_chosen_tasks(ctl, daemon):
    assert len(ctl("status", 1, 9).splitlines()) == 3 + 1 + 3
    document = ctl.json("status", 5, 9, 7, status=3, error="ip-sla-ctl: no task 7 is configured\n")
    about_daemon = document.pop("daemon")
    assert (about_daemon["pid"], about_daemon["pids"]) == (daemon.pid, [daemon.pid])
    assert about_daemon["configured"] is None, "not all were looked at"
    assert document == {
        "tasks": [
            {"sla-id": 5, "status": True, "result": "fail"},
            {"sla-id": 9, "status": True, "result": "not run"},
        ],
        "unknown": [7],
    }


def test_status_warns_of_a_second_daemon(ctl, start_daemon):
    first = start_daemon([icmp_echo(1)])
    first.wait_for_reports(1)
    second = start_daemon([icmp_echo(2)])
    pids = sorted([first.pid, second.pid])
    warning = f"warning: 2 daemons run here, pid {pids[0]} {pids[1]}: they share the logs, and only"
    assert warning in ctl("status")
    about_daemon = ctl.json("status")["daemon"]
    assert (about_daemon["pid"], about_daemon["pids"]) == (first.pid, pids), "the one with the port"


# -- reload
# --------------------------------------------------------------------------------------------------


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
    error = f"ip-sla-ctl: {path}:1:1: not valid JSON\n"
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


def _change_key(daemon, write_time):
    """Task 2 gets a new key, in both files, which are written at that time."""
    daemon.write_keychain({5: "a", 77: "b"})
    authentication = {"mode": "keychain", "algorithm": "sha256", "key-id": 77}
    daemon.write_tasks([icmp_echo(1), icmp_echo(2, authentication=authentication)])
    for path in (daemon.tasks_path, daemon.keychain_path):
        os.utime(path, (write_time, write_time))


def test_reload_tells_of_a_task_whose_new_key_is_not_loaded(ctl, start_daemon):
    authentication = {"mode": "keychain", "algorithm": "sha256", "key-id": 5}
    tasks = [icmp_echo(1), icmp_echo(2, authentication=authentication)]
    daemon = start_daemon(tasks, keychain={5: "a"})
    _change_key(daemon, 0)
    reason = (
        "not taken; the daemon may hold older keys: ip-sla-ctl reload keychain, then reload tasks "
        "again"
    )
    assert ctl("reload", "tasks", status=1).splitlines() == [
        "tasks reloaded: 0 added, 1 removed, 0 changed, 1 unchanged, 1 skipped",
        "removed:   2",
        f"skipped:   task 2 (id 2): {reason}",
    ]
    skipped = [{"number": 2, "id": 2, "reason": reason}]
    assert ctl.json("reload", "tasks", status=1)["skipped"] == skipped
    ctl("reload", "keychain")
    assert ctl("reload", "tasks").splitlines() == [
        "tasks reloaded: 1 added, 0 removed, 0 changed, 1 unchanged, 0 skipped",
        "added:     2",
    ]


def test_reload_warns_when_the_keychain_may_go_first(ctl, start_daemon):
    daemon = start_daemon([icmp_echo(1)], keychain={5: "a"})
    _change_key(daemon, time.time() + 100)
    ctl("reload", "keychain")
    warning = (
        f"ip-sla-ctl: warning: {daemon.keychain_path} changed since the daemon's start, and task 2 "
        'uses its keys: unless the daemon has read it since, "ip-sla-ctl reload keychain" goes '
        "first\n"
    )
    assert ctl("reload", "tasks", error=warning).splitlines()[1] == "added:     2"


def test_keychain_that_cannot_be_read_is_always_refused(ctl, daemon):
    daemon.write_keychain("nonsense")
    error = (
        f"ip-sla-ctl: {daemon.keychain_path}:1:1: not valid JSON\n"
        "ip-sla-ctl: not reloaded: the daemon would end\n"
    )
    ctl("reload", "keychain", status=1, error=error)
    ctl("reload", "keychain", "--force", status=1, error=error)
    assert daemon.is_running()


# -- probe
# --------------------------------------------------------------------------------------------------

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


@pytest.mark.parametrize(
    "arguments, fault",
    [
        (["foo"], "unknown command 'foo'; did you mean 'show'?"),
        (["--json", "wacth", "1"], "unknown command 'wacth'; did you mean 'watch'?"),
        (["reload", "task"], "unknown command 'task'; did you mean 'tasks'?"),
        (
            ["template", "udp-jiter", "--dst", "1.2.3.4"],
            "unknown command 'udp-jiter'; did you mean 'udp-jitter'?",
        ),
        (
            ["template", "--dst", "1.2.3.4", "udp-jiter"],
            "unknown command 'udp-jiter'; did you mean 'udp-jitter'?",
        ),
        (
            ["template", "--dst", "1.2.3.4", "udp-jitter"],
            "option '--dst' belongs behind 'udp-jitter'",
        ),
        (
            ["template", "udp-jitter", "--dts", "1.2.3.4"],
            "unknown option '--dts'; did you mean '--dst'?",
        ),
        (["show", "--alll"], "unknown option '--alll'; did you mean '--all'?"),
        (["probe", "1", "-w", "rtt"], '--warning: "rtt" has no number that is 0 or more'),
        (
            ["probe", "1", "--critical", "rtt=x"],
            '--critical: "rtt=x" has no number that is 0 or more',
        ),
        (["probe", "1", "2", "3"], "surplus arguments '2' '3'"),
        (["show", "--sort", "name"], None),
        (["show", "--max-age", "-1"], None),
        (["show", "--raw", "--all"], None),
    ],
)
def test_what_is_wrong_with_a_command_line_is_said(lab, ctl, arguments, fault):
    result = lab.run(*ctl.command(*arguments), check=False)
    assert (result.returncode, result.stdout) == (3, "")
    message, advice = result.stderr.splitlines()
    assert advice == "Run with --help for more information."
    assert fault is None or message == f"ip-sla-ctl: {fault}"


def test_help_and_version(ctl):
    assert ctl("--version").startswith("ip-sla-ctl ")
    assert "probe" in ctl("--help")
    for name in ("rtt", "latency", "jitter", "loss", "age"):
        assert re.search(rf"^  {name} ", ctl("probe", "--help"), re.M)
