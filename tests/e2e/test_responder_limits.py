"""What one peer can take from the responder: sessions, ports, refusals, lines; and what it costs
others: nothing.
"""

import os
import signal
import time

import pytest

from support.responder_program import (
    BUSY,
    CONTROL_PORT,
    INTERNAL_ERROR,
    MEASUREMENT,
    ResponderProgram,
    Sender,
    statuses,
)
from support.waiting import wait_for

LONGEST = 0xFFFFFFFF


def flood(sender, count):
    """Requests for sessions of different senders from one socket; the statuses of the answers."""
    found = []
    base = bytearray(sender.request(duration=LONGEST))
    for number in range(count):
        base[164:168] = (1024 + number).to_bytes(2, "big") + (1024 + number).to_bytes(2, "big")
        if number % 2:
            base[166:168] = b"\0\0"
        sender.control.sendto(base, (sender.responder, CONTROL_PORT))
        if number % 50 == 49 or number == count - 1:
            found += drain(sender.control)
    return found


def drain(sock, patience=0.2):
    """The statuses of all answers, until none comes for a while."""
    sock.settimeout(patience)
    found = []
    try:
        while True:
            found.append(statuses(sock.recv(2048)))
    except TimeoutError:
        return found


def udp_ports(lab):
    """How many UDP sockets there are in the lab's own namespace."""
    return len(lab.run("cat", "/proc/net/udp").stdout.splitlines()) - 1


def test_one_source_gets_a_bounded_number_of_sessions_and_ports(lab):
    responder = ResponderProgram(lab, "--max-sessions-per-source", 40)
    other = Sender(lab, responder="127.0.0.1", address="127.0.0.2")
    sender = Sender(lab)
    before = udp_ports(lab)
    answers = flood(sender, 300)
    assert answers.count((0, 0, 0)) == 40
    assert udp_ports(lab) - before <= 40
    assert statuses(other.ask(other.request())) == (0, 0, 0)
    statistics = responder.statistics()
    assert statistics["sessions"]["open"] == 41
    assert statistics["refused for"]["no room for the source"] > 0
    # A sender that has its share may still begin its next run.
    sender = Sender(lab)
    assert statuses(sender.ask(sender.request())) == (1, 0, BUSY)
    assert statuses(other.ask(other.request())) == (0, 0, 0)


def test_without_options_one_source_holds_few_ports(lab):
    ResponderProgram(lab)
    before = udp_ports(lab)
    flood(Sender(lab), 400)
    assert udp_ports(lab) - before <= 100


def test_a_peer_that_answers_everything_is_soon_left_alone(lab):
    responder = ResponderProgram(lab)
    sock = Sender(lab).control
    sock.settimeout(0.5)
    sock.sendto(b"\x02\x00\x00\x00 no request", ("127.0.0.1", CONTROL_PORT))
    began, answers = time.monotonic(), 0
    try:
        # Two datagrams for each answer.
        while time.monotonic() < began + 2:
            answer = sock.recv(2048)
            answers += 1
            for _ in range(2):
                sock.sendto(answer[:2] + b"\x00\x00" + answer[4:], ("127.0.0.1", CONTROL_PORT))
    except TimeoutError:
        pass
    assert 0 < answers <= 200 + 50 * (time.monotonic() - began + 1)
    # Others get their reasons still.
    other = Sender(lab, address="127.0.0.3")
    assert statuses(other.ask(other.request(mode="password"))) == (1, 10, 0)
    statistics = responder.statistics()
    assert statistics["refused"]["invalid length"] >= answers
    assert statistics["refused"]["authentication: unsupported authentication mode"] == 1
    assert statistics["answers not sent"]["held back"] > 0


def test_lines_about_sessions_come_at_a_bounded_rate(lab):
    responder = ResponderProgram(lab, "--verbose", "--max-duration", 1)
    began = time.monotonic()
    flood(Sender(lab), 1500)
    left_out = responder.statistics()["lines"]["left out"]
    assert left_out > 0
    assert len(responder.lines("session ")) <= 500 + 50 * (time.monotonic() - began + 1)

    def told():
        sender = Sender(lab)
        sender.ask(sender.request())
        return [line for line in responder.output.splitlines() if line.endswith("left out")]

    assert wait_for(told, "word of the lines that were left out", interval=0.2)


def test_an_output_that_nobody_reads_stops_nothing(lab):
    reader, writer = os.pipe()
    program = lab.build.program("ip-sla-responder")
    process = lab.popen(program, "--control-port", CONTROL_PORT, "--verbose", stdout=writer)
    lab.on_close(lambda: os.close(reader))
    os.set_blocking(writer, False)
    assert b"listening on" in os.read(reader, 4096)
    with pytest.raises(BlockingIOError):
        while True:
            os.write(writer, b"x" * 4096)
    with pytest.raises(BlockingIOError):
        while True:
            os.write(writer, b"x")
    os.set_blocking(writer, True)
    sender = Sender(lab)
    for _ in range(20):
        assert statuses(sender.ask(sender.request())) == (0, 0, 0)
        assert sender.exchange(1) == 1
        sender.measurement.close()
        sender = Sender(lab)
    os.close(writer)
    text = b""
    while b"lines lost" not in text:
        text = os.read(reader, 1 << 20)
        sender.ask(sender.request())
    process.terminate()
    assert process.wait(timeout=20) == 0


def test_complaints_that_nobody_reads_stop_nothing(lab):
    """About a key that cannot be read again."""
    key = lab.directory / "key"
    key.write_text("a key\n")
    reader, writer = os.pipe()
    output = lab.directory / "output"
    with open(output, "wb") as out:
        process = lab.popen(
            *(lab.build.program("ip-sla-responder"), "--control-port", CONTROL_PORT),
            *("--allow-open", "--password-file", key),
            stdout=out,
            stderr=writer,
        )
    lab.on_close(lambda: os.close(reader))
    wait_for(lambda: "listening on" in output.read_text(), "the responder to listen")
    os.set_blocking(writer, False)
    for size in (4096, 1):
        with pytest.raises(BlockingIOError):
            while True:
                os.write(writer, b"x" * size)
    os.set_blocking(writer, True)
    os.close(writer)
    sender = Sender(lab)
    assert statuses(sender.ask(sender.request())) == (0, 0, 0)
    key.write_text("\n")
    process.send_signal(signal.SIGHUP)
    process.send_signal(signal.SIGUSR1)
    wait_for(lambda: "statistics: " in output.read_text(), "word behind the complaint")
    assert sender.exchange(1) == 1
    process.terminate()
    assert process.wait(timeout=20) == 0


@pytest.fixture
def failing(lab):
    """A responder whose system calls fail while the file says so: (responder, file)."""
    file = lab.directory / "failing-call"
    file.write_text("")
    library = lab.build.directory / "lib" / "recording" / "libfailing_call.so"
    if lab.build.sanitizers:
        pytest.skip("a sanitizer's runtime must come first")
    env = {"LD_PRELOAD": str(library), "IPSLA_FAILING_CALL": str(file)}
    return ResponderProgram(lab, env=env), file


@pytest.mark.parametrize("call", ["epoll_ctl", "bind", "socket"])
def test_a_failing_system_call_refuses_one_session_and_nothing_else(lab, failing, call):
    responder, file = failing
    running = Sender(lab)
    running.ask(running.request(port=50001))
    assert running.exchange(1) == 1
    file.write_text(call)
    for port in (50002, 50003, 0):
        refused = Sender(lab, responder="127.0.0.4")
        assert statuses(refused.ask(refused.request(port=port))) == (1, 0, INTERNAL_ERROR)
    assert running.exchange(2) == 2
    file.write_text("")
    sender = Sender(lab)
    assert statuses(sender.ask(sender.request(port=50002))) == (0, 0, 0)
    assert sender.exchange(1) == 1
    statistics = responder.statistics()
    assert statistics["sessions"]["open"] == 2
    assert statistics["refused"] == {"measurement: unknown internal error": 3}


def test_want_of_descriptors_refuses_sessions_and_nothing_else(lab):
    if lab.build.sanitizers:
        pytest.skip("a sanitizer looks at objects through a pipe")
    responder = ResponderProgram(lab)

    def limit(descriptors):
        lab.run("prlimit", "--pid", responder.pid, f"--nofile={descriptors}:")

    def ask(sender, port):
        return statuses(sender.ask(sender.request(port=port)))

    in_use = len(os.listdir(f"/proc/{responder.pid}/fd"))
    limit(in_use)
    # Not even the list of our own addresses can be read.
    assert ask(Sender(lab), 50001) == (1, 0, INTERNAL_ERROR)
    limit(1024)
    running = Sender(lab)
    assert ask(running, 50001) == (0, 0, 0)
    assert running.exchange(1) == 1
    limit(in_use + 1)
    assert ask(Sender(lab), 50002) == (1, 0, INTERNAL_ERROR)
    assert running.exchange(2) == 2
    limit(1024)
    assert ask(Sender(lab), 50002) == (0, 0, 0)


def test_want_of_memory_refuses_sessions_and_nothing_else(lab):
    if lab.build.sanitizers:
        pytest.skip("a sanitizer needs its address space")
    responder = ResponderProgram(lab)
    running = Sender(lab)
    running.ask(running.request())
    with open(f"/proc/{responder.pid}/statm") as statm:
        now = int(statm.read().split()[0]) * os.sysconf("SC_PAGE_SIZE")
    lab.run("prlimit", "--pid", responder.pid, f"--as={now}:unlimited")
    asker = Sender(lab, address="127.0.0.5")
    base = bytearray(asker.request())
    found = []
    for number in range(2000):
        base[164:166] = (2000 + number).to_bytes(2, "big")
        asker.control.sendto(base, ("127.0.0.1", CONTROL_PORT))
        found.append(statuses(asker.control.recv(2048))[2])
        if found[-1] != 0:
            break
    assert found[-1] == INTERNAL_ERROR
    assert running.exchange(1) == 1
    lab.run("prlimit", "--pid", responder.pid, "--as=unlimited:unlimited")
    sender = Sender(lab)
    assert statuses(sender.ask(sender.request())) == (0, 0, 0)
    assert running.exchange(2) == 2
