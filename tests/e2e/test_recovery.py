"""What the running tests report while something under them is gone, and that the run after it is
right, without a restart of the daemon.
"""

import json
import shutil

import pytest

from support.api_client import RELOAD_KEYCHAIN, RELOAD_TASKS, ApiClient, Header
from support.tasks import icmp_echo, udp_jitter
from support.waiting import wait_for

NO_SOURCE = "source address or interface not exist"
NEAR, FAR = "10.2.0.1", "10.2.0.2"
BY_NAME = {"src-address": None, "src-interface": "peer-near"}


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


@pytest.mark.parametrize(
    "change",
    [("address", "del", "127.0.0.1/8", "dev", "lo"), ("link", "set", "lo", "down")],
    ids=["address", "link"],
)
def test_what_goes_in_one_vrf_stops_no_test_of_another(lab, start_daemon, change):
    """Every namespace has an interface 1 with 127.0.0.1."""
    lab.add_namespace("red")
    # A run that ends in another second than it began in must not look like a start.
    daemon = start_daemon([icmp_echo(1, time=2), icmp_echo(2, vrf="red")])
    for number in (1, 2):
        wait_for_run(daemon, number)
    lab.run("ip", *change, namespace="red")
    wait_for_run(daemon, 2, NO_SOURCE)
    wait_for_run(daemon, 1)
    assert {report.error for report in daemon.reports(1)} == {""}
    assert restarts(daemon, 1) == 1, "only the first start"


@pytest.fixture
def peer(lab):
    """A neighbour across a veth pair, and a second interface beside it."""
    lab.add_peer("peer", f"{NEAR}/24", f"{FAR}/24")
    lab.run("ip", "link", "add", "other", "type", "veth", "peer", "name", "other-end")
    for interface in ("other", "other-end"):
        lab.run("ip", "link", "set", interface, "up")


@pytest.mark.parametrize("before_it_goes", [False, True], ids=["gone first", "there first"])
def test_address_that_moves_to_another_interface_is_followed(
    lab, start_daemon, peer, before_it_goes
):
    """A test of the host itself, so that the way does not depend on the interface."""
    daemon = start_daemon([icmp_echo(1, src=NEAR, dst=NEAR)])
    wait_for_run(daemon, 1)
    if before_it_goes:
        lab.run("ip", "address", "add", f"{NEAR}/32", "dev", "other")
    lab.run("ip", "address", "del", f"{NEAR}/24", "dev", "peer-near")
    if not before_it_goes:
        wait_for_run(daemon, 1, NO_SOURCE)
        lab.run("ip", "address", "add", f"{NEAR}/32", "dev", "other")
    wait_for_run(daemon, 1)
    # From now on the other interface is its own.
    lab.run("ip", "link", "set", "other", "down")
    wait_for_run(daemon, 1, NO_SOURCE)
    lab.run("ip", "link", "set", "other", "up")
    wait_for_run(daemon, 1)


def rename(lab, interface, name):
    """True when it stayed up meanwhile: Linux 6.1 and older rename only what is down."""
    if lab.run("ip", "link", "set", interface, "name", name, check=False).returncode == 0:
        return True
    lab.run("ip", "link", "set", interface, "down")
    lab.run("ip", "link", "set", interface, "name", name)
    lab.run("ip", "link", "set", name, "up")
    return False


@pytest.mark.parametrize(
    "end",
    [("address", "del", f"{NEAR}/32", "dev", "other"), ("link", "del", "other")],
    ids=["address", "link"],
)
def test_address_that_another_interface_had_for_a_while_is_not_gone(lab, start_daemon, peer, end):
    """Behind the other one there is no way to the far end."""
    daemon = start_daemon([icmp_echo(1, src=NEAR, dst=FAR)])
    wait_for_run(daemon, 1)
    lab.run("ip", "address", "add", f"{NEAR}/32", "dev", "other")
    lab.run("ip", *end)
    wait_for_run(daemon, 1)
    errors = {report.error for report in daemon.reports(1)}
    assert NO_SOURCE not in errors, errors


def test_address_with_a_label_is_on_the_interface_itself(lab, start_daemon, peer):
    labelled = "10.2.0.9"
    lab.run(*("ip", "address", "add", f"{labelled}/32", "dev", "peer-near", "label", "peer-near:1"))
    daemon = start_daemon([icmp_echo(1, src=labelled, dst=labelled)])
    wait_for_run(daemon, 1)
    assert {report.error for report in daemon.reports(1)} == {""}


def test_task_given_by_address_runs_on_when_its_interface_is_renamed(lab, start_daemon, peer):
    daemon = start_daemon([icmp_echo(1, src=NEAR, dst=FAR)])
    wait_for_run(daemon, 1)
    stayed_up = rename(lab, "peer-near", "renamed")
    wait_for_run(daemon, 1)
    errors = {report.error for report in daemon.reports(1)}
    assert errors == {""} if stayed_up else errors <= {"", NO_SOURCE}
    # It is concerned by the interface under its new name.
    lab.run("ip", "link", "set", "renamed", "down")
    wait_for_run(daemon, 1, NO_SOURCE)
    lab.run("ip", "link", "set", "renamed", "up")
    wait_for_run(daemon, 1)


def test_task_given_by_interface_waits_for_the_name(lab, start_daemon, peer):
    daemon = start_daemon([icmp_echo(1, dst=FAR, control=BY_NAME, measurement=BY_NAME)])
    wait_for_run(daemon, 1)
    rename(lab, "peer-near", "renamed")
    wait_for_run(daemon, 1, NO_SOURCE)
    rename(lab, "renamed", "peer-near")
    wait_for_run(daemon, 1)


def test_task_given_by_interface_takes_the_one_that_gets_the_name(lab, start_daemon, peer):
    """An interface that had its address before it had its name."""
    rename(lab, "peer-near", "renamed")
    daemon = start_daemon([icmp_echo(1, dst=FAR, control=BY_NAME, measurement=BY_NAME)])
    wait_for_run(daemon, 1, NO_SOURCE)
    rename(lab, "renamed", "peer-near")
    wait_for_run(daemon, 1)


class TestVrfMadeAgain:
    """The name of a VRF stands for another namespace than before."""

    ADDRESSES = ("10.1.0.1/24", "10.1.0.2/24")

    def start(self, lab, start_daemon):
        lab.add_vrf("red", *self.ADDRESSES)
        inside = {"vrf": "red", "dst": "10.1.0.2"}
        by_name = {"src-address": None, "src-interface": "red-in"}
        daemon = start_daemon(
            [
                icmp_echo(1),
                icmp_echo(2, src="10.1.0.1", **inside),
                icmp_echo(3, control=by_name, measurement=by_name, **inside),
            ]
        )
        for number in (1, 2, 3):
            wait_for_run(daemon, number)
        return daemon

    def assert_all_run(self, daemon):
        for number in (2, 3):
            wait_for_run(daemon, number)
        assert {report.error for report in daemon.reports(1)} == {""}

    def test_runs_go_on_without_a_reload(self, lab, start_daemon):
        daemon = self.start(lab, start_daemon)
        lab.run("ip", "netns", "del", "red")
        # The daemon lets go of the namespace, so that its links end and their names are free again.
        wait_for(
            lambda: "red-out" not in lab.run("ip", "-br", "link").stdout, "the end of the links"
        )
        for number in (2, 3):
            wait_for_run(daemon, number, NO_SOURCE)
        lab.add_vrf("red", *self.ADDRESSES)
        self.assert_all_run(daemon)

    def test_exchange_at_once_is_seen_too(self, lab, start_daemon):
        daemon = self.start(lab, start_daemon)
        lab.run("ip", "link", "del", "red-out")
        lab.run("ip", "netns", "del", "red")
        lab.add_vrf("red", *self.ADDRESSES)
        self.assert_all_run(daemon)


def test_thousand_address_events_in_a_second_end_in_the_right_state(lab, start_daemon, peer):
    """While a reload keeps the daemon from reading them."""
    resting = [icmp_echo(number, scheduler={"life-time": "-1"}) for number in range(100, 200)]
    daemon = start_daemon([icmp_echo(1, src=NEAR, dst=FAR), *resting])
    client = ApiClient(lab)
    wait_for_run(daemon, 1)
    client.send(Header(command=RELOAD_TASKS, length=28, block=8).pack())
    events = lab.directory / "events"
    addresses = [f"192.0.2.{number}/32 dev other" for number in range(250)]
    lines = [f"address del {NEAR}/24 dev peer-near"]
    lines += [
        f"address {verb} {text}" for _ in "12" for verb in ("add", "del") for text in addresses
    ]
    lines += [f"address add {NEAR}/24 dev peer-near"]
    events.write_text("\n".join(lines))
    lab.run("ip", "-batch", events)
    assert client.collect().result == 0
    wait_for_run(daemon, 1)
    lab.run("ip", "address", "del", f"{NEAR}/24", "dev", "peer-near")
    wait_for_run(daemon, 1, NO_SOURCE)


def test_removed_log_directory_stops_no_run(lab, start_daemon):
    daemon = start_daemon([icmp_echo(1)])
    client = ApiClient(lab)
    wait_for_run(daemon, 1)
    shutil.rmtree(lab.path("/var/log/ip-sla"))

    def runs():
        (statistics,) = client.statistics(1)
        assert statistics["failed-count"] == 0
        return statistics["successful-count"]

    before = runs()
    wait_for(lambda: runs() >= before + 2, "two more runs")
    # A test that is made now has its file again.
    daemon.write_tasks([icmp_echo(1), icmp_echo(2)])
    assert client.reload_tasks() == 0
    wait_for_run(daemon, 2)


class TestKeychain:
    """Keys change under a running daemon; the responder knows the second one."""

    AUTHENTICATION = {"mode": "keychain", "algorithm": "hmac-sha256", "key-id": 1}

    @pytest.fixture
    def task(self, lab):
        keys = lab.directory / "responder-keys.json"
        keys.write_text(
            json.dumps({"keychain-storage": [{"key-id": 1, "key-string": "the second"}]})
        )
        lab.popen(
            *lab.build.launcher(),
            lab.build.program("ip-sla-responder"),
            *("--bind", "127.0.0.1", "--control-port", 2000, "--keychain", keys),
            *("--port-range", "2001-2999"),
        )
        return udp_jitter(1, authentication=self.AUTHENTICATION)

    def wait_for_good_run(self, daemon):
        seen = len(daemon.reports(1))
        wait_for(
            lambda: any(report.status == "successful" for report in daemon.reports(1)[seen:]),
            "a good run",
        )

    def test_replaced_key_is_used_from_the_next_run_on(self, lab, start_daemon, task):
        daemon = start_daemon([task], keychain={1: "the first"})
        assert daemon.wait_for_reports(1)[0].status == "fail"
        daemon.write_keychain({1: "the second"})
        assert ApiClient(lab).reload_keychain() == 0
        self.wait_for_good_run(daemon)

    @pytest.mark.parametrize("state", ["half-written", "gone"])
    def test_unreadable_keychain_ends_the_daemon_and_the_next_one_is_well(
        self, lab, start_daemon, task, state
    ):
        daemon = start_daemon([task], keychain={1: "the second"})
        self.wait_for_good_run(daemon)
        whole = daemon.keychain_path.read_text()
        if state == "gone":
            daemon.keychain_path.unlink()
        else:
            daemon.keychain_path.write_text(whole[: len(whole) // 2])
        request = Header(command=RELOAD_KEYCHAIN, length=28, block=8)
        ApiClient(lab).send(request.pack())
        assert daemon.wait_exit() == 1
        assert daemon.log_records()[-1] == "ParseKeychainConfigs() failed"
        # What the unit does then, with the file in order again.
        second = start_daemon([task], keychain={1: "the second"})
        self.wait_for_good_run(second)
