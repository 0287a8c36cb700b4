"""Stamps of departure that come late: a queue stands between the daemon and the wire."""

import os

from support.icmp_replier import IcmpReplier
from support.tasks import icmp_echo
from support.waiting import wait_for

NEAR, FAR = "10.2.0.1", "10.2.0.2"


def cpu_seconds(pid):
    """User and system time of a process, of all its threads."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return sum(int(field) for field in fields[11:13]) / os.sysconf("SC_CLK_TCK")


def test_a_probe_that_stands_in_a_queue_keeps_no_cpu_busy(lab, start_daemon):
    """The stamp of the last probe comes a second after it was sent, while its reply is waited for.
    A thread that left it in the socket would be told of it again at once, and so on without end.
    """
    lab.add_peer("peer", f"{NEAR}/24", f"{FAR}/24")
    replier = IcmpReplier(lab, "peer-far", namespace="peer")
    # A bucket of 1600 bytes, filled with 1000 bytes a second: the second probe waits 0.4 s and the
    # third one another second.
    lab.run(*"tc qdisc add dev peer-near root tbf rate 8kbit burst 1600 latency 10s".split())
    task = icmp_echo(1, src=NEAR, dst=FAR, packets=3, timeout=6000, time=60)
    task["icmp-echo"]["packet-size"] = 1000
    daemon = start_daemon([task])
    wait_for(lambda: replier.headers, "the first probe")
    before = cpu_seconds(daemon.pid)
    (report,) = daemon.wait_for_reports(1)
    assert (report.status, report.ds_packets) == ("successful", 3)
    assert cpu_seconds(daemon.pid) - before < 0.5  # of 1.4 s
