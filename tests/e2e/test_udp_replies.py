"""Replies of UDP tests as they are matched: which count, which are duplicates, which are nothing.
"""

import struct
import time

import pytest

from support.api_client import ApiClient
from support.responder import Fate, ScriptedResponder
from support.udp_tasks import KINDS, udp_task
from support.waiting import SCALE


def only_sequence(offset, value):
    """An alteration that puts another sequence number at an offset of the reply."""

    def alter(reply):
        struct.pack_into(">I", reply, offset, value)
        return reply

    return alter


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("type_word", ["other", "high byte"])
def test_a_reply_of_another_type_is_nothing(lab, start_daemon, kind, type_word):
    def alter(reply):
        other = KINDS[kind] % 3 + 1 if type_word == "other" else KINDS[kind] | 0x100
        struct.pack_into(">H", reply, 0, other)
        return reply

    responder = ScriptedResponder(lab)
    responder.probes = lambda run: {2: Fate(alter=alter), 4: Fate(alter=alter, copies=3)}
    daemon = start_daemon([udp_task(1, kind, packets=5)])
    (report, *_) = daemon.wait_for_reports(1)
    assert (report.status, report.sd_packets, report.ds_packets) == ("successful", 5, 3)
    (entry,) = ApiClient(lab).statistics(1)
    assert entry["loss-values"]["duplicate"] == 0


def test_an_echo_reply_is_matched_by_its_bytes_20_to_23(lab, start_daemon):
    responder = ScriptedResponder(lab)
    # 3 answers as 1 whatever its bytes 2 and 3 say; 4 answers as 9, which is the same slot as 4.
    responder.probes = lambda run: {
        3: Fate(alter=only_sequence(20, 1)),
        4: Fate(alter=only_sequence(20, 9)),
    }
    daemon = start_daemon([udp_task(1, "udp-echo", packets=5)])
    (report, *_) = daemon.wait_for_reports(1)
    assert (report.sd_packets, report.ds_packets) == (5, 4)
    (entry,) = ApiClient(lab).statistics(1)
    assert entry["loss-values"]["duplicate"] == 1


@pytest.mark.parametrize("sequence", [9, 4 + 5 * 1000, 2**32 - 2])
def test_a_reply_falls_on_the_slot_of_its_sequence_number(lab, start_daemon, sequence):
    assert sequence % 5 == 4
    responder = ScriptedResponder(lab)
    responder.probes = lambda run: {4: Fate(alter=only_sequence(20, sequence))}
    daemon = start_daemon([udp_task(1, packets=5)])
    report = daemon.wait_for_reports(1)[0]
    assert (report.ds_packets, report.sd_loss, report.ds_loss, report.duplicate) == (5, 0, 0, 0)


def test_a_reply_to_a_probe_not_sent_yet_is_nothing(lab, start_daemon):
    responder = ScriptedResponder(lab)
    responder.probes = lambda run: {1: Fate(alter=only_sequence(20, 3))}
    daemon = start_daemon([udp_task(1, packets=3, interval=150, timeout=int(300 * SCALE), time=2)])
    report = daemon.wait_for_reports(1)[0]
    assert (report.ds_packets, report.duplicate) == (2, 0)
    assert (report.sd_loss, report.ds_loss) == (0, 1)


@pytest.mark.parametrize("kind", ["udp-echo", "udp-jitter"])
@pytest.mark.parametrize("interval", [20, 150], ids=["short pauses", "long pauses"])
def test_what_comes_during_the_control_phase_is_no_reply(lab, start_daemon, kind, interval):
    """Late replies of the run before, where the source port is a fixed one."""

    class Early(ScriptedResponder):
        def _on_request(self, data, source):
            (port,) = struct.unpack_from(">H", data, 164)
            for sequence in range(1, 100):
                early = bytearray(66)
                struct.pack_into(">HxxxxxxxxxxQII", early, 0, data[90], 1, sequence, 77)
                self._measurement_socket.sendto(early, (source[0], port))
            super()._on_request(data, source)

    Early(lab)
    daemon = start_daemon([udp_task(1, kind, packets=2, interval=interval)])
    reports = daemon.wait_for_reports(1, count=3)
    assert {(report.sd_packets, report.ds_packets) for report in reports} == {(2, 2)}
    (entry,) = ApiClient(lab).statistics(1)
    loss = entry["loss-values"]
    assert (loss["duplicate"], loss["sd-loss"], loss["ds-loss"]) == (0, 0, 0)


def test_a_second_reply_leaves_the_first_ones_times_in_place(lab, start_daemon):
    """Of the late copy nothing remains but its count, although its counter and its stamps are
    others.
    """
    late = 0.2 * SCALE

    class Repeating(ScriptedResponder):
        def _on_probe(self, data, source):
            super()._on_probe(data, source)
            (sequence,) = struct.unpack_from(">I", data, 20)
            if sequence == 1:
                copy = bytearray(data)
                struct.pack_into(">HxxxxxxxxxxQII", copy, 0, 2, 1, sequence, 77)
                self.later(late, lambda: self._measurement_socket.sendto(copy, source))

    responder = Repeating(lab)
    responder.probes = lambda run: {2: Fate(lost_back=True)}
    daemon = start_daemon([udp_task(1, packets=3, timeout=int(700 * SCALE), time=int(2 * SCALE))])
    report = daemon.wait_for_reports(1)[0]
    assert (report.ds_packets, report.duplicate, report.sd_loss, report.ds_loss) == (2, 1, 0, 1)
    assert report.rtt[2] < 1000 * late


def test_an_empty_reply_ends_the_receiving(lab, start_daemon):
    responder = ScriptedResponder(lab)
    responder.probes = lambda run: {3: Fate(alter=lambda reply: b"")}
    daemon = start_daemon([udp_task(1, packets=5, interval=20)])
    report = daemon.wait_for_reports(1)[0]
    assert (report.sd_packets, report.ds_packets) == (5, 2)


def test_a_short_reply_reads_the_rest_from_the_buffer(lab, start_daemon):
    """What did not come stands there from the reply before: here its sequence number, which makes a
    duplicate.
    """
    responder = ScriptedResponder(lab)
    responder.probes = lambda run: {2: Fate(alter=lambda reply: reply[:20])}
    daemon = start_daemon([udp_task(1, packets=3, interval=30)])
    report = daemon.wait_for_reports(1)[0]
    assert (report.ds_packets, report.duplicate) == (2, 1)


@pytest.mark.parametrize("kind", KINDS)
def test_the_last_reply_ends_the_run(lab, start_daemon, kind):
    ScriptedResponder(lab)
    start = time.monotonic()
    daemon = start_daemon([udp_task(1, kind, packets=5, timeout=100_000, time=600)])
    daemon.wait_for_reports(1)
    assert time.monotonic() - start < 60
