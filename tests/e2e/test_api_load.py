"""The Sender API under load: what a local user can send does not hold up the tests."""

import time

import pytest
from support.api_client import STATUS, ApiClient, Header
from support.tasks import icmp_echo
from support.waiting import SCALE, wait_for


def flood(client, seconds, command, body=b""):
    """Sends as fast as it goes, taking what comes back. Returns the number of replies."""
    request = Header(command=command).pack() + body
    client.socket.setblocking(False)
    replies, end = 0, time.monotonic() + seconds
    while time.monotonic() < end:
        for _ in range(100):
            try:
                client.send(request)
            except BlockingIOError:
                break
        try:
            while client.receive():
                replies += 1
        except BlockingIOError:
            pass
    return replies


def status_of_the_next(lab):
    """What a client is told that asks again while the kernel drops its requests."""

    def answer():
        try:
            (status,) = ApiClient(lab, deadline=0.5).status(1)
            return status
        except TimeoutError:
            return None

    return wait_for(answer, "an answer")


@pytest.mark.parametrize(
    "command, body", [(7, b""), (STATUS, b'{"tasks":[1]}')], ids=["cheap", "with JSON"]
)
def test_flood_leaves_the_runs_and_the_next_request_alone(lab, start_daemon, command, body):
    daemon = start_daemon([icmp_echo(1, packets=20, interval=20, timeout=400)])
    seconds = 2
    start = time.monotonic()
    replies = flood(ApiClient(lab), seconds, command, body)
    assert 0 < replies <= 5000 * (time.monotonic() - start + 1)
    start = time.monotonic()
    assert status_of_the_next(lab)["status"] is True
    assert time.monotonic() - start < 7 * SCALE
    daemon.wait_for_reports(1, 3)
    assert {(report.error, report.ds_packets) for report in daemon.reports(1)} == {("", 20)}
