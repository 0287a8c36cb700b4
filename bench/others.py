"""The comparison programs, measured on the same wire in the same minutes."""

import json
import os
import re
import shutil
import struct
import subprocess
import time

from . import stage
from .capture import Capture, icmp_flows, udp_flows
from .outcome import Outcome

_FPING_LINE = re.compile(r"^(\S+) +: ((?:[\d.]+ ?|- ?)+)$", re.MULTILINE)
_PING_LINE = re.compile(r"icmp_seq=(\d+) .*time=([\d.]+) ms")
_IRTT_PORT = 2112
_SPARE_SECONDS = 30


def is_there(program):
    return shutil.which(program) is not None


def fping(lab, tests, packets, interval_ms):
    """One process that pings so many addresses."""
    result = Outcome("fping", tests, interval_ms)
    capture = Capture(lab, stage.NEAR_WIRE, "icmp", name="near")
    addresses = [stage.farm_address(number) for number in range(1, tests + 1)]
    # Without the pause that fping makes between any two probes by default, it is at its best.
    arguments = ["-q", "-C", packets, "-p", interval_ms, "-i", 0, "-t", 500]
    output, cpu = run(lab, ["fping", *arguments, *addresses], packets * interval_ms / 1000)
    flows = icmp_flows(capture.stop())
    by_address = {".".join(str(byte) for byte in key[0]): flow for key, flow in flows.items()}
    for flow in flows.values():
        result.add_flow(flow)
    trips = {address: flow.round_trips() for address, flow in by_address.items()}
    for address, times in _FPING_LINE.findall(output):
        for number, milliseconds in zip(sorted(by_address[address].departures), times.split()):
            if milliseconds != "-" and number in trips[address]:
                result.round_trip.append(float(milliseconds) * 1e6 - trips[address][number])
    return finish(result, cpu)


def ping(lab, packets, interval_ms):
    """One ping, of which a packet leaves at its interval."""
    result = Outcome("ping", 1, interval_ms)
    capture = Capture(lab, stage.NEAR_WIRE, "icmp", name="near")
    arguments = ["-c", packets, "-i", interval_ms / 1000, stage.FAR]
    output, cpu = run(lab, ["ping", *arguments], packets * interval_ms / 1000)
    for flow in icmp_flows(capture.stop()).values():
        result.add_flow(flow)
        trips = flow.round_trips()
        for number, milliseconds in _PING_LINE.findall(output):
            if int(number) in trips:
                result.round_trip.append(float(milliseconds) * 1e6 - trips[int(number)])
    return finish(result, cpu)


def irtt_number(payload):
    """The sequence number of a packet of irtt; those of its handshake have none."""
    is_probe = len(payload) >= 16 and payload[:3] == b"\x14\xa7\x5b" and payload[3] & 5 == 0
    return struct.unpack_from("<I", payload, 12)[0] if is_probe else None


def irtt(lab, tests, packets, interval_ms):
    """One client for each test, one server."""
    result = Outcome("irtt", tests, interval_ms)
    server = lab.popen(
        "irtt",
        "server",
        "-b",
        f"{stage.FAR}:{_IRTT_PORT}",
        "-i",
        "0",
        namespace=stage.PEER,
        stdout=subprocess.DEVNULL,
    )
    try:
        time.sleep(0.5)
        return measure_irtt(lab, result, packets)
    finally:
        stage.end(server)


def measure_irtt(lab, result, packets):
    capture = Capture(lab, stage.NEAR_WIRE, f"udp port {_IRTT_PORT}", name="near")
    seconds = packets * result.interval_ms / 1000
    files = [lab.directory / f"irtt-{number}.json" for number in range(result.tests)]
    arguments = ["-Q", "-i", f"{result.interval_ms}ms", "-d", f"{seconds}s", "--wait=300ms"]
    cpu = run_together(
        lab, [["irtt", "client", *arguments, "-o", file, stage.FAR] for file in files], seconds
    )
    flows = udp_flows(capture.stop(), stage.NEAR, irtt_number)
    for flow in flows.values():
        result.add_flow(flow)
    by_port = {key[0]: flow.round_trips() for key, flow in flows.items()}
    for file in files:
        add_irtt_times(json.loads(file.read_text()), by_port, result)
        file.unlink()
    return finish(result, cpu)


def add_irtt_times(document, by_port, result):
    """What a client says of its round trips leaves out the server's time; the wire has it."""
    port = int(document["config"]["local_address"].rsplit(":", 1)[1])
    for trip in document["round_trips"]:
        if trip["lost"] != "false" or trip["seqno"] not in by_port.get(port, {}):
            continue
        server = trip["timestamps"]["server"]
        inside = server["send"]["monotonic"] - server["receive"]["monotonic"]
        whole = trip["delay"]["rtt"] + inside
        result.round_trip.append(whole - by_port[port][trip["seqno"]])


def run(lab, command, seconds):
    """The output of a program and the CPU seconds it took."""
    before = os.times()
    done = subprocess.run(
        lab.inside(*command),
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=seconds * 2 + _SPARE_SECONDS,
    )
    after = os.times()
    return done.stdout, children_seconds(before, after)


def run_together(lab, commands, seconds):
    """The CPU seconds of programs that run at the same time."""
    before = os.times()
    processes = [
        subprocess.Popen(lab.inside(*command), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        for command in commands
    ]
    for process in processes:
        process.wait(timeout=seconds * 2 + _SPARE_SECONDS)
    return children_seconds(before, os.times())


def children_seconds(before, after):
    return (
        after.children_user + after.children_system - before.children_user - before.children_system
    )


def finish(result, cpu):
    result.cpu_us = cpu * 1e6 / max(result.probes, 1)
    return result
