"""Pacing, round-trip and one-way error against the wire, beside other programs."""

from . import others, own, stage
from .figures import table

_INTERVAL_MS = 20
_ONE_TEST_PACKETS = 300
_MANY, _MANY_PACKETS = 100, 150


def contestants():
    """(program that is needed, measurement) in the order of the table."""
    one, many = _ONE_TEST_PACKETS, _MANY_PACKETS
    return [
        (None, lambda lab: own.measure(lab, "icmp-echo", 1, one, _INTERVAL_MS)[0]),
        ("fping", lambda lab: others.fping(lab, 1, one, _INTERVAL_MS)),
        ("ping", lambda lab: others.ping(lab, one, _INTERVAL_MS)),
        (None, lambda lab: own.measure(lab, "udp-jitter", 1, one, _INTERVAL_MS)[0]),
        ("irtt", lambda lab: others.irtt(lab, 1, one, _INTERVAL_MS)),
        (None, lambda lab: own.measure(lab, "icmp-echo", _MANY, many, _INTERVAL_MS)[0]),
        ("fping", lambda lab: others.fping(lab, _MANY, many, _INTERVAL_MS)),
        (None, lambda lab: own.measure(lab, "udp-jitter", _MANY, many, _INTERVAL_MS)[0]),
        ("irtt", lambda lab: others.irtt(lab, _MANY, many, _INTERVAL_MS)),
    ]


def run(build, report):
    rows = []
    missing = sorted({name for name, _ in contestants() if name and not others.is_there(name)})
    for name in missing:
        report.warn(f"{name} is not installed and not compared")
    for is_busy in (False, True):
        for program, measure in contestants():
            if program in missing:
                continue
            report.begin(f"{program or 'own tests'}, {'busy' if is_busy else 'idle'}")
            with stage.stage(build) as lab, stage.busy_cores(is_busy):
                found = measure(lab).summary()
            found["busy"] = is_busy
            rows.append(found)
    report.add("accuracy", rows)
    return table(HEAD, [row_of(row) for row in rows])


HEAD = [
    "who",
    "tests",
    "load",
    "pacing µs",
    "RTT µs",
    "way out µs",
    "way back µs",
    "lost",
    "stretch %",
    "CPU µs",
    "note",
]


def row_of(found):
    return [
        found["who"],
        found["tests"],
        "busy" if found["busy"] else "idle",
        found["pacing_us"],
        found["round_trip_us"],
        found["way_out_us"],
        found["way_back_us"],
        f"{found['lost']}/{found['probes']}",
        f"{found['stretch_percent']:.3f}",
        found["cpu_us_per_probe"],
        found["note"],
    ]
