"""What a crash leaves on the terminal, whichever thread it happens on."""

import signal

import pytest
from support.api_client import HEADER_SIZE, STATUS, ApiClient, Header
from support.tasks import icmp_echo


REPORT, REQUEST = "SLA task:", "Recive commad"


@pytest.mark.parametrize("message", [REPORT, REQUEST], ids=["worker thread", "API thread"])
def test_stack_that_is_used_up_leaves_a_trace(lab, start_daemon, message):
    overflow = lab.build.recorder.with_name("libstack_overflow.so")
    tasks = [icmp_echo(1)] if message == REPORT else []
    daemon = start_daemon(
        tasks, env={"LD_PRELOAD": str(overflow), "IPSLA_OVERFLOW_AT": message}, wait=False
    )
    if message == REQUEST:
        daemon.wait_ready()
        ApiClient(lab).send(Header(command=STATUS, length=HEADER_SIZE, block=8).pack())
    assert daemon.wait_exit() in (-signal.SIGSEGV, 128 + signal.SIGSEGV)
    assert "ended by signal 11 (SIGSEGV), back-trace:\n" in daemon.stderr
    assert "libstack_overflow.so" in daemon.stderr.split("back-trace:")[1]
