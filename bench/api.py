"""The Sender API beside running tests; start and reload with a thousand tasks."""

import time

from support.api_client import (
    ALL_STATISTICS,
    GROUPS,
    RELOAD_TASKS,
    STATISTICS,
    STATUS,
    ApiClient,
)
from support.tasks import icmp_echo
from support.waiting import wait_for

from . import stage
from .capture import Capture, icmp_flows
from .figures import spread, table

_TESTS = 200
_MANY_TASKS = 1000
_SECONDS = 2
_REQUESTS = [
    ("statistics of one task, all groups", STATISTICS, "one"),
    ("statistics of one task, no groups", STATISTICS, "bare"),
    (f"statistics of {_TESTS} tasks, all groups", ALL_STATISTICS, "all"),
    (f"statistics of {_TESTS} tasks, no groups", ALL_STATISTICS, "none"),
    ("status of one task", STATUS, "status"),
    ("reload of an unchanged tasks file", RELOAD_TASKS, None),
]
_BODIES = {
    "one": {"tasks": [{"sla-id": 1, "metrics": GROUPS}]},
    "bare": {"tasks": [{"sla-id": 1, "metrics": []}]},
    "all": {"metrics": GROUPS},
    "none": {"metrics": []},
    "status": {"tasks": [1]},
    None: None,
}


def run(build, report):
    """Measures every command, then start and reload; the tables of them."""
    report.begin(f"API with {_TESTS} tests running")
    with stage.stage(build) as lab:
        commands = measure_commands(lab)
    report.begin(f"start and reload of {_MANY_TASKS} tasks")
    with stage.stage(build) as lab:
        start = measure_start(lab)
    report.add("api", {"commands": commands, "start": start})
    return "\n\n".join(
        [
            table(
                ["request", "datagrams", "a second", "latency µs"],
                [
                    [one["name"], one["datagrams"], one["a_second"], one["latency_us"]]
                    for one in commands
                ],
            ),
            table([f"{_MANY_TASKS} tasks", "s"], [[name, text] for name, text in start.items()]),
        ]
    )


def tasks_of(tests, period, interval_ms):
    return [
        icmp_echo(
            number,
            src=stage.NEAR,
            dst=stage.farm_address(number),
            time=period,
            packets=10,
            interval=interval_ms,
            timeout=300,
        )
        for number in range(1, tests + 1)
    ]


def measure_commands(lab):
    """One request after the other, each when the last one is answered, for some seconds."""
    with stage.daemon(lab, tasks_of(_TESTS, 2, 100)):
        wait_for(lambda: "Operation time:" in lab.log_text(_TESTS), "the first runs", 60)
        client = ApiClient(lab)
        return [measure_command(client, *request) for request in _REQUESTS]


def measure_command(client, name, command, body):
    latencies = []
    begin = time.monotonic_ns()
    while time.monotonic_ns() - begin < _SECONDS * 1e9:
        asked = time.monotonic_ns()
        reply = client.request(command, _BODIES[body])
        latencies.append(time.monotonic_ns() - asked)
    return {
        "name": name,
        "datagrams": len(reply.headers),
        "a_second": len(latencies) / _SECONDS,
        "latency_us": spread(latencies),
    }


def measure_start(lab):
    """Seconds from the start of the program to probes on the wire, and of reloads."""
    tasks = tasks_of(_MANY_TASKS, 60, 1000)
    capture = Capture(lab, stage.NEAR_WIRE, "icmp[0] == 8", name="near")
    begin = time.time_ns()
    with stage.daemon(lab, tasks) as running:
        wait_for(lambda: "TestStop" in lab.log_text(_MANY_TASKS), "the last test to begin", 60)
        # Nothing is looked at while the first probes are under way.
        time.sleep(1)
        capture.stop()
        first = [min(flow.departures.values()) - begin for flow in icmp_flows(capture).values()]
        client = ApiClient(lab, deadline=60)
        unchanged = timed(lambda: client.request(RELOAD_TASKS))
        running.write_tasks(tasks_of(_MANY_TASKS - 100, 60, 1000))
        removed = timed(lambda: client.request(RELOAD_TASKS))
    return {
        "start to the first probe": f"{min(first) / 1e9:.3f}",
        "start to the last test's first probe": f"{max(first) / 1e9:.3f}",
        "reload, unchanged": f"{unchanged:.3f}",
        "reload, 100 removed (10 ms of pause each)": f"{removed:.3f}",
    }


def timed(action):
    begin = time.monotonic()
    action()
    return time.monotonic() - begin
