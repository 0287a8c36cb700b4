"""docs/operations.md taken at its word: its commands, one after the other, on a machine that has
nothing of the project yet.
"""

import json
import re

import pytest
from installation import ROOT
from support.waiting import wait_for

PAGE = (ROOT / "docs/operations.md").read_text()
SECTION = PAGE.split("## From the packages to a dashboard\n")[1].split("\n## ")[0]
STEPS = {
    int(number): text
    for number, text in re.findall(r"^\*\*(\d)\. (.*?)(?=^\*\*\d\. |\Z)", SECTION, re.M | re.S)
}


def commands(step):
    """As they stand there, but for what a machine without another one and without a keyboard needs."""
    lines = [line.strip() for line in re.findall(r"^ {4}(.*)$", STEPS[step], re.M)]
    for line in lines:
        line = line.replace("HOST", "127.0.0.1")
        yield line + " --count 1" if line.endswith("ip-sla-ctl watch") else line


def test_every_step_is_found():
    assert sorted(STEPS) == [1, 2, 3, 4, 5, 6]
    assert [len(list(commands(step))) for step in (1, 2, 3)] == [2, 5, 6]


@pytest.fixture
def take(machine):
    """Runs the commands of a step in the directory where the packages lie; one that fails fails the
    test.
    """
    machine.run("sh", "-c", "cp /packages/*.deb /root")

    def steps(step):
        for line in commands(step):
            machine.run("sh", "-c", f"cd /root && {line}")

    return steps


def test_a_first_day(machine, take):
    take(1)
    take(2)
    take(3)

    def result():
        shown = machine.run("ip-sla-ctl", "show", "--json", check=False).stdout
        tasks = json.loads(shown)["tasks"]
        return tasks and tasks[0]["status"] != "not run" and tasks

    [task] = wait_for(result, "the first run", 60)
    assert (task["type"], task["status"], task["reason"]) == ("udp-jitter", "successful", None)
    assert (task["sd-pkt-count"], task["ds-pkt-count"]) == (1000, 1000)
    # What steps 5 and 6 point to.
    for name in ("prometheus/prometheus.yml", "prometheus/ip-sla-rules.yml", "grafana/ip-sla.json"):
        assert machine.path(f"/usr/share/ip-sla/{name}").is_file()
        assert name.split("/")[0] in STEPS[5] + STEPS[6]


def test_the_exporters_user_can_be_made_a_lasting_one(machine):
    """As the rule against other users needs it."""
    machine.run("sh", "-c", "dpkg --install /packages/*.deb")
    lines = re.findall(r"^ {4}((?:adduser|systemctl restart) .*ip-sla-exporter)$", PAGE, re.M)
    assert len(lines) == 2
    for line in lines:
        machine.run("sh", "-c", line)
    pid = machine.property("ip-sla-exporter", "MainPID")
    user = machine.run("stat", "-c", "%U", f"/proc/{pid}").stdout
    assert user == "ip-sla-exporter\n"
