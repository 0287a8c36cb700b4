"""Many udp-jitter tests at once against the project's own responder: no failed run, no lost probe,
nothing grows.
"""

import re
import signal
import time

from support.tasks import task
from support.waiting import SCALE, wait_for

SECONDS = 10
TASKS, PACKETS, PERIOD = 50, 10, 2
KEYCHAIN = {1: "a key for half of them"}
FIRST_PORT = 30000


def resident_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


def a_task(number):
    signed = {"mode": "keychain", "algorithm": "hmac-sha256", "key-id": 1}
    return task(
        number,
        "udp-jitter",
        time=PERIOD,
        packets=PACKETS,
        interval=20,
        timeout=1500,
        control={"timeout": int(1500 * SCALE)},
        authentication=signed if number % 2 else {"mode": "no"},
        measurement={"dst-port": FIRST_PORT + number},
    )


def start_responder(lab, keychain):
    output = lab.directory / "responder.txt"
    with open(output, "wb") as out:
        variables = [f"{name}={value}" for name, value in lab.build.environment().items() if value]
        program = [*lab.build.launcher(), lab.build.program("ip-sla-responder")]
        options = [
            "--bind",
            "127.0.0.1",
            "--control-port",
            "2000",
            "--port-range",
            f"{FIRST_PORT}-{FIRST_PORT + TASKS}",
            "--keychain",
            keychain,
            "--allow-open",
        ]
        process = lab.popen("env", *variables, *program, *options, stdout=out, stderr=out)
    wait_for(lambda: "listening on" in output.read_text(), "the responder to listen")
    return process, output


def assert_whole(report):
    assert (report.status, report.error) == ("successful", "")
    packets = (
        report.sd_packets,
        report.ds_packets,
        report.rtt_count,
        report.sd_samples,
        report.ds_samples,
    )
    assert packets == (PACKETS,) * 5
    losses = (report.sd_loss, report.ds_loss, report.late, report.skipped, report.duplicate)
    assert losses + (report.sd_out_of_sequence, report.ds_out_of_sequence) == (0,) * 7
    assert 0 <= report.rtt[0] <= report.rtt[1] <= report.rtt[2]


def test_fifty_udp_jitter_tasks(lab, start_daemon):
    numbers = range(1, TASKS + 1)
    keychain = lab.directory / "responder-keychain.json"
    keychain.write_text('{"keychain-storage": [{"key-id": 1, "key-string": "%s"}]}' % KEYCHAIN[1])
    responder, output = start_responder(lab, keychain)
    daemon = start_daemon([a_task(number) for number in numbers], keychain=KEYCHAIN)
    wait_for(
        lambda: all(daemon.reports(number) for number in numbers),
        "a first run of every task",
        60,
        interval=0.2,
    )
    threads, memory = len(daemon.threads()), resident_kib(daemon.pid)
    readings = []
    end = time.monotonic() + SECONDS
    while time.monotonic() < end:
        assert len(daemon.threads()) == threads
        readings.append(len(daemon.descriptors()))
        time.sleep(0.1)
    runs = [report for number in numbers for report in daemon.reports(number)]
    print(f"{len(runs)} runs, {threads} threads, {min(readings)} to {max(readings)} descriptors")
    print(f"memory {memory} KiB after the first runs, {resident_kib(daemon.pid)} KiB at the end")
    print(f"longest round trip {max(report.rtt[2] for report in runs if report.rtt):.3f} ms")
    for report in runs:
        assert_whole(report)
    assert len(runs) >= TASKS * max(1, int(SECONDS / PERIOD) - 1)
    half = len(readings) // 2
    assert min(readings[half:]) <= min(readings[:half])
    if not lab.build.sanitizers:
        assert resident_kib(daemon.pid) < memory + 8192
    daemon.stop()
    responder.send_signal(signal.SIGTERM)
    assert responder.wait(timeout=20 * SCALE) == 0
    sessions = re.findall(
        r"^session \S+ (ended|replaced|stopped): .*$", output.read_text(), re.MULTILINE
    )
    assert len(sessions) >= len(runs)
