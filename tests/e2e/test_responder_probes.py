"""What the responder's replies carry, what it counts, and what it says on its command line."""

import signal
import socket

import pytest

from support.responder_program import (
    CONTROL_PORT,
    ResponderProgram,
    Sender,
    read_statistics,
    statuses,
)
from support.waiting import wait_for

EXPEDITED, BEST_EFFORT = 46 << 2, 0


def type_of_service(sender):
    """Of the next reply."""
    _, ancillary, _, _ = sender.measurement.recvmsg(2048, 64)
    return {kind: data[0] for level, kind, data in ancillary if level == socket.IPPROTO_IP}[
        socket.IP_TOS
    ]


@pytest.mark.parametrize(
    "options, expected",
    [([], EXPEDITED), (["--dscp-reflect"], EXPEDITED), (["--no-dscp-reflect"], BEST_EFFORT)],
)
def test_replies_carry_the_dscp_of_their_probes(lab, options, expected):
    ResponderProgram(lab, *options)
    sender = Sender(lab)
    sender.measurement.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
    sender.ask(sender.request())
    # The two lower bits are the network's, not the probe's.
    sender.measurement.setsockopt(socket.IPPROTO_IP, socket.IP_TOS, EXPEDITED | 2)
    sender.probe(1)
    assert type_of_service(sender) == expected
    sender.measurement.setsockopt(socket.IPPROTO_IP, socket.IP_TOS, BEST_EFFORT)
    sender.probe(2)
    assert type_of_service(sender) == BEST_EFFORT


def test_statistics_on_a_signal_and_at_the_end(lab):
    responder = ResponderProgram(lab, "--max-sessions", 1)
    sender, stranger = Sender(lab), Sender(lab)
    sender.ask(sender.request())
    for sequence in (1, 2, 4, 3):
        sender.exchange(sequence)
    sender.probe(3)
    sender.reply()
    sender.probe(5, size=27)
    stranger.port = sender.port
    stranger.probe(1)
    sender.exchange(6)
    sender.control.sendto(b"x", ("127.0.0.1", CONTROL_PORT))
    refused = stranger.request()
    stranger.control.sendto(refused, ("127.0.0.1", CONTROL_PORT))
    assert statuses(stranger.control.recv(2048)) == (1, 0, 4)

    def check(statistics, open_sessions):
        assert statistics["sessions"]["open"] == open_sessions
        assert statistics["sessions"]["opened"] == 1
        probes = {"received": 6, "distinct": 5, "duplicates": 1, "out of order": 1, "replies": 6}
        assert statistics["probes"] == probes
        assert statistics["probes without reply"] == {
            "stray": 1,
            "wrong type or length": 1,
            "duplicates beyond the bound": 0,
            "not sent": 0,
            "dropped by the kernel": 0,
        }
        requests = {"received": 3, "refused": 1, "ignored": 1, "given up": 0}
        assert statistics["requests"] == requests
        assert statistics["refused"] == {"measurement: requested port is busy": 1}
        assert statistics["refused for"]["no room"] == 1

    check(responder.statistics(), 1)
    responder.stop()
    lines = responder.output.splitlines()
    end = lines.index("stopped, requests refused 1, requests ignored 1, stray probes 1")
    check(read_statistics(lines[end:]), 0)
    times = "statistics: microseconds from arrival to reply: median at most "
    assert [line for line in lines[end:] if line.startswith(times)]


def test_datagrams_that_the_kernel_dropped_are_counted(lab):
    responder = ResponderProgram(lab)
    sender = Sender(lab)
    sender.ask(sender.request())
    responder.process.send_signal(signal.SIGSTOP)
    try:
        for sequence in range(1, 60):
            for _ in range(200):
                sender.probe(sequence, size=1400)
    finally:
        responder.process.send_signal(signal.SIGCONT)

    def counted():
        sender.probe(60)
        return responder.statistics()["probes without reply"]["dropped by the kernel"] > 0

    wait_for(counted, "the kernel's drops to be counted")


def test_an_address_that_was_added_later_is_served(lab):
    ResponderProgram(lab)
    sender = Sender(lab, responder="10.9.9.9")
    first = Sender(lab)
    first.ask(first.request())
    request = bytearray(sender.request())
    sender.responder = "127.0.0.1"
    assert statuses(sender.ask(request)) == (1, 0, 8)
    lab.run("ip", "address", "add", "10.9.9.9/32", "dev", "lo")
    assert statuses(sender.ask(request)) == (0, 0, 0)
    lab.run("ip", "address", "del", "10.9.9.9/32", "dev", "lo")
    other = Sender(lab)
    other.responder = "10.9.9.9"
    request = other.request()
    other.responder = "127.0.0.1"
    assert statuses(other.ask(request)) == (1, 0, 8)


def policy_of(pid):
    """Scheduling policy and real-time priority of a process's main thread."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return int(fields[38]), int(fields[37])


def test_real_time_priority_where_permitted(lab):
    responder = ResponderProgram(lab, "--realtime", 7)
    assert policy_of(responder.pid) == (1, 7)  # SCHED_FIFO
    assert responder.errors == ""
    sender = Sender(lab)
    sender.ask(sender.request())
    assert sender.exchange(1) == 1


def test_without_the_permission_it_says_so_and_serves(lab):
    launcher = ["setpriv", "--bounding-set=-sys_nice", "--inh-caps=-sys_nice"]
    responder = ResponderProgram(
        lab, "--realtime", 7, launcher=["prlimit", "--rtprio=0:0", *launcher]
    )
    assert policy_of(responder.pid) == (0, 0)
    assert responder.errors == "ip-sla-responder: no real-time priority: Operation not permitted\n"
    sender = Sender(lab)
    assert statuses(sender.ask(sender.request())) == (0, 0, 0)


def test_version_and_wrong_usage(lab, build):
    program = build.program("ip-sla-responder")
    ours = lab.run(program, "-V").stdout
    assert ours == lab.run(program, "--version").stdout
    client = lab.run(build.program("ip-sla-ctl"), "-V").stdout
    assert ours.split() == ["ip-sla-responder", client.split()[1]]
    for arguments, complaint in [
        (["now", "please"], "surplus argument 'now'\nip-sla-responder: surplus argument 'please'"),
        (["--keychian", "x"], "unknown option '--keychian'; did you mean '--keychain'?"),
        (["--port_range=1-2"], "unknown option '--port_range'; did you mean '--port-range'?"),
        (["--frobnicate"], "unknown option '--frobnicate'\n"),
        (["-x"], "unknown option '-x'\n"),
    ]:
        result = lab.run(program, *arguments, check=False)
        assert result.returncode == 2
        assert result.stderr.startswith(f"ip-sla-responder: {complaint}"), result.stderr


@pytest.mark.parametrize(
    "ports", ["2010-2001", "0-10", "65000-65536", "2001", "2001-", "2001-2010-", "a-b", "1--5", ""]
)
def test_a_wrong_port_range_is_wrong_usage(lab, build, ports):
    program = [*build.launcher(), build.program("ip-sla-responder")]
    result = lab.run(*program, "--port-range", ports, check=False, timeout=20)
    assert (result.returncode, result.stdout) == (2, "")
    assert "a port range is LOW-HIGH with 1 <= LOW <= HIGH <= 65535" in result.stderr


def test_serves_in_the_network_namespace_that_it_is_given(lab):
    lab.add_peer("peer", "10.2.0.1/24", "10.2.0.2/24")
    responder = ResponderProgram(lab, "--netns", "peer")
    sender = Sender(lab, responder="10.2.0.2", address="10.2.0.1")
    assert statuses(sender.ask(sender.request())) == (0, 0, 0)
    assert [sender.exchange(sequence) for sequence in (1, 2, 3)] == [1, 2, 3]
    assert responder.statistics()["probes"]["replies"] == 3
    own, peers = (lab.run("cat", "/proc/net/udp", namespace=name).stdout for name in (None, "peer"))
    port = f":{CONTROL_PORT:04X} "
    assert port in peers and port not in own, "nothing of it is in the namespace it came from"


def test_a_network_namespace_that_cannot_be_entered_is_said(lab):
    lab.add_namespace("red")
    without_right = ["setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"]
    for name, launcher, reason in (
        ("nowhere", [], "No such file or directory"),
        ("red", without_right, "Operation not permitted"),
    ):
        responder = ResponderProgram(lab, "--netns", name, launcher=launcher, wait=False)
        wait_for(responder.ended, "the responder to give up")
        assert responder.process.returncode == 1
        assert responder.errors == (
            f"ip-sla-responder: cannot enter the network namespace {name}: {reason}\n"
        )


def test_an_empty_network_namespace_is_not_the_own_one(lab, build):
    program = [*build.launcher(), build.program("ip-sla-responder")]
    result = lab.run(*program, "--netns", "", check=False, timeout=20)
    assert (result.returncode, result.stdout) == (2, "")
    assert "--netns: a network namespace has a name" in result.stderr


@pytest.mark.parametrize(
    "content, complaint",
    [
        ("", "is empty: no key"),
        ("\nabc\n", "is empty: no key"),
        ("\r\nabc\r\n", "is empty: no key"),
        ("0x\n", "is empty"),
        (None, "No such file or directory"),
    ],
)
def test_an_empty_key_is_an_error(lab, content, complaint):
    file = lab.directory / "key"
    if content is not None:
        file.write_text(content, newline="")
    responder = ResponderProgram(lab, "--password-file", file, wait=False)
    wait_for(responder.ended, "the responder to give up")
    assert responder.process.returncode == 1
    assert complaint in responder.errors and str(file) in responder.errors


@pytest.mark.parametrize(
    "options",
    [["--password", ""], ["--password", "0x"], ["--password-file", ""], ["--keychain", ""]],
)
def test_an_empty_option_is_not_a_responder_without_keys(lab, options):
    responder = ResponderProgram(lab, *options, wait=False)
    wait_for(responder.ended, "the responder to give up")
    assert responder.process.returncode == 1


def test_key_files_of_other_systems(lab):
    file = lab.directory / "key"
    file.write_text("a key\r\nnot the key\r\n", newline="")
    responder = ResponderProgram(lab, "--password-file", file)
    assert responder.errors == ""
    sender = Sender(lab)
    assert statuses(sender.ask(sender.request(key=b"a key", mode="password"))) == (0, 0, 0)
    responder.stop()
    file.write_text("a key \t\n")
    responder = ResponderProgram(lab, "--password-file", file)
    assert "ends with blanks" in responder.errors
    assert statuses(sender.ask(sender.request(key=b"a key \t", mode="password"))) == (0, 0, 0)


def test_an_empty_key_of_a_keychain_is_an_error_and_a_reload_keeps_the_old_keys(lab):
    keychain = '{"keychain-storage": [{"key-id": 1, "key-string": "%s"}]}'
    file = lab.directory / "keychain.json"
    file.write_text(keychain % "good")
    responder = ResponderProgram(lab, "--keychain", file)
    sender = Sender(lab)

    def request():
        return sender.request(key=b"good", mode="keychain", key_id=1)

    assert statuses(sender.ask(request())) == (0, 0, 0)
    file.write_text(keychain % "")
    responder.process.send_signal(signal.SIGHUP)
    wait_for(lambda: "key 1 of the keychain file" in responder.errors, "the complaint")
    assert statuses(sender.ask(request())) == (0, 0, 0)
