"""Probes of UDP tests as they leave: their bytes, sizes, headers and ports."""

import socket
import struct

import pytest

from support.responder import Control, ScriptedResponder
from support.udp_tasks import HEADER_SIZES, KINDS, SIZES, good_runs, udp_task
from support.waiting import SCALE

NEAR, FAR = "10.2.0.1", "10.2.0.2"


@pytest.mark.parametrize("kind", KINDS)
def test_probes_byte_by_byte(lab, start_daemon, kind):
    size = SIZES[kind] + 40
    responder = ScriptedResponder(lab)
    other = udp_task(2, kind, packets=1)
    daemon = start_daemon([udp_task(1, kind, packets=5, measurement={"packet-size": size}), other])
    daemon.wait_for_reports(1, count=2)
    daemon.wait_for_reports(2)
    runs = [run for run in responder.runs if len(run.arrivals) == 5][:2]
    paddings = set()
    for run in runs:
        # Every run starts at 1 again; the last number falls on the first slot.
        assert [sequence for _, sequence, _ in run.arrivals] == [1, 2, 3, 4, 5]
        for number, (_, _, probe) in enumerate(run.arrivals, 1):
            header = bytearray(HEADER_SIZES[kind])
            struct.pack_into(">H", header, 0, KINDS[kind])
            if kind == "udp-echo":
                struct.pack_into(">H", header, 2, number)
            else:
                struct.pack_into(">I", header, 20, number)
            assert len(probe) == size - 42
            assert probe[: len(header)] == bytes(header)
            paddings.add(probe[len(header) :])
    assert len(paddings) == 1, "the padding is the same all the test's life"
    assert len(set(paddings.pop())) > 8, "and it is no constant"


@pytest.mark.parametrize("kind", KINDS)
def test_smallest_packet_sizes(lab, start_daemon, kind):
    """The headers alone go out. Of an echo reply only 4 bytes are read: every one looks like the
    last probe's.
    """
    smallest = {"udp-echo": 46, "udp-jitter": 70, "udp-jitter-ntp": 98}[kind]
    responder = ScriptedResponder(lab)
    daemon = start_daemon([udp_task(1, kind, packets=3, measurement={"packet-size": smallest})])
    (report, *_) = daemon.wait_for_reports(1)
    assert {len(probe) for _, _, probe in responder.runs[0].arrivals} == {smallest - 42}
    assert (report.sd_packets, report.ds_packets) == (3, 1 if kind == "udp-echo" else 3)


def test_large_probes_are_fragmented_and_not_refused(lab, start_daemon):
    lab.add_peer("peer", f"{NEAR}/24", f"{FAR}/24")
    responder = ScriptedResponder(lab, address=FAR, namespace="peer")
    daemon = start_daemon(
        [udp_task(1, src=NEAR, dst=FAR, packets=3, measurement={"packet-size": 9000})]
    )
    report = good_runs(daemon, 1)[0]
    assert (report.sd_packets, report.ds_packets) == (3, 3)
    assert {len(probe) for _, _, probe in responder.runs[0].arrivals} == {9000 - 42}


def test_a_size_cut_to_nothing_sends_empty_probes(lab, start_daemon):
    seen = lab.socket(socket.AF_INET, socket.SOCK_DGRAM, bind=("127.0.0.1", 0))
    responder = ScriptedResponder(lab)
    responder.control = lambda number: Control(measurement_port=seen.getsockname()[1])
    daemon = start_daemon([udp_task(1, packets=3, measurement={"packet-size": 65578})])
    daemon.wait_for_record("Error: timeout, no samples", task=1)
    seen.settimeout(20 * SCALE)
    assert seen.recv(100) == b""


def test_headers_of_probes_carry_ttl_and_dscp_and_may_be_fragmented(lab, start_daemon):
    lab.add_peer("peer", f"{NEAR}/24", f"{FAR}/24")
    raw = lab.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_UDP, namespace="peer")
    ScriptedResponder(lab, address=FAR, namespace="peer", measurement_port=2500)
    daemon = start_daemon(
        [udp_task(1, src=NEAR, dst=FAR, packets=3, measurement={"ttl": 9, "dscp": 46})]
    )
    good_runs(daemon, 1)
    raw.settimeout(20 * SCALE)
    probes = 0
    while probes < 3:
        packet = raw.recv(65535)
        header = (packet[0] & 15) * 4
        (port,) = struct.unpack_from(">H", packet, header + 2)
        (fragment,) = struct.unpack_from(">H", packet, 6)
        if port == 2500:
            probes += 1
            assert (packet[8], packet[1], fragment & 0x4000) == (9, 46 * 4, 0)
        else:
            assert packet[1] == 0, "the control phase is not marked"


def test_fixed_source_ports_in_every_run(lab, start_daemon):
    responder = ScriptedResponder(lab)
    daemon = start_daemon([udp_task(1, control={"src-port": 4001}, measurement={"src-port": 4002})])
    good_runs(daemon, 1, count=3)
    assert {source for _, source in responder.requests} == {("127.0.0.1", 4001)}
    assert set(responder._by_port) == {("127.0.0.1", 4002)}
    assert responder._strays == 0
