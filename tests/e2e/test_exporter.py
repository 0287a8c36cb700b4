"""ip-sla-exporter beside a running daemon: metrics, JSON, history, and what it does without one."""

import os
import signal

import pytest

from support.ctl import NO_SOURCE, Ctl
from support.exporter import RUN_ONCE, Exporter, start_each_type
from support.fake_daemon import FakeDaemon
from support.fake_daemon import task as result
from support.tasks import icmp_echo
from support.waiting import SCALE, wait_for

OPEN_METRICS = "application/openmetrics-text;version=1.0.0"
PERIOD = int(2 * SCALE)  # seconds, of a task that has to run several times


@pytest.fixture
def daemon(lab, start_daemon):
    """One task of each type, and one that fails; each has run once."""
    return start_each_type(lab, start_daemon)


def test_metrics_are_the_values_of_the_tasks(lab, daemon):
    exporter = Exporter(lab, "--tasks", daemon.tasks_path)
    metrics = exporter.metrics()
    tasks = {task["sla-id"]: task for task in Ctl(lab).json("show", status=1)["tasks"]}
    assert metrics.value("ipsla_up") == 1 and len(tasks) == 6

    def close(name, milliseconds, **labels):
        assert metrics.value(name, **labels) == pytest.approx(milliseconds / 1000, rel=1e-9, abs=0)

    for number, task in tasks.items():
        value = lambda name, **labels: metrics.value(name, task=number, **labels)
        assert value("ipsla_last_run_success") == (task["status"] == "successful")
        assert value("ipsla_last_run_timestamp_seconds") == task["finish-time"]
        assert value("ipsla_runs_total", result="successful") == task["successful-count"]
        assert value("ipsla_runs_total", result="failed") == task["failed-count"]
        assert value("ipsla_packets", outcome="sent") == task["sd-pkt-count"]
        assert value("ipsla_packets", outcome="received") == task["ds-pkt-count"]
        rtt, delay, jitter = (
            task[name] for name in ("rtt-values", "one-way-latency-values", "jitter-values")
        )
        for key, name in (("min", "min"), ("avg", "mean"), ("max", "max")):
            if rtt[key] is None:
                assert value(f"ipsla_rtt_{name}_seconds") is None
            else:
                close(f"ipsla_rtt_{name}_seconds", rtt[key], task=number)
            for way in ("sd", "ds"):
                series = f"ipsla_one_way_delay_{name}_seconds"
                if delay[f"{way}-{key}"] is None:
                    assert value(series, direction=way) is None
                else:
                    close(series, delay[f"{way}-{key}"], task=number, direction=way)
        for way in ("sd", "ds"):
            expected = jitter[f"{way}-sd"]
            if expected is None:
                assert value("ipsla_jitter_stddev_seconds", direction=way) is None
            else:
                close("ipsla_jitter_stddev_seconds", expected, task=number, direction=way)
    assert metrics.value(
        "ipsla_task_info",
        task=2,
        type="udp-jitter",
        vrf="",
        source="127.0.0.1",
        destination="127.0.0.1",
        dscp=0,
    )
    assert metrics.value("ipsla_task_period_seconds", task=2) == RUN_ONCE["time"]


COMMON = {
    "ipsla_task_info",
    "ipsla_last_run_success",
    "ipsla_last_run_timestamp_seconds",
    "ipsla_runs_total",
}
ROUND_TRIP = {
    "ipsla_rtt_mean_seconds",
    "ipsla_rtt_max_seconds",
    "ipsla_packet_loss_ratio",
    "ipsla_packets",
}
ONE_WAY = {f"ipsla_one_way_delay_{name}_seconds" for name in ("min", "mean", "max")} | {
    "ipsla_jitter_stddev_seconds",
    "ipsla_rtt_min_seconds",
}


def test_series_that_a_type_lacks_or_a_failed_run_has_not_are_left_out(lab, daemon):
    metrics = Exporter(lab).metrics()
    assert metrics.of_task(1) == metrics.of_task(4) == COMMON | ROUND_TRIP
    assert metrics.of_task(2) == metrics.of_task(5) == COMMON | ROUND_TRIP | ONE_WAY
    assert metrics.of_task(3) == COMMON | {"ipsla_packets"}
    assert metrics.of_task(6) == COMMON

    def loss(number, direction):
        return metrics.value("ipsla_packet_loss_ratio", task=number, direction=direction)

    assert [loss(2, way) for way in ("round_trip", "sd", "ds")] == [0, 0, 0]
    assert [loss(5, way) for way in ("round_trip", "sd", "ds")] == [0, None, None]
    assert "NaN" not in metrics.text and "Inf" not in metrics.text


def test_the_exporters_own_figures(lab, daemon):
    exporter = Exporter(lab)
    metrics = exporter.metrics(OPEN_METRICS)
    assert metrics.value("ipsla_build_info", version=Ctl(lab)("--version").split()[-1]) == 1
    assert metrics.value("ipsla_clock_synchronized") in (0, 1)
    synchronized = metrics.value("ipsla_clock_synchronized") == 1
    assert (metrics.value("ipsla_clock_error_seconds") is not None) == synchronized
    assert 0 < metrics.value("ipsla_scrape_duration_seconds") < 5
    assert metrics.value("ipsla_history_points") == 6
    assert metrics.value("ipsla_history_bytes") > 0
    assert metrics.value("process_resident_memory_bytes") > 1e6
    assert metrics.value("process_open_fds") <= metrics.value("process_max_fds")
    assert metrics.value("process_cpu_seconds_total") >= 0
    assert metrics.text.endswith("\n# EOF\n")


def test_history_has_a_point_for_each_run(lab, start_daemon):
    timing = {"time": PERIOD, "timeout": 700 * PERIOD}
    start_daemon([icmp_echo(4, **timing), icmp_echo(6, src="192.0.2.10", **timing)])
    exporter = Exporter(lab, "--interval", "0.5")

    def points():
        history = exporter.json("/api/history?task=4")
        return history if len(history["time"]) >= 3 else None

    history = wait_for(points, "three runs in the history")
    assert history["time"] == sorted(set(history["time"]))
    assert set(history) == {"sla-id", "time", "rtt-avg", "rtt-max", "loss-pct", "failures"}
    assert all(0 < value < 1000 for value in history["rtt-avg"])
    assert history["failures"] == []
    failed = exporter.json("/api/history?task=6")
    assert {failure["reason"] for failure in failed["failures"]} == {NO_SOURCE}
    assert [failure["time"] for failure in failed["failures"]] == failed["time"]
    last = history["time"][-1]
    newer = exporter.json(f"/api/history?task=4&since={last}")
    assert newer["time"][0] == last
    assert exporter.metrics().value("ipsla_history_missed_runs_total") == 0


def test_a_daemon_that_comes_and_goes(lab, start_daemon):
    exporter = Exporter(lab, "--timeout", "0.5")
    assert exporter.metrics().value("ipsla_up") == 0
    assert exporter.json("/api/tasks", status=503) == {
        "error": "no daemon answers on 127.0.0.1:10101"
    }
    daemon = start_daemon([icmp_echo(1)])
    daemon.wait_for_reports(1)
    wait_for(lambda: exporter.metrics().value("ipsla_up") == 1, "the daemon to be seen")
    os.kill(daemon.pid, signal.SIGSTOP)
    try:

        def is_down():
            metrics = exporter.metrics()
            return metrics if metrics.value("ipsla_up") == 0 else None

        metrics = wait_for(is_down, "the daemon's silence to be seen")
        assert metrics.of_task(1) == set()
        assert 0.4 < metrics.value("ipsla_scrape_duration_seconds") < 5
    finally:
        os.kill(daemon.pid, signal.SIGCONT)
    wait_for(lambda: exporter.metrics().value("ipsla_up") == 1, "the daemon to be seen again")


def test_a_daemon_that_is_back_is_seen_by_those_who_take_old_answers(lab):
    exporter = Exporter(lab, "--interval", "3600")
    target = "/api/tasks?max-age=3600"
    exporter.json(target, status=503)
    FakeDaemon(lab, [result(1)])

    def is_seen():
        try:
            return len(exporter.json(target)["tasks"]) == 1
        except AssertionError:
            return False

    wait_for(is_seen, "the daemon to be seen")


def test_command_lines(lab):
    program = lab.build.program("ip-sla-exporter")

    def run(*arguments):
        environment = [f"{k}={v}" for k, v in lab.build.environment().items() if v]
        command = ["env", "-i", *environment, *lab.build.launcher(), program, *arguments]
        result = lab.run(*command, check=False)
        return result.returncode, result.stdout, result.stderr

    status, out, err = run("--help")
    assert (status, err) == (0, "") and "--listen" in out
    status, out, err = run("--version")
    assert (status, err) == (0, "") and out.startswith("ip-sla-exporter ")
    for wrong in (
        ["--listen", "nonsense"],
        ["--listen", "127.0.0.1"],
        ["--listen", "::1:9815"],
        ["--timeout", "0"],
        ["--interval", "-1"],
        ["--history-memory", "x"],
        ["--port", "65536"],
        ["argument"],
        ["--nonsense"],
    ):
        status, out, err = run(*wrong)
        assert (status, out) == (3, "") and "--help" in err, wrong
    for wrong, fault in (
        (["--lisen", "x"], "unknown option '--lisen'; did you mean '--listen'?"),
        (["--interval", "1", "x"], "surplus argument 'x'"),
    ):
        advice = "Run with --help for more information."
        assert run(*wrong) == (3, "", f"ip-sla-exporter: {fault}\n{advice}\n")
    Exporter(lab)
    assert run() == (
        1,
        "",
        "ip-sla-exporter: cannot serve on 127.0.0.1:9815: Address already in use\n",
    )
