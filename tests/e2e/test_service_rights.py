"""The rights that the service's unit leaves the daemon: enough for all it does, and each needed."""

import os
import pathlib
import re

import pytest
from support.api_client import ApiClient
from support.lab import Build
from support.responder import ScriptedResponder
from support.tasks import icmp_echo, icmp_jitter
from support.udp_tasks import good_runs, udp_task
from support.waiting import wait_for

UNIT = pathlib.Path(__file__).resolve().parents[2] / "deploy/ip-sla-sender.service.in"
(_LINE,) = re.findall(r"^CapabilityBoundingSet=(.*)$", UNIT.read_text(), re.MULTILINE)
RIGHTS = {name.removeprefix("CAP_").lower() for name in _LINE.split()}


class ConfinedBuild(Build):
    """Starts programs with no more than the given rights, and no way to others."""

    def __init__(self, directory, rights):
        super().__init__(directory)
        self.rights = rights

    def launcher(self):
        rights = ",".join(["-all"] + [f"+{name}" for name in sorted(self.rights)])
        confine = ["setpriv", f"--bounding-set={rights}", "--inh-caps=-all", "--no-new-privs"]
        return super().launcher() + confine


def _low_ports(number):
    return udp_task(number, control={"src-port": 900}, measurement={"src-port": 901})


def test_everything_works_with_the_units_rights(lab, start_daemon):
    ScriptedResponder(lab)
    lab.add_vrf("blue")
    lab.build = ConfinedBuild(lab.build.directory, RIGHTS)
    on_interface = {"src-address": None, "src-interface": "lo"}
    daemon = start_daemon(
        [
            icmp_echo(1, src="10.1.0.1", dst="10.1.0.2", vrf="blue"),
            icmp_jitter(2, control=on_interface, measurement={**on_interface, "dscp": 46}),
            _low_ports(3),
        ]
    )
    for number in (1, 2, 3):
        good_runs(daemon, number)
    assert os.sched_getscheduler(daemon.pid) == os.SCHED_RR

    lab.add_vrf("later", vrf_address="10.3.0.1/24", peer_address="10.3.0.2/24")
    daemon.write_tasks([icmp_echo(4, src="10.3.0.1", dst="10.3.0.2", vrf="later")])
    ApiClient(lab).reload_tasks()
    good_runs(daemon, 4)


@pytest.mark.parametrize("missing", sorted(RIGHTS))
def test_each_right_is_needed(lab, start_daemon, missing):
    ScriptedResponder(lab)
    lab.add_vrf("blue")
    lab.build = ConfinedBuild(lab.build.directory, RIGHTS - {missing})
    in_vrf = icmp_echo(2, src="10.1.0.1", dst="10.1.0.2", vrf="blue")
    if missing in ("sys_admin", "sys_nice"):  # to enter a VRF; for real-time scheduling
        assert start_daemon([in_vrf], wait=False).wait_exit() != 0
        return
    failing = {"net_raw": icmp_echo(1), "net_bind_service": _low_ports(1)}[missing]
    daemon = start_daemon([failing])
    wait_for(lambda: "Start test failed" in [run.error for run in daemon.reports(1)], "its failure")
