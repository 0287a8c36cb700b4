"""What the running tests report while something under them is gone, and that the run after it is
right, without a restart of the daemon.
"""

from support.tasks import icmp_echo
from support.waiting import wait_for

NO_SOURCE = "source address or interface not exist"


def wait_for_run(daemon, number, error=""):
    """A run with this error (empty: a successful one) that ended after the call."""
    seen = len(daemon.reports(number))
    return wait_for(
        lambda: next(
            (report for report in daemon.reports(number)[seen:] if report.error == error), None
        ),
        f"a run of task {number} with {error!r}",
    )


def restarts(daemon, number):
    return daemon.log_records(number).count("func 'NewStart' timeout 0 ms")


def test_address_that_goes_in_one_vrf_stops_no_test_of_another(lab, start_daemon):
    """Every namespace has an interface 1 with 127.0.0.1."""
    lab.add_namespace("red")
    daemon = start_daemon([icmp_echo(1), icmp_echo(2, vrf="red")])
    for number in (1, 2):
        wait_for_run(daemon, number)
    lab.run("ip", "address", "del", "127.0.0.1/8", "dev", "lo", namespace="red")
    wait_for_run(daemon, 2, NO_SOURCE)
    wait_for_run(daemon, 1)
    assert {report.error for report in daemon.reports(1)} == {""}
    assert restarts(daemon, 1) == 1, "only the first start"
