"""What the exporter's HTTP end does with requests, clients and bytes of every kind."""

import contextlib
import random
import socket
import time

import pytest

from support.exporter import Exporter
from support.fake_daemon import FakeDaemon, task
from support.waiting import SCALE, wait_for

MAX_CONNECTIONS = 64
MAX_HEADER = 8192


@pytest.fixture
def exporter(lab):
    """Without a daemon: it is about the other end."""
    return Exporter(lab)


def exchange(exporter, data, close=False):
    """All that comes back on a connection of its own until the exporter closes it."""
    with contextlib.closing(exporter.connect()) as sock:
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            sock.sendall(data)
            if close:
                sock.shutdown(socket.SHUT_WR)
        received = b""
        with contextlib.suppress(ConnectionResetError):
            while piece := sock.recv(65536):
                received += piece
        return received


def status_of(reply):
    return int(reply.split(b" ", 2)[1]) if reply else None


def test_answers_and_their_headers(exporter):
    assert exporter.request("/-/healthy").body == b"The exporter is healthy.\n"
    response = exporter.request("/")
    assert response.headers["Content-Type"] == "text/html; charset=utf-8"
    policy = response.headers["Content-Security-Policy"]
    assert "default-src 'none'" in policy and "frame-ancestors 'none'" in policy
    assert "http" not in policy and "*" not in policy and "unsafe" not in policy
    assert response.headers["X-Content-Type-Options"] == "nosniff"
    assert exporter.request("/metrics").headers["Cache-Control"] == "no-store"
    again = exporter.request("/", status=304, if_none_match=response.headers["ETag"])
    assert again.body == b""


def test_head_has_no_body(exporter):
    reply = exchange(exporter, b"HEAD /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
    head, _, body = reply.partition(b"\r\n\r\n")
    assert status_of(reply) == 200 and body == b""
    assert b"Content-Length: " in head


def test_requests_on_one_connection_are_answered_in_turn(exporter):
    one = b"GET /-/healthy HTTP/1.1\r\nHost: x\r\n\r\n"
    last = b"GET /nothing HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
    reply = exchange(exporter, one * 50 + last)
    assert reply.count(b"HTTP/1.1 200 OK\r\n") == 50
    assert reply.count(b"HTTP/1.1 404 Not Found\r\n") == 1


@pytest.mark.parametrize(
    "request_bytes, status",
    [
        (b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello", 405),
        (b"DELETE /api/tasks HTTP/1.1\r\nHost: x\r\n\r\n", 405),
        (b"GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello", 400),
        (b"GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", 400),
        (b"nonsense\r\n\r\n", 400),
        (b"GET / HTTP/9.9\r\n\r\n", 400),
        (b"GET / HTTP/1.1\r\nA: \x00\r\n\r\n", 400),
        (b"GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", 400),
        (b"GET /../../etc/passwd HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", 404),
        (b"GET http://elsewhere/ HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", 404),
        (b"GET /" + b"x" * MAX_HEADER + b" HTTP/1.1\r\n\r\n", 431),
        (b"GET / HTTP/1.1\r\n" + b"A: b\r\n" * MAX_HEADER + b"\r\n", 431),
        (b"GET / HTTP/1.0\r\n\r\n", 200),
    ],
)
def test_odd_requests(exporter, request_bytes, status):
    assert status_of(exchange(exporter, request_bytes)) == status


def test_an_endless_header_is_not_kept(exporter):
    before = exporter.metrics().value("process_resident_memory_bytes")
    reply = exchange(exporter, b"GET / HTTP/1.1\r\n" + b"A: " + b"b" * (16 << 20))
    assert status_of(reply) in (431, None), "the answer, unless the reset overtakes it"
    assert exporter.metrics().value("process_resident_memory_bytes") < before + (4 << 20)


def test_hostile_bytes_do_no_harm(exporter):
    chance = random.Random(20261121)
    good = b"GET /metrics HTTP/1.1\r\nHost: x\r\nAccept: */*\r\nConnection: close\r\n\r\n"
    for number in range(300):
        data = bytearray(good)
        if number % 3 == 0:
            data = bytearray(chance.randbytes(chance.randrange(1, 600)))
        else:
            for _ in range(chance.randrange(1, 8)):
                at = chance.randrange(len(data))
                if chance.random() < 0.5:
                    data[at] = chance.randrange(256)
                else:
                    del data[at : at + chance.randrange(1, 20)]
                    data += chance.randbytes(1)
        reply = exchange(exporter, bytes(data), close=True)
        assert reply == b"" or reply.startswith(b"HTTP/1."), bytes(data)
    assert exporter.request("/-/healthy").status == 200


def test_more_clients_than_places_do_not_shut_others_out(exporter):
    silent = [exporter.connect() for _ in range(3 * MAX_CONNECTIONS)]
    for sock in silent[::2]:
        sock.sendall(b"GET /metrics HTTP/1.1\r\n")
    for _ in range(5):
        assert exporter.request("/-/healthy").status == 200
    assert exporter.descriptors() < MAX_CONNECTIONS + 20
    for sock in silent:
        sock.close()
    wait_for(lambda: exporter.descriptors() < 20, "the descriptors to be given back")


def test_clients_that_do_not_read_do_not_hold_others_up(exporter):
    lazy = []
    for _ in range(20):
        sock = exporter.connect()
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
        sock.sendall(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n" * 100)
        lazy.append(sock)
    begin = time.monotonic()
    assert exporter.request("/-/healthy").status == 200
    assert time.monotonic() - begin < 10 * SCALE
    for sock in lazy:
        sock.close()


def unsent(lab):
    """Bytes that wait for their client, of each connection where there are any."""
    lines = lab.run("ss", "-Htn", "state", "established", "sport", "=", ":9815").stdout.splitlines()
    return sorted(size for size in (int(line.split()[1]) for line in lines) if size > 0)


def test_clients_that_do_not_read_do_not_take_every_place(lab):
    FakeDaemon(lab, [task(number) for number in range(300)])
    exporter = Exporter(lab)
    lazy = []
    for _ in range(MAX_CONNECTIONS + 6):
        sock = exporter.connect()
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
        sock.sendall(b"GET /api/tasks?max-age=60 HTTP/1.1\r\nHost: x\r\n\r\n" * 100)
        lazy.append(sock)
    seen = []

    def is_stuck():
        seen.append(unsent(lab))
        return len(seen[-1]) >= MAX_CONNECTIONS and seen[-10:] == [seen[-1]] * 10

    wait_for(is_stuck, "every answer to be more than its client takes")
    probe = b"GET /-/healthy HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
    wait_for(lambda: exchange(exporter, probe), "an answer for somebody else", 15)
    for _ in range(5):
        assert exporter.request("/-/healthy").status == 200
    for sock in lazy:
        sock.close()


def test_a_client_that_is_gone_before_its_answer(exporter):
    for _ in range(100):
        sock = exporter.connect()
        sock.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")
        sock.close()
    assert exporter.metrics().value("ipsla_up") == 0
