"""UDP tasks as most tests of probes and replies want them."""

from .tasks import task
from .waiting import wait_for

KINDS = {"udp-echo": 1, "udp-jitter": 2, "udp-jitter-ntp": 3}
HEADER_SIZES = {"udp-echo": 4, "udp-jitter": 28, "udp-jitter-ntp": 56}
# An echo reply is matched by its bytes 20 to 23: 66 is the least size with which all of them come
# back.
SIZES = {"udp-echo": 66, "udp-jitter": 80, "udp-jitter-ntp": 110}


def udp_task(number, kind="udp-jitter", **changes):
    measurement = {"packet-size": SIZES[kind], **changes.pop("measurement", {})}
    return task(number, kind, measurement=measurement, **changes)


def good_runs(daemon, number, count=1):
    """The successful runs of a task, once there are `count`."""

    def found():
        runs = [report for report in daemon.reports(number) if report.status == "successful"]
        return runs if len(runs) >= count else None

    return wait_for(found, f"{count} good run(s) of task {number}")


def start_responder(lab):
    """The project's own responder, on the control port of the tasks."""
    output = lab.directory / "responder"
    variables = [f"{name}={value}" for name, value in lab.build.environment().items() if value]
    program = [*lab.build.launcher(), lab.build.program("ip-sla-responder"), "--allow-open"]
    with open(output, "wb") as out:
        lab.popen(
            "env",
            *variables,
            *program,
            "--control-port",
            "2000",
            "--port-range",
            "2001-2999",
            stdout=out,
            stderr=out,
        )
    wait_for(lambda: "listening on" in output.read_text(), "the responder to listen")
