"""Random and mutated datagrams at every socket of the daemon and of the responder: both live, and
the next runs are right. IPSLA_HOSTILE_DATAGRAMS says how many come to each socket; under a
sanitizer it is 10,000 unless said otherwise.
"""

import os
import random
import socket
import struct
import time

import pytest
from support.api_client import STATISTICS, STATUS, ApiClient, Header
from support.responder_program import CONTROL_PORT, ResponderProgram
from support.tasks import icmp_echo
from support.udp_tasks import udp_task
from support.waiting import allowance, wait_for

PACKETS = 10
CONTROL_SOURCE, PROBES_SOURCE, PROBES_PORT = 3001, 3002, 2001
PER_SECOND = 5000


def how_many(build):
    usual = 10_000 if build.sanitizers else 1_000
    return int(os.environ.get("IPSLA_HOSTILE_DATAGRAMS", usual))


def control_message(status):
    message = bytearray(172)
    message[0], message[11] = 2, 172
    message[21], message[27], message[28] = 1, 60, 1  # no authentication
    message[81], message[87] = 2, 92
    for at in (96, 112, 128, 144):
        message[at : at + 4] = 127, 0, 0, 1
    struct.pack_into(">H", message, 2, status)
    message[88:91] = 2, 1, 2  # IPv4, for a responder, udp-jitter
    struct.pack_into(">4H", message, 160, CONTROL_SOURCE, 0, PROBES_SOURCE, PROBES_PORT)
    struct.pack_into(">I", message, 168, 3000)
    return bytes(message)


def api_request(command, text):
    length = 28 + len(text)
    return Header(command=command, length=length, block=length - 20).pack() + text


# A reply of udp-jitter: type, stamp at 12, number at 20, counter at 24.
PROBE = struct.pack(">H10xQII", 2, 123456, 1, 1) + bytes(52)
ECHO_REPLY = struct.pack(">BBHHH", 0, 0, 0, 7, 1) + bytes(56)


def netlink_message(kind, body):
    return struct.pack("=IHHII", 16 + len(body), kind, 0, 0, 0) + body


DELETE_LINK, DELETE_ADDRESS = 17, 21
LOOPBACK = struct.pack("=BBBBI HH4s", socket.AF_INET, 8, 0, 0, 1, 8, 2, bytes([127, 0, 0, 1]))
NETLINK = "netlink"

# Where the datagrams go, and what is mutated. To the netlink socket not even whole messages count:
# they are not the kernel's.
TARGETS = {
    NETLINK: (
        NETLINK,
        [
            netlink_message(DELETE_ADDRESS, LOOPBACK),
            netlink_message(DELETE_LINK, struct.pack("=BxHiII", 0, 0, 1, 0, 0)),
        ],
    ),
    "Sender API": (
        10101,
        [
            api_request(STATUS, b'{"tasks":[1,2]}\0'),
            api_request(STATISTICS, b'{"tasks":[{"sla-id":1,"metrics":["rtt-values"]}]}\0'),
            api_request(7, b""),
        ],
    ),
    "control phase": (CONTROL_SOURCE, [control_message(0), control_message(1)]),
    "probes": (PROBES_SOURCE, [PROBE]),
    "ICMP": (None, [ECHO_REPLY]),
    "responder's control port": (CONTROL_PORT, [control_message(0)]),
    "responder's probes": (PROBES_PORT, [PROBE]),
}


def mutations(wholes, count, chance):
    """Endless variety from few originals: noise, changed bytes, cut and grown copies."""
    for _ in range(count):
        data = bytearray(chance.choice(wholes))
        kind = chance.randrange(5)
        if kind == 0:
            data = bytearray(chance.randbytes(chance.randrange(1, 300)))
        elif kind == 1:
            data = data[: chance.randrange(len(data))]
        elif kind == 2:
            data += chance.randbytes(chance.randrange(1, 1200))
        for _ in range(chance.randrange(4) if kind > 1 else 0):
            data[chance.randrange(len(data))] = chance.randrange(256)
        yield bytes(data)


def send_all(lab, port, datagrams, daemon):
    target = ("127.0.0.1", port or 0)
    if port == NETLINK:
        target = (daemon.pid, 0)
        sock = lab.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
    elif port is None:
        sock = lab.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
    else:
        sock = lab.socket(socket.AF_INET, socket.SOCK_DGRAM)
    start = time.monotonic()
    for number, datagram in enumerate(datagrams):
        try:
            sock.sendto(datagram, target)
        except OSError:
            pass  # nobody listens between two runs; ICMP sends no datagram without a header
        ahead = start + number / PER_SECOND - time.monotonic()
        if ahead > 0.01:
            time.sleep(ahead)
    sock.close()


@pytest.mark.parametrize("target", list(TARGETS))
def test_next_runs_are_right(lab, start_daemon, target):
    responder = ResponderProgram(lab, "--allow-open", "--port-range", f"{PROBES_PORT}-2999")
    timing = {"packets": PACKETS, "interval": 60, "timeout": allowance(150)}
    ports = {
        "control": {"src-port": CONTROL_SOURCE, "timeout": allowance(300)},
        "measurement": {"src-port": PROBES_SOURCE, "dst-port": PROBES_PORT, "packet-size": 80},
    }
    daemon = start_daemon([icmp_echo(1, **timing), udp_task(2, **timing, **ports)])

    def wait_for_right_runs():
        seen = {number: len(daemon.reports(number)) for number in (1, 2)}
        for number in seen:
            wait_for(
                lambda: any(
                    (run.status, run.ds_packets) == ("successful", PACKETS)
                    for run in daemon.reports(number)[seen[number] :]
                ),
                f"a right run of task {number}",
            )

    wait_for_right_runs()
    port, wholes = TARGETS[target]
    chance = random.Random(target)
    datagrams = [*mutations(wholes, how_many(lab.build), chance), wholes[0]]
    send_all(lab, port, datagrams, daemon)
    wait_for_right_runs()

    def answer():
        try:
            return ApiClient(lab, deadline=0.5).status(1, 2)
        except TimeoutError:
            return None

    assert [task["status"] for task in wait_for(answer, "an answer")] == [True, True]
    assert not responder.ended(), responder.errors
