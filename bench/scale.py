"""Many tests at once, and mixtures in which tests have been in each other's way."""

import contextlib
import datetime
import re
import time

from support.logs import parse_reports, split_records
from support.tasks import icmp_echo, icmp_jitter, task, udp_jitter

from . import others, own, stage
from .figures import spread, table

# (type, tests, probes of each, interval in milliseconds). The kernel offers every ICMP reply to
# every raw socket, so that a thousand tests at this pace are UDP's.
_CROWDS = [
    ("icmp-echo", 254, 100, 100),
    ("icmp-echo", 100, 150, 20),
    ("udp-jitter", 100, 150, 20),
    ("udp-jitter", 1000, 400, 20),
]
# Watching the replies as well would cost as much again.
_PROBES_ONLY = {
    "icmp-echo": "icmp[0] == 8",
    "udp-jitter": f"udp and src host {stage.NEAR} and not port 2000",
}
_ONE_TEST_PACKETS = 300
_MOST_STRETCH_PERCENT = 0.5
_STAMP = "%d-%m-%Y %H:%M:%S"
_REPORT = re.compile(r"^(\S+ \S+): SLA task:", re.MULTILINE)
_NEVER = ("failed", "lost", "late", "unsent", "stalled")


def run(build, report):
    """Measures all crowds and mixtures; the table of them."""
    has_fping = others.is_there("fping")
    if not has_fping:
        report.warn("fping is not installed and not compared")
    crowds = []
    for kind, tests, packets, interval_ms in _CROWDS:
        report.begin(f"{tests} {kind} x {interval_ms} ms")
        with stage.stage(build) as lab:
            crowds.append(crowd(lab, kind, tests, packets, interval_ms))
        # fping takes a turn for each address; beyond some hundreds a round takes longer than 20 ms.
        if has_fping and kind == "icmp-echo":
            with stage.stage(build) as lab:
                crowds.append(others.fping(lab, tests, packets // 2, interval_ms).summary())
    mixtures = []
    for name, tasks, seconds in mixed_loads():
        report.begin(name)
        with stage.stage(build) as lab:
            mixtures.append(mixture(lab, name, tasks, seconds))
    pairs = []
    for name, company in (("alone", []), ("in company", list(busy_company()))):
        report.begin(f"one test {name}")
        with stage.stage(build) as lab:
            pairs.append({"name": name} | one_test(lab, company))
    report.add("scale", {"crowds": crowds, "mixtures": mixtures, "company": pairs})
    for fault in faults(crowds, mixtures):
        report.warn(fault)
    return "\n\n".join(
        [
            table(CROWD_HEAD, [crowd_row(row) for row in crowds]),
            table(MIXTURE_HEAD, [mixture_row(row) for row in mixtures]),
            table(COMPANY_HEAD, [company_row(row) for row in pairs]),
        ]
    )


def faults(crowds, mixtures):
    """What is never allowed."""
    for row in crowds:
        name = f"{row['tests']} {row['who']} x {row['interval_ms']} ms"
        if row["who"] == "fping":
            continue
        if row["lost"] or row["unsent"] or row["note"]:
            yield f"{name}: {row['lost']} lost, {row['unsent']} not whole. {row['note']}"
        if row["stretch_percent"] > _MOST_STRETCH_PERCENT:
            yield f"{name}: stretched by {row['stretch_percent']:.2f} %"
    for row in mixtures:
        bad = {name: row[name] for name in _NEVER if row[name]}
        if bad:
            yield f"{row['name']}: {bad}"


def crowd(lab, kind, tests, packets, interval_ms):
    """One run of each of so many tests that start together."""
    result, flows = own.measure(
        lab, kind, tests, packets, interval_ms, compare_logs=False, rule=_PROBES_ONLY[kind]
    )
    found = result.summary()
    found["steady_pacing_us"] = spread(steady_errors(flows.values(), interval_ms))
    found["unsent"] = sum("probes not sent" in lab.log_text(n) for n in range(1, tests + 1))
    return found


def steady_errors(flows, interval_ms):
    """Pacing errors between the last test's first probe and the first test's last one."""
    begin = max(min(flow.departures.values()) for flow in flows)
    end = min(max(flow.departures.values()) for flow in flows)
    for flow in flows:
        stamps = sorted(flow.departures.values())
        for earlier, later in zip(stamps, stamps[1:]):
            if begin <= earlier and later <= end:
                yield later - earlier - interval_ms * 1e6


CROWD_HEAD = [
    "who",
    "tests",
    "interval ms",
    "pacing µs",
    "while all run µs",
    "lost",
    "unsent",
    "stretch %",
    "CPU µs",
    "note",
]


def crowd_row(found):
    return [
        found["who"],
        found["tests"],
        found["interval_ms"],
        found["pacing_us"],
        found.get("steady_pacing_us"),
        f"{found['lost']}/{found['probes']}",
        found.get("unsent"),
        f"{found['stretch_percent']:.3f}",
        found["cpu_us_per_probe"],
        found["note"],
    ]


def mixed_loads():
    """(name, tasks, seconds to look); all on one CPU and loopback."""
    slow_beside_jitter = [
        icmp_echo(n, time=11, packets=10, interval=1000, timeout=300) for n in range(1, 21)
    ] + [icmp_jitter(n, time=2, packets=10, interval=20, timeout=300) for n in range(21, 24)]
    slow_beside_short = [
        icmp_echo(n, time=13, packets=4, interval=3000, timeout=300) for n in range(1, 17)
    ] + [icmp_echo(n, time=1, packets=10, interval=20, timeout=110) for n in range(17, 25)]
    burst = {"time": 30, "packets": 65535, "interval": 0, "timeout": 1000}
    # It lasts for minutes where one reply is missing.
    to_responder = {**burst, "time": 600, "measurement": {"dst-port": 20001}}
    return [
        ("20 x 1000 ms beside 3 icmp-jitter x 20 ms", slow_beside_jitter, 24),
        ('16 x 3000 ms beside 8 of "time" 1', slow_beside_short, 28),
        ("icmp-echo burst of 65,535", [icmp_echo(1, **burst)], 8),
        ("icmp-jitter burst of 65,535", [icmp_jitter(1, **burst)], 8),
        ("udp-jitter burst of 65,535", [udp_jitter(1, **to_responder)], 5),
    ]


def mixture(lab, name, tasks, seconds):
    """Runs tasks for some seconds and counts what none of them should have."""
    with contextlib.ExitStack() as stack:
        if any(a_task["sla-type"].startswith("udp") for a_task in tasks):
            # Without a priority it might wait behind the burst, on the same CPU.
            options = ("--realtime", "50")
            stack.enter_context(stage.responder(lab, None, "127.0.0.1", options))
        stack.enter_context(stage.daemon(lab, tasks, cpus=[0]))
        time.sleep(seconds)
        end = datetime.datetime.now()
    found = {"name": name, "runs": 0, "failed": 0, "lost": 0, "late": 0, "unsent": 0, "stalled": 0}
    for a_task in tasks:
        count_runs(lab, a_task, end, found)
    return found


def _time(stamp):
    return datetime.datetime.strptime(stamp, _STAMP)


def count_runs(lab, a_task, end, found):
    number, period = a_task["sla-id"], a_task["scheduler"]["time"]
    packets = a_task[a_task["sla-type"]]["num-packets"]
    text = lab.log_text(number)
    reports = parse_reports(split_records(text))
    found["runs"] += len(reports)
    for report in reports:
        found["failed"] += report.status != "successful"
        found["lost"] += packets - (report.ds_packets or 0)
        found["late"] += (report.late or 0) + (report.skipped or 0)
    found["unsent"] += text.count("probes not sent")
    # One that is under way, and one that its period, in whole seconds, has put off.
    latest = _REPORT.findall(text)[-1:]
    allowed = datetime.timedelta(seconds=2 * period + 2)
    found["stalled"] += not latest or end - _time(latest[0]) > allowed


MIXTURE_HEAD = ["mixture", "runs", "failed", "lost", "late", "unsent", "stalled tasks"]


def mixture_row(found):
    names = ["name", "runs", "failed", "lost", "late", "unsent", "stalled"]
    return [found[name] for name in names]


def busy_company():
    """What keeps every worker thread at work: control phases, reports, logs, a burst."""
    for number in range(1001, 1201):
        yield task(
            number,
            "udp-jitter",
            src=stage.NEAR,
            dst=stage.FAR,
            time=2,
            packets=10,
            timeout=400,
            control={"timeout": 1000},
            measurement={"dst-port": 20000 + number, "interval": 20},
        )
    # Over loopback, where the wire's capture does not see it.
    yield icmp_echo(1201, packets=20000, interval=0, timeout=1000, time=3)


def one_test(lab, company):
    rule = f"icmp and host {stage.farm_address(1)}"
    interval_ms = 20
    result, _ = own.measure(
        lab, "icmp-echo", 1, _ONE_TEST_PACKETS, interval_ms, rule=rule, company=company
    )
    return result.summary()


COMPANY_HEAD = ["1 icmp-echo, 20 ms", "pacing µs", "RTT µs", "lost", "stretch %"]


def company_row(found):
    return [
        found["name"],
        found["pacing_us"],
        found["round_trip_us"],
        f"{found['lost']}/{found['probes']}",
        f"{found['stretch_percent']:.3f}",
    ]
