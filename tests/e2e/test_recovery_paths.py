"""The way to the responder, or the responder itself, goes and comes back: what is reported
meanwhile, and that the run after it is right, without a restart of the daemon.
"""

import pytest
from support.api_client import ApiClient
from support.responder import Fate, ScriptedResponder
from support.responder_program import ResponderProgram
from support.tasks import icmp_echo
from support.udp_tasks import udp_task
from support.waiting import allowance, wait_for

NEAR, FAR = "10.2.0.1", "10.2.0.2"
SILENT = "control phase failed: destination host is not responding"
REFUSED = "control phase failed: connection refused"
NO_SOURCE = "source address or interface not exist"
PACKETS = 5


def task(**changes):
    across = {
        "src": NEAR,
        "dst": FAR,
        "packets": PACKETS,
        "interval": 20,
        "timeout": allowance(250),
    }
    return udp_task(1, **{**across, "control": {"timeout": allowance(250)}, **changes})


@pytest.fixture
def across(lab):
    lab.add_peer("peer", f"{NEAR}/24", f"{FAR}/24")


def wait_for_run(daemon, ends_so, what):
    """A run of which this holds among those that end from now on."""
    seen = len(daemon.reports(1))
    return wait_for(
        lambda: next((run for run in daemon.reports(1)[seen:] if ends_so(run)), None), what
    )


def wait_for_error(daemon, error):
    wait_for_run(daemon, lambda run: run.error == error, f"a run with {error!r}")


def is_whole(run):
    return (
        (run.status, run.error, run.sd_packets, run.ds_packets)
        == ("successful", "", PACKETS, PACKETS)
        and (run.sd_loss, run.ds_loss, run.duplicate, run.late) == (0, 0, 0, 0)
        and (run.sd_out_of_sequence, run.ds_out_of_sequence) == (0, 0)
    )


def wait_for_whole_run(daemon):
    wait_for_run(daemon, is_whole, "a whole run")


def responder(lab):
    return ResponderProgram(lab, "--allow-open", "--port-range", "2001-2999", namespace="peer")


def test_responder_that_goes_and_comes_back(lab, start_daemon, across):
    first = responder(lab)
    daemon = start_daemon([task()])
    wait_for_whole_run(daemon)
    first.stop()
    wait_for_error(daemon, REFUSED)
    responder(lab)
    wait_for_whole_run(daemon)


@pytest.mark.parametrize(
    "namespace, interface, error",
    [(None, "peer-near", NO_SOURCE), ("peer", "peer-far", NO_SOURCE)],
    ids=["near end", "far end"],
)
def test_link_that_goes_down_and_comes_up(lab, start_daemon, across, namespace, interface, error):
    """With the far end down the near end has no carrier: it is not running either."""
    responder(lab)
    daemon = start_daemon([task()])
    wait_for_whole_run(daemon)
    lab.run("ip", "link", "set", interface, "down", namespace=namespace)
    wait_for_error(daemon, error)
    lab.run("ip", "link", "set", interface, "up", namespace=namespace)
    wait_for_whole_run(daemon)


def test_path_that_swallows_everything_for_a_while(lab, start_daemon, across):
    responder(lab)
    daemon = start_daemon([task()])
    wait_for_whole_run(daemon)
    lab.drop("udp dport 2000-2999", namespace="peer")
    wait_for_error(daemon, SILENT)
    lab.run("nft", "flush ruleset", namespace="peer")
    wait_for_whole_run(daemon)


def test_firewall_that_forgets_the_flows(lab, start_daemon, across):
    """Another zone of the connection tracking stands for it: no flow is known there. What the
    daemon sends makes its flows anew; a reply without one is dropped.
    """
    far = responder(lab)
    rules = (
        "add table ip wall",
        "add chain ip wall first { type filter hook prerouting priority -300; }",
        "add chain ip wall out { type filter hook output priority -300; }",
        "add chain ip wall in { type filter hook input priority 0; }",
        "add rule ip wall in iifname peer-near ct state established accept",
        "add rule ip wall in iifname peer-near counter drop",
    )

    def enter_zone(number):
        chains = ("flush chain ip wall first", "flush chain ip wall out")
        zone = [f"add rule ip wall {chain} ct zone set {number}" for chain in ("first", "out")]
        lab.run("nft", "; ".join([*chains, *zone]))

    lab.run("nft", "; ".join(rules))
    enter_zone(1)
    daemon = start_daemon([task()])
    wait_for_whole_run(daemon)
    # Between two runs, and then again and again in the middle of one.
    enter_zone(2)
    wait_for_whole_run(daemon)
    seen = len(daemon.reports(1))
    number = 3
    while len(daemon.reports(1)) < seen + 2:
        enter_zone(number)
        number += 1
    wait_for_whole_run(daemon)
    for run in daemon.reports(1):
        assert run.error in ("", SILENT, "timeout, no samples")
        assert run.duplicate in (None, 0)
    assert not far.ended()


BAD_PATHS = {
    "duplicates": (
        {number: Fate(copies=3) for number in range(1, PACKETS)},
        lambda run: run.ds_packets == PACKETS and run.duplicate == 2 * (PACKETS - 1),
    ),
    "reordering": (
        {2: Fate(after_back=3)},
        lambda run: run.ds_packets == PACKETS and run.ds_out_of_sequence > 0,
    ),
    "late": (
        # Behind the run's end: the reply is lost for it, and is none of the next run.
        {number: Fate(delay=0.8) for number in range(1, PACKETS + 1)},
        lambda run: run.error == "timeout, no samples",
    ),
    "lost": (
        {1: Fate(lost_out=True), 2: Fate(lost_back=True)},
        lambda run: run.ds_packets == PACKETS - 2 and (run.sd_loss, run.ds_loss) == (1, 1),
    ),
}


@pytest.mark.parametrize("path", list(BAD_PATHS))
def test_path_that_is_bad_for_two_runs(lab, start_daemon, across, path):
    fates, told = BAD_PATHS[path]
    far = ScriptedResponder(lab, address=FAR, namespace="peer")
    far.probes = lambda run: fates if run in (1, 2) else {}
    daemon = start_daemon([task()])
    reports = daemon.wait_for_reports(1, count=5)
    assert [is_whole(run) for run in reports[:5]] == [True, False, False, True, True]
    assert all(told(run) for run in reports[1:3]), reports[1:3]


def test_disk_that_is_full_and_freed(lab, start_daemon):
    """What was logged meanwhile is lost; the runs go on, and later lines are whole."""
    lab.run("mkdir", "-m", "755", "/var/log/ip-sla")
    lab.run("mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", "/var/log/ip-sla")
    daemon = start_daemon([icmp_echo(1)])
    client = ApiClient(lab)
    filling = lab.path("/var/log/ip-sla/filling")

    def runs():
        (statistics,) = client.statistics(1)
        assert statistics["failed-count"] == 0
        return statistics["successful-count"]

    def fill():
        try:
            with open(filling, "ab", buffering=0) as file:
                while file.write(b"x" * 4096):
                    pass
        except OSError:
            return True

    daemon.wait_for_reports(1)
    fill()
    size = lab.log_path(1).stat().st_size

    def is_stuck():
        fill()
        return runs() >= 4 and lab.log_path(1).stat().st_size - size < 4096

    wait_for(is_stuck, "runs that are not logged")
    filling.unlink()
    seen = len(daemon.reports(1))
    wait_for(lambda: len(daemon.reports(1)) >= seen + 2, "two more runs in the log")
    assert all(run.complete for run in daemon.reports(1)[-2:])
