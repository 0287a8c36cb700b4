"""Sockets of UDP tests: where they are opened and bound, what happens when that or a send fails."""

import errno
import os
import socket

import pytest

from support.api_client import ApiClient
from support.responder import Control, ScriptedResponder
from support.udp_tasks import KINDS, good_runs, udp_task
from support.waiting import wait_for

NEAR, FAR = "10.2.0.1", "10.2.0.2"


@pytest.mark.parametrize("kind", KINDS)
def test_inside_a_vrf(lab, start_daemon, kind):
    """The VRF's own sockets reach the peer across the pair; a test beside it stays outside."""
    lab.add_vrf("red", "10.1.0.1/24", "10.1.0.2/24")
    inside = ScriptedResponder(lab, address="10.1.0.2")
    outside = ScriptedResponder(lab)
    by_name = {"src-address": None, "src-interface": "red-in"}
    daemon = start_daemon(
        [
            udp_task(1, kind, vrf="red", src="10.1.0.1", dst="10.1.0.2"),
            udp_task(2, kind),
            udp_task(
                3, kind, vrf="red", dst="10.1.0.2", control=by_name, measurement=dict(by_name)
            ),
        ]
    )
    for number in (1, 2, 3):
        report = good_runs(daemon, number, count=2)[1]
        assert (report.sd_packets, report.ds_packets) == (5, 5)
    assert {source[0] for _, source in inside.requests} == {"10.1.0.1"}
    assert {source[0] for _, source in outside.requests} == {"127.0.0.1"}
    (entry,) = ApiClient(lab).statistics(3)
    assert (entry["vrf-instance"], entry["iface-name"], entry["src-address"]) == (
        "red",
        "red-in",
        "10.1.0.1",
    )


def test_a_vrf_that_is_gone_fails_the_start_and_no_other_test(lab, start_daemon):
    lab.add_vrf("red", "10.1.0.1/24", "10.1.0.2/24")
    ScriptedResponder(lab, address="10.1.0.2")
    ScriptedResponder(lab)
    daemon = start_daemon([udp_task(1, vrf="red", src="10.1.0.1", dst="10.1.0.2"), udp_task(2)])
    good_runs(daemon, 1)
    # The name goes; the namespace itself lives on with the daemon's routing socket and keeps its
    # addresses, until the daemon looks at the name: every few seconds, or when a run failed there.
    lab.run("umount", "/run/netns/red")
    lab.run("rm", "/run/netns/red")
    failed = wait_for(
        lambda: next((run.error for run in daemon.reports(1) if run.error), None), "a failed run"
    )
    if failed != "source address or interface not exist":
        assert failed == "Start test failed"
        # Between the two commands the name is that of a plain file.
        texts = {
            f"(test 1) SetNetworkNamespaceredfailed: {call}() failed: %m"
            for call in ("open", "syscall")
        }
        wait_for(lambda: texts & set(daemon.log_records(1)), "the reason")
    good_runs(daemon, 2, count=len(daemon.reports(2)) + 2)
    assert all(report.status == "successful" for report in daemon.reports(2))


def test_a_port_in_use_fails_the_start_until_it_is_free(lab, start_daemon):
    ScriptedResponder(lab)
    taken = lab.socket(socket.AF_INET, socket.SOCK_DGRAM, bind=("127.0.0.1", 4002))
    daemon = start_daemon([udp_task(1, measurement={"src-port": 4002})])
    reports = daemon.wait_for_reports(1, count=3)
    assert {report.error for report in reports[:3]} == {"Start test failed"}
    errors = [text for text in daemon.log_records(1) if text.startswith("(test 1) ")]
    assert len(errors) == 1, "one line a minute"
    assert errors[0].endswith("Address already in use")
    taken.close()
    good_runs(daemon, 1)


def test_a_control_source_without_address_fails_the_start_silently(lab, start_daemon):
    responder = ScriptedResponder(lab)
    nowhere = {"src-address": None, "src-interface": "absent0"}
    daemon = start_daemon(
        [
            udp_task(1, control=nowhere),
            udp_task(2, control=dict(nowhere), measurement=dict(nowhere)),
        ]
    )
    assert {report.error for report in daemon.wait_for_reports(1, count=2)} == {"Start test failed"}
    assert {report.error for report in daemon.wait_for_reports(2)} == {
        "source address or interface not exist"
    }
    assert not any(
        text.startswith("(test ") for number in (1, 2) for text in daemon.log_records(number)
    )
    assert responder.requests == []


def test_a_closed_measurement_port_is_a_time_out(lab, start_daemon):
    responder = ScriptedResponder(lab)
    responder.control = lambda number: Control(measurement_port=1998)
    daemon = start_daemon([udp_task(1)])
    reports = daemon.wait_for_reports(1, count=2)
    assert {report.error for report in reports} == {"timeout, no samples"}
    assert not any(text.startswith("(test 1) ") for text in daemon.log_records(1))


def test_sockets_of_finished_runs_are_closed(lab, start_daemon):
    ScriptedResponder(lab)
    tasks = [udp_task(number) for number in (1, 2)] + [udp_task(3, control={"dst-port": 1999})]
    daemon = start_daemon(tasks)

    def sockets():
        return sum(target.startswith("socket:") for target in daemon.descriptors().values())

    good_runs(daemon, 1, count=3)
    daemon.wait_for_reports(3, count=3)
    daemon.write_tasks([])
    assert ApiClient(lab).reload_tasks() == 0
    idle = wait_for(
        lambda: sockets() if sockets() <= 3 else None, "the sockets of the tests to be closed"
    )
    assert (
        idle <= 3
    )  # the Sender API's and at most the routing socket and the connection to the system log


def test_a_send_that_fails_ends_the_sending_and_not_the_run(lab, start_daemon):
    """The kernel refuses what a local rule drops; the run ends by its timer with what was answered
    before.
    """
    lab.add_peer("peer", f"{NEAR}/24", f"{FAR}/24")
    ScriptedResponder(lab, address=FAR, namespace="peer", measurement_port=2500)
    lab.drop("udp dport 2500 @ih,160,32 3", hook="output")
    daemon = start_daemon([udp_task(1, src=NEAR, dst=FAR, packets=5)])
    report = daemon.wait_for_reports(1)[0]
    assert (report.status, report.sd_packets, report.ds_packets) == ("successful", 2, 2)
    errors = [text for text in daemon.log_records(1) if text.startswith("(test 1) ")]
    assert errors == [f"(test 1) {os.strerror(errno.EPERM)}"]
