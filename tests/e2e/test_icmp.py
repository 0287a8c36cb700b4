"""ICMP tests end to end: exact counts in the report of each run."""

import re
import struct

import pytest

from support.icmp_replier import ECHO_REPLY, TIMESTAMP_REPLY, Fate, IcmpReplier
from support.tasks import icmp_echo, icmp_jitter, task
from support.waiting import allowance, wait_for

KINDS = ["icmp-echo", "icmp-jitter"]
NEAR, FAR = "10.2.0.1", "10.2.0.2"


@pytest.fixture
def peer(lab):
    """A neighbour across a veth pair whose kernel answers."""
    lab.add_peer("peer", f"{NEAR}/24", f"{FAR}/24")


@pytest.fixture
def replier(lab, peer):
    """The same neighbour with a scripted replier in place of its kernel."""
    return IcmpReplier(lab, "peer-far", namespace="peer")


def assert_complete(report, packets):
    """A run in which every probe was answered once and in order."""
    assert (report.status, report.error) == ("successful", "")
    assert (report.sd_packets, report.ds_packets, report.rtt_count) == (packets, packets, packets)
    assert 0 < report.rtt[1] <= report.rtt[2]
    if report.type == "icmp-jitter":
        assert (report.sd_samples, report.ds_samples) == (packets, packets)
        assert (report.sd_loss, report.ds_loss, report.late, report.skipped, report.duplicate) == (
            0,
            0,
            0,
            0,
            0,
        )
        assert (report.sd_loss_pct, report.ds_loss_pct) == (0.0, 0.0)
        assert (report.sd_out_of_sequence, report.ds_out_of_sequence) == (0, 0)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("packets", [1, 10])
def test_loopback(start_daemon, kind, packets):
    daemon = start_daemon([task(1, kind, packets=packets)])
    for report in daemon.wait_for_reports(1, count=2)[:2]:
        assert_complete(report, packets)


def test_echo_report_in_the_file_is_shorter_than_in_the_system_log(start_daemon):
    daemon = start_daemon([icmp_echo(1)])
    (report, *_) = daemon.wait_for_reports(1)
    assert report.rtt[0] == 0  # an echo run's minimum starts at 0 and stays there
    assert report.latency_sd is None and report.sd_loss is None
    sections = [
        "Packets Values:",
        "RTT Values:",
        "Latency one-way time:",
        "Packet Loss Values:",
        "Out Of Sequence Values:",
    ]
    texts = wait_for(
        lambda: (lambda found: found if any(sections[-1] in text for text in found) else None)(
            [record.text for record in daemon.syslog()]
        ),
        "the whole report in the system log",
    )
    for section in sections:
        assert any(f"(): {section}" in text for text in texts), section


def test_first_jitter_report_has_twice_no_jitter(start_daemon):
    """The run's own jitter fields stay 0 and the aggregate of zeros is 0; latencies and RTT have
    their triples.
    """
    daemon = start_daemon([icmp_jitter(1)])
    (report, *_) = daemon.wait_for_reports(1)
    assert report.jitter_sd[0] == report.jitter_sd[1] == report.jitter_sd[3] == 0
    assert report.jitter_ds[0] == report.jitter_ds[1] == report.jitter_ds[3] == 0
    assert 0 <= report.rtt[0] <= report.rtt[1] <= report.rtt[2]
    assert 0 <= report.latency_sd[0] <= report.latency_sd[1] <= report.latency_sd[2]


@pytest.mark.parametrize("kind", KINDS)
def test_across_a_veth_pair(start_daemon, peer, kind):
    daemon = start_daemon([task(1, kind, src=NEAR, dst=FAR)])
    assert_complete(daemon.wait_for_reports(1)[0], 5)


@pytest.mark.parametrize("kind", KINDS)
def test_inside_a_vrf(lab, start_daemon, kind):
    lab.add_vrf("red", "10.1.0.1/24", "10.1.0.2/24")
    daemon = start_daemon([task(1, kind, vrf="red", src="10.1.0.1", dst="10.1.0.2"), icmp_echo(2)])
    for report in daemon.wait_for_reports(1, count=2)[:2]:
        assert_complete(report, 5)
    # A thread that had stayed in the VRF would have failed the test beside it.
    assert all(report.status == "successful" for report in daemon.wait_for_reports(2, count=2))


def test_source_interface_inside_a_vrf(lab, start_daemon):
    lab.add_vrf("red", "10.1.0.1/24", "10.1.0.2/24")
    by_name = {"src-address": None, "src-interface": "red-in"}
    daemon = start_daemon(
        [icmp_echo(1, vrf="red", dst="10.1.0.2", control=by_name, measurement=by_name)]
    )
    assert_complete(daemon.wait_for_reports(1)[0], 5)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("hook", ["input", "output"], ids=["way out", "way back"])
def test_loss_in_the_network_is_counted_exactly(lab, start_daemon, peer, kind, hook):
    # The sequence number by its offset: the named field exists in echo messages only.
    lab.drop("ip protocol icmp @th,48,16 { 2, 4, 7 }", hook=hook, namespace="peer")
    daemon = start_daemon([task(1, kind, src=NEAR, dst=FAR, packets=10)])
    for report in daemon.wait_for_reports(1, count=2)[:2]:
        assert (report.sd_packets, report.ds_packets, report.rtt_count) == (10, 7, 7)
        if kind == "icmp-jitter":
            # The replies cannot tell the directions apart: all loss counts as lost on the way out.
            assert (report.sd_loss, report.sd_loss_pct, report.ds_loss, report.ds_loss_pct) == (
                3,
                30.0,
                0,
                0.0,
            )
            assert (report.late, report.sd_out_of_sequence, report.ds_out_of_sequence) == (0, 0, 0)


@pytest.mark.parametrize("kind", KINDS)
def test_run_without_any_reply_fails(lab, start_daemon, peer, kind):
    lab.drop("ip protocol icmp", namespace="peer")
    daemon = start_daemon([task(1, kind, src=NEAR, dst=FAR)])
    for report in daemon.wait_for_reports(1, count=2)[:2]:
        assert (report.status, report.error) == ("fail", "timeout, no samples")
    # The next run still starts "time" seconds after this one did, give or take the turn of a
    # second.
    delays = [record for record in daemon.log_records(1) if "'NewStart'" in record][1:]
    assert set(delays) <= {"func 'NewStart' timeout 1000 ms", "func 'NewStart' timeout 0 ms"}


class TestScriptedReplies:
    """Foreign, repeated, late and strange replies."""

    def run_with(self, start_daemon, replier, kind, fates, packets=6, **options):
        replier.probes = lambda identifier: fates
        daemon = start_daemon(
            [task(1, kind, src=NEAR, dst=FAR, packets=packets, interval=20, **options)]
        )
        return daemon, daemon.wait_for_reports(1)[0]

    @pytest.mark.parametrize("kind", KINDS)
    def test_all_is_well(self, start_daemon, replier, kind):
        _, report = self.run_with(start_daemon, replier, kind, {})
        assert_complete(report, 6)

    @pytest.mark.parametrize("kind", KINDS)
    @pytest.mark.parametrize("lost", ["lost_out", "lost_back"])
    def test_every_pattern_of_loss(self, start_daemon, replier, kind, lost):
        _, report = self.run_with(
            start_daemon, replier, kind, {1: Fate(**{lost: True}), 6: Fate(**{lost: True})}
        )
        assert (report.sd_packets, report.ds_packets, report.rtt_count) == (6, 4, 4)

    @pytest.mark.parametrize("kind", KINDS)
    def test_duplicates_are_counted_for_jitter_only(self, start_daemon, replier, kind):
        fates = {1: Fate(copies=2), 3: Fate(copies=3)}
        _, report = self.run_with(start_daemon, replier, kind, fates)
        assert (report.sd_packets, report.ds_packets, report.rtt_count) == (6, 6, 6)
        assert report.duplicate == (3 if kind == "icmp-jitter" else None)

    @pytest.mark.parametrize("kind", KINDS)
    @pytest.mark.parametrize(
        "alter",
        [
            lambda reply: reply[:4] + bytes([reply[4] ^ 0x55]) + reply[5:],
            lambda reply: reply[:1] + b"\x01" + reply[2:],
            lambda reply: bytes([TIMESTAMP_REPLY if reply[0] == ECHO_REPLY else ECHO_REPLY])
            + reply[1:],
        ],
        ids=["identifier", "code", "type"],
    )
    def test_reply_of_someone_else_is_ignored(self, start_daemon, replier, kind, alter):
        _, report = self.run_with(
            start_daemon,
            replier,
            kind,
            {2: Fate(alter=lambda reply: bytearray(alter(bytes(reply))))},
        )
        assert (report.sd_packets, report.ds_packets, report.rtt_count) == (6, 5, 5)
        assert report.duplicate in (None, 0)

    @pytest.mark.parametrize("kind", KINDS)
    def test_sequence_number_beyond_the_count_falls_on_its_remainder(
        self, start_daemon, replier, kind
    ):
        def to_next_round(reply):
            struct.pack_into(">H", reply, 6, struct.unpack_from(">H", reply, 6)[0] + 6)
            return reply

        _, report = self.run_with(start_daemon, replier, kind, {2: Fate(alter=to_next_round)})
        assert_complete(report, 6)

    @pytest.mark.parametrize("kind", KINDS)
    def test_reply_after_the_run_is_lost(self, start_daemon, replier, kind):
        # The run ends 220 or 320 ms after its start, the next one begins after 2 s.
        fates = {3: Fate(delay=0.7)}
        timing = {"timeout": allowance(100), "time": 2}
        _, report = self.run_with(start_daemon, replier, kind, fates, **timing)
        assert (report.sd_packets, report.ds_packets, report.rtt_count) == (6, 5, 5)

    def test_exchanged_replies_are_out_of_sequence_but_all_there(self, start_daemon, replier):
        _, report = self.run_with(start_daemon, replier, "icmp-jitter", {2: Fate(after_back=3)})
        assert (report.sd_packets, report.ds_packets) == (6, 6)
        assert (report.sd_loss, report.duplicate) == (0, 0)

    @pytest.mark.parametrize("kind", KINDS)
    def test_probes_carry_ttl_and_dscp_and_may_be_fragmented(self, start_daemon, replier, kind):
        self.run_with(start_daemon, replier, kind, {}, measurement={"ttl": 17, "dscp": 46})
        assert set(replier.headers) == {(46 * 4, 17, 0)}

    def test_payload_is_as_long_as_configured(self, start_daemon, replier):
        self.run_with(start_daemon, replier, "icmp-echo", {}, measurement={"packet-size": 142})
        run = replier.runs[0]
        # The stored size is the configured one less 42; 20 bytes of it stand for the IP header.
        assert {len(data) for _, _, data in run.arrivals} == {142 - 42 - 20}
        assert [sequence for _, sequence, _ in run.arrivals] == [1, 2, 3, 4, 5, 6]

    def test_smallest_sizes_are_sent_without_harm(self, start_daemon, replier):
        """The smallest echo packet leaves no room for a whole ICMP header: the runs fail, the
        daemon goes on.
        """
        options = {"src": NEAR, "dst": FAR, "timeout": allowance(100)}
        daemon = start_daemon(
            [
                icmp_echo(1, measurement={"packet-size": 42}, **options),
                icmp_jitter(2, measurement={"packet-size": 54}, **options),
                icmp_echo(3, **options),
            ]
        )
        assert daemon.wait_for_reports(1)[0].error == "timeout, no samples"
        assert daemon.wait_for_reports(2)[0].error == "timeout, no samples"
        assert_complete(daemon.wait_for_reports(3, count=2)[1], 5)


class TestInterfaceWatcher:
    """Running tests follow the addresses and links of their source."""

    FAILED = "source address or interface not exist"

    def wait_for_error(self, daemon, number, error):
        seen = len(daemon.reports(number))
        wait_for(
            lambda: any(report.error == error for report in daemon.reports(number)[seen:]),
            f"a run of task {number} with {error!r}",
        )

    def test_address_removed_and_added_again(self, lab, start_daemon, peer):
        daemon = start_daemon([icmp_echo(1, src=NEAR, dst=FAR)])
        assert_complete(daemon.wait_for_reports(1)[0], 5)
        lab.run("ip", "address", "del", f"{NEAR}/24", "dev", "peer-near")
        self.wait_for_error(daemon, 1, self.FAILED)
        lab.run("ip", "address", "add", f"{NEAR}/24", "dev", "peer-near")
        self.wait_for_error(daemon, 1, "")
        assert_complete(daemon.reports(1)[-1], 5)

    def test_link_down_and_up(self, lab, start_daemon, peer):
        daemon = start_daemon([icmp_echo(1, src=NEAR, dst=FAR)])
        daemon.wait_for_reports(1)
        lab.run("ip", "link", "set", "peer-near", "down")
        self.wait_for_error(daemon, 1, self.FAILED)
        lab.run("ip", "link", "set", "peer-near", "up")
        self.wait_for_error(daemon, 1, "")

    def test_link_deleted(self, lab, start_daemon, peer):
        daemon = start_daemon([icmp_echo(1, src=NEAR, dst=FAR), icmp_echo(2)])
        daemon.wait_for_reports(1)
        lab.run("ip", "link", "del", "peer-near")
        self.wait_for_error(daemon, 1, self.FAILED)
        self.wait_for_error(daemon, 2, "")

    def test_source_that_never_existed_fails_every_run(self, start_daemon):
        daemon = start_daemon([icmp_echo(1, src="192.0.2.1")])
        for report in daemon.wait_for_reports(1, count=3):
            assert (report.status, report.error) == ("fail", self.FAILED)

    def test_address_that_comes_later_is_taken_up(self, lab, start_daemon, peer):
        daemon = start_daemon([icmp_echo(1, src="10.2.0.9", dst=FAR)])
        daemon.wait_for_reports(1)
        lab.run("ip", "address", "add", "10.2.0.9/24", "dev", "peer-near")
        self.wait_for_error(daemon, 1, "")

    def test_change_inside_a_vrf(self, lab, start_daemon):
        lab.add_vrf("red", "10.1.0.1/24", "10.1.0.2/24")
        daemon = start_daemon(
            [icmp_echo(1, vrf="red", src="10.1.0.1", dst="10.1.0.2"), icmp_echo(2)]
        )
        daemon.wait_for_reports(1)
        lab.run("ip", "address", "del", "10.1.0.1/24", "dev", "red-in", namespace="red")
        self.wait_for_error(daemon, 1, self.FAILED)
        lab.run("ip", "address", "add", "10.1.0.1/24", "dev", "red-in", namespace="red")
        self.wait_for_error(daemon, 1, "")

    def test_one_netlink_socket_per_vrf(self, lab, start_daemon):
        lab.add_vrf("red", "10.1.0.1/24", "10.1.0.2/24")
        options = {"vrf": "red", "src": "10.1.0.1", "dst": "10.1.0.2"}
        daemon = start_daemon(
            [icmp_echo(1), icmp_echo(2), icmp_echo(3, **options), icmp_echo(4, **options)]
        )
        table = re.compile(r"^\S+ +0 +(\d+) ", re.MULTILINE)  # protocol 0: routing
        own = [
            int(pid)
            for pid in table.findall(lab.run("cat", "/proc/net/netlink").stdout)
            if int(pid)
        ]
        red = [
            int(p)
            for p in table.findall(lab.run("cat", "/proc/net/netlink", namespace="red").stdout)
            if int(p)
        ]
        assert own == [daemon.pid] and red == [daemon.pid]


def test_unreachable_responder_address_fails_the_start_of_the_run(start_daemon):
    """No route to the destination: the socket cannot be connected, and the error is limited to one
    line per minute.
    """
    daemon = start_daemon([icmp_echo(1, dst="192.0.2.77")])
    reports = daemon.wait_for_reports(1, count=3)
    assert {report.error for report in reports} <= {"Start test failed", "timeout, no samples"}
    errors = [record for record in daemon.syslog() if record.severity == 3]
    assert len(errors) <= 1
    if reports[0].error == "Start test failed":
        assert re.fullmatch(
            r"%IP_SLA-E-ERROR: \(test 1\) connect: Network is unreachable", errors[0].text
        )
        assert (errors[0].flag, errors[0].module) == (0, 59)


def originate(value):
    """Replaces the originate time stamp of a reply."""

    def alter(reply):
        struct.pack_into(">I", reply, 8, value)
        return reply

    return alter


def test_a_jitter_reply_of_another_run_is_told_by_its_time(replier, start_daemon):
    """An address change starts a new run at once, and late replies of the old one carry the same
    identifier and sequence numbers: only the time that they return is the old one's.
    """
    replier.probes = lambda _: {1: Fate(alter=originate(1)), 2: Fate(alter=originate(0))}
    daemon = start_daemon([icmp_jitter(1, src=NEAR, dst=FAR, packets=3, timeout=allowance(200))])
    report = daemon.wait_for_reports(1)[0]
    assert (report.status, report.sd_packets, report.ds_packets) == ("successful", 3, 2)
