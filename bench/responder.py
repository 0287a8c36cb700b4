"""How long the responder keeps a probe: on its own wire, from the probe's stamp to the reply's."""

from . import own, stage
from .figures import table

_INTERVAL_MS = 20
# (tests, probes of each)
_LOADS = [(1, 200), (100, 100)]
_OPTIONS = [(), ("--realtime", "10")]


def run(build, report):
    """Measures with and without real-time priority, idle and busy; the table of it."""
    rows = []
    for tests, packets in _LOADS:
        for options in _OPTIONS:
            for is_busy in (False, True):
                rows.append(measure(build, report, tests, packets, options, is_busy))
    report.add("responder", rows)
    return table(
        ["udp-jitter tests", "option", "load", "from probe to reply µs", "lost"],
        [
            [
                row["tests"],
                row["option"] or None,
                "busy" if row["busy"] else "idle",
                row["inside_us"],
                f"{row['lost']}/{row['probes']}",
            ]
            for row in rows
        ],
    )


def measure(build, report, tests, packets, options, is_busy):
    option = " ".join(options)
    load = "busy" if is_busy else "idle"
    report.begin(f"responder {option or 'as it is'}, {tests} tests, {load}")
    with stage.stage(build) as lab, stage.busy_cores(is_busy):
        outcome, _ = own.measure(
            lab, "udp-jitter", tests, packets, _INTERVAL_MS, responder_options=options
        )
    found = outcome.summary()
    return {"tests": tests, "option": option, "busy": is_busy} | {
        name: found[name] for name in ("inside_us", "lost", "probes", "note")
    }
