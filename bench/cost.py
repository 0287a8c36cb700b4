"""What tests cost: CPU of a probe with everything that belongs to it, and memory."""

import contextlib
import os
import pathlib
import re
import tempfile
import time

from support.logs import parse_reports, split_records
from support.tasks import icmp_echo, task
from support.waiting import wait_for

from . import counts, stage
from .figures import table

_SECONDS = 8
# (type, tests, probes of a run, interval in milliseconds, seconds from run to run)
_LOADS = [
    ("icmp-echo", 100, 150, 20, 4),
    ("udp-jitter", 100, 150, 20, 4),
    ("udp-jitter", 200, 10, 20, 2),
]
_MEMORY_TESTS = [1, 1000]


def run(build, report):
    """Measures all loads and sizes; the tables of them."""
    loads = []
    for load in _LOADS:
        kind, tests, packets, interval_ms, period = load
        report.begin(f"{tests} {kind}, runs of {packets} probes every {period} s")
        with stage.stage(build) as lab:
            loads.append(measure(lab, *load))
    sizes = []
    for tests in _MEMORY_TESTS:
        report.begin(f"memory with {tests} tests of 10 probes")
        with stage.stage(build) as lab:
            sizes.append(memory(lab, tests))
    counted = count_instructions(build, report)
    report.add("cost", {"loads": loads, "memory": sizes, "instructions": counted})
    for load in loads:
        if load["lost"]:
            report.warn(f"{load['tests']} {load['type']}: {load['lost']} lost")
    return "\n\n".join(
        [
            table(
                ["type", "tests", "probes a run", "CPU µs a probe", "log writer %", "lost"],
                [
                    [
                        load["type"],
                        load["tests"],
                        load["packets"],
                        load["cpu_us"],
                        load["writer_percent"],
                        f"{load['lost']}/{load['probes']}",
                    ]
                    for load in loads
                ],
            ),
            table(
                ["tests of 10 probes", "resident MB", "descriptors"],
                [[size["tests"], size["resident_mb"], size["descriptors"]] for size in sizes],
            ),
            table(
                ["icmp-echo, counted by callgrind", "instructions"],
                [[part["part"], round(part["instructions"])] for part in counted],
            ),
        ]
    )


def count_instructions(build, report):
    if not counts.is_there():
        report.warn("valgrind is not installed: no instructions are counted")
        return []
    report.begin("instructions")
    with tempfile.TemporaryDirectory() as directory:
        return counts.measure(build, pathlib.Path(directory))


def measure(lab, kind, tests, packets, interval_ms, period):
    """CPU time of the daemon while runs start, end, are reported and logged, by probe sent."""
    tasks = [
        task(
            number,
            kind,
            src=stage.NEAR,
            dst=stage.farm_address(number) if kind.startswith("icmp") else stage.FAR,
            time=period,
            packets=packets,
            interval=interval_ms,
            timeout=400,
            control={"timeout": 1000},
            measurement={"dst-port": 20000 + number},
        )
        for number in range(1, tests + 1)
    ]
    with contextlib.ExitStack() as stack:
        if not kind.startswith("icmp"):
            stack.enter_context(stage.responder(lab))
        running = stack.enter_context(stage.daemon(lab, tasks))
        # The start of the daemon itself is not a probe's.
        wait_for(lambda: "TestStop" in lab.log_text(tests), "the last test to begin", 60)
        before, runs_before = cpu_by_thread(running.pid), probes_of(lab, tests)
        time.sleep(_SECONDS)
        after, runs_after = cpu_by_thread(running.pid), probes_of(lab, tests)
    used = {name: after[name] - before.get(name, 0) for name in after}
    probes, lost = (later - earlier for later, earlier in zip(runs_after, runs_before))
    return {
        "type": kind,
        "tests": tests,
        "packets": packets,
        "probes": probes,
        "lost": lost,
        "cpu_us": sum(used.values()) * 1e6 / max(probes, 1),
        "writer_percent": 100 * used.get("log-writer", 0) / max(sum(used.values()), 1e-9),
    }


def probes_of(lab, tests):
    """(probes, lost ones) of all runs that were reported so far."""
    probes = lost = 0
    for number in range(1, tests + 1):
        for report in parse_reports(split_records(lab.log_text(number))):
            probes += report.sd_packets or 0
            lost += (report.sd_packets or 0) - (report.ds_packets or 0)
    return probes, lost


def cpu_by_thread(pid):
    """Seconds of CPU by the names of a process's threads."""
    found = {}
    for thread in pathlib.Path(f"/proc/{pid}/task").iterdir():
        with contextlib.suppress(FileNotFoundError):
            name = (thread / "comm").read_text().strip()
            spent = int((thread / "schedstat").read_text().split()[0]) / 1e9
            found[name] = found.get(name, 0) + spent
    return found


def memory(lab, tests):
    """Resident size after every test has run, and open descriptors."""
    tasks = [
        icmp_echo(
            number,
            src=stage.NEAR,
            dst=stage.farm_address(number),
            time=10,
            packets=10,
            interval=100,
            timeout=400,
        )
        for number in range(1, tests + 1)
    ]
    with stage.daemon(lab, tasks) as running:
        numbers = (1, tests)
        wait_for(
            lambda: all("Operation time:" in lab.log_text(n) for n in numbers), "the runs", 60
        )
        status = pathlib.Path(f"/proc/{running.pid}/status").read_text()
        descriptors = len(os.listdir(f"/proc/{running.pid}/fd"))
    kilobytes = int(re.search(r"VmRSS:\s*(\d+) kB", status).group(1))
    return {"tests": tests, "resident_mb": kilobytes / 1000, "descriptors": descriptors}
