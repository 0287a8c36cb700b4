"""The exporter's metrics in a real Prometheus server, with the rules of deploy/."""

import json
import pathlib

import pytest

from support.ctl import Ctl
from support.exporter import Exporter, start_each_type
from support.prometheus import DEPLOY, Prometheus, promtool
from support.waiting import wait_for

pytestmark = pytest.mark.fleet

HERE = pathlib.Path(__file__).resolve().parent


@pytest.fixture
def daemon(lab, start_daemon):
    """One task of each type, and one that fails; each has run once."""
    return start_each_type(lab, start_daemon)


def test_configuration_and_rules_pass_promtool():
    assert "14 rules found" in promtool("check", "config", DEPLOY / "prometheus" / "prometheus.yml")
    assert "SUCCESS" in promtool("test", "rules", HERE / "prometheus" / "rules_test.yml")


def test_metrics_pass_promtool(lab, daemon):
    exporter = Exporter(lab, "--tasks", daemon.tasks_path)
    assert promtool("check", "metrics", input=exporter.metrics().text) == ""


def test_a_server_knows_the_values_of_the_tasks(lab, daemon):
    Exporter(lab, "--tasks", daemon.tasks_path)
    server = Prometheus(lab)
    wait_for(lambda: server.value("count(ipsla_last_run_success)") == 6, "the first scrape")
    document = Ctl(lab).json("show", "--tasks", daemon.tasks_path, status=1)
    assert len(document["tasks"]) == 6
    for shown in document["tasks"]:
        number = shown["sla-id"]

        def same(name, expected, factor, **labels):
            matchers = "".join(f',{key}="{value}"' for key, value in labels.items())
            found = server.value(f'{name}{{task="{number}"{matchers}}}')
            if expected is None:
                assert found is None, (number, name, labels)
            else:
                assert found == pytest.approx(expected / factor, rel=1e-9), (number, name, labels)

        same("ipsla_last_run_success", shown["status"] == "successful", 1)
        same("ipsla_last_run_timestamp_seconds", shown["finish-time"], 1)
        same("ipsla_runs_total", shown["successful-count"], 1, result="successful")
        same("ipsla_runs_total", shown["failed-count"], 1, result="failed")
        same("ipsla_task_period_seconds", shown["period-seconds"], 1)
        same("ipsla_packets", shown["sd-pkt-count"], 1, outcome="sent")
        same("ipsla_packets", shown["ds-pkt-count"], 1, outcome="received")
        same("ipsla_packets", shown["loss-values"]["skipped"], 1, outcome="skipped")
        same("ipsla_packet_loss_ratio", shown["loss-percent"], 100, direction="round_trip")
        for key, name in (("min", "min"), ("avg", "mean"), ("max", "max")):
            same(f"ipsla_rtt_{name}_seconds", shown["rtt-values"][key], 1000)
            for way in ("sd", "ds"):
                delay = shown["one-way-latency-values"][f"{way}-{key}"]
                same(f"ipsla_one_way_delay_{name}_seconds", delay, 1000, direction=way)
        for way in ("sd", "ds"):
            jitter = shown["jitter-values"][f"{way}-sd"]
            same("ipsla_jitter_stddev_seconds", jitter, 1000, direction=way)
    labels = dict(server.query('ipsla_task_info{task="2"}')[0][0])
    assert labels["type"] == "udp-jitter" and labels["destination"] == "127.0.0.1"
    # Of the rules, which are evaluated after the scrape.
    alerts = 'ALERTS{alertname="IpSlaTaskFailing"}'
    [(alert, _)] = wait_for(lambda: server.query(alerts), "an alert of the failing task")
    assert (alert["task"], alert["alertstate"]) == ("6", "pending")
    assert server.value("instance:ipsla_tasks_failing:count") == 1


def _panels():
    """Title and expressions of each panel, as for one task of all senders."""
    dashboard = json.loads((DEPLOY / "grafana" / "ip-sla.json").read_text())
    for panel in dashboard["panels"]:
        for target in panel.get("targets", []):
            expression = target["expr"].replace("$instance", ".*").replace("$task", "2")
            yield panel["title"], target, expression


def test_every_expression_of_the_dashboard_returns_data(lab, daemon):
    Exporter(lab, "--tasks", daemon.tasks_path)
    server = Prometheus(lab)
    for title, _, expression in _panels():
        wait_for(lambda: server.query(expression), f"data of the panel {title}: {expression}")


def test_lines_of_one_task_of_several_senders_are_told_apart():
    alike = [
        (title, target["legendFormat"])
        for title, target, expression in _panels()
        if 'task=~"2"' in expression and "{{instance}}" not in target["legendFormat"]
    ]
    assert alike == []


def test_a_sender_whose_exporter_is_gone_is_seen_in_the_dashboard(lab, daemon):
    exporter = Exporter(lab)
    server = Prometheus(lab)
    panels = {title: expression for title, _, expression in _panels()}

    def seen():
        return [server.value(panels[title]) for title in ("Senders", "Senders that do not answer")]

    wait_for(lambda: seen() == [1, 0], "the sender to be seen")
    exporter.stop()
    wait_for(lambda: seen() == [1, 1], "the sender's silence to be seen")
