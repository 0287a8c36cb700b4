"""The system's own log service, through the library that stands in for the device's."""

import re
import socket

import pytest
from support.api_client import ApiClient
from support.tasks import icmp_echo
from support.waiting import wait_for


@pytest.fixture
def log_service(lab):
    """A /dev/log of the lab's own, which is read only when the test does so."""
    lab.run("mount", "-t", "tmpfs", "tmpfs", "/dev")
    service = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    service.bind(str(lab.path("/dev/log")))
    service.setblocking(False)
    lab.on_close(service.close)
    return service


def take_all(service):
    texts = []
    try:
        while True:
            texts.append(service.recv(65536).decode())
    except BlockingIOError:
        return texts


def test_service_that_does_not_read_stops_nothing(lab, log_service, start_daemon):
    daemon = start_daemon([icmp_echo(1)], env={"LD_PRELOAD": ""})
    before = len(daemon.wait_for_reports(1, count=2))
    assert ApiClient(lab).status(1) == [{"sla-id": 1, "status": True}]

    first = take_all(log_service)
    tag = rf"ip-sla-sender\[{daemon.pid}\]: "
    assert first and all(
        re.match(rf"<15>\w{{3}} [ \d]\d [\d:]{{8}} {tag}%IP_SLA-D-", text) for text in first
    )
    told = wait_for(lambda: take_all(log_service), "the messages after those that were lost")
    assert re.search(rf"^<12>.* {tag}[1-9]\d* messages lost$", told[0])
    assert re.match(rf"<15>.* {tag}%IP_SLA-D-DEBUG: ", told[1])
    daemon.wait_for_reports(1, count=before + 1)
