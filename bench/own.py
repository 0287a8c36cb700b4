"""The daemon's own tests, measured on the wire."""

import contextlib
import struct
import time

from support.api_client import ApiClient
from support.tasks import task
from support.waiting import wait_for

from . import stage
from .capture import Capture, icmp_flows, udp_flows
from .outcome import Outcome
from .probes import logged_probes, pair

_CONTROL_PORT = 2000
_FIRST_PORT = 20000
_TIMEOUT_MS = 400


def run_once_tasks(kind, tests, packets, interval_ms):
    """Tasks of one kind of which each runs once, for as long as a measurement looks."""
    period = int(packets * (interval_ms + 7) / 1000) + 60
    for number in range(1, tests + 1):
        is_icmp = kind.startswith("icmp")
        yield task(
            number,
            kind,
            src=stage.NEAR,
            dst=stage.farm_address(number) if is_icmp else stage.FAR,
            time=period,
            packets=packets,
            interval=interval_ms,
            timeout=_TIMEOUT_MS,
            control={"timeout": 3000},
            measurement={"dst-port": _FIRST_PORT + number},
        )


def probe_number(payload):
    """The sequence number in a probe, or a reply, of the UDP jitter types."""
    return struct.unpack_from(">I", payload, 20)[0] if len(payload) >= 28 else None


def measure(
    lab,
    kind,
    tests,
    packets,
    interval_ms,
    compare_logs=True,
    rule=None,
    responder_options=(),
    company=(),
):
    """One run of each of so many tests, compared with the wire: (outcome, flows).

    The tasks of `company` run beside them; `rule` is to keep their packets out.
    """
    is_icmp = kind.startswith("icmp")
    rule = rule or ("icmp" if is_icmp else f"udp and not port {_CONTROL_PORT}")
    result = Outcome(kind, tests, interval_ms)
    tasks = list(run_once_tasks(kind, tests, packets, interval_ms))
    with contextlib.ExitStack() as stack:
        if not is_icmp or company:
            stack.enter_context(stage.responder(lab, options=responder_options))
        near = Capture(lab, stage.NEAR_WIRE, rule, name="near")
        far = None
        if not is_icmp and compare_logs:
            far = Capture(lab, stage.FAR_WIRE, rule, namespace=stage.PEER, name="far")
        running = stack.enter_context(stage.daemon(lab, [*tasks, *company]))
        # Nothing is looked at while probes are under way.
        time.sleep(packets * interval_ms / 1000 + _TIMEOUT_MS / 1000 + 0.5)
        with contextlib.suppress(AssertionError):
            numbers = set(range(1, tests + 1))
            wait_for(lambda: numbers <= answered(lab).keys(), "the runs to end", 30, interval=0.3)
        # By the Sender API: where a thousand tests end together, their logs are cut.
        replies = answered(lab)
        result.cpu_us = stage.cpu_seconds(running.pid) * 1e6 / (tests * packets)
        near.stop()
        flows = flows_of(near, is_icmp)
        far_flows = flows_of(far.stop(), is_icmp) if far else {}
    for flow in flows.values():
        result.add_flow(flow)
    # What the daemon took for lost counts, not what was seen: a reply that it missed is wrong.
    result.lost = sum(packets - replies.get(number, 0) for number in range(1, tests + 1))
    if len(flows) != tests or result.probes != tests * packets:
        result.note = f"{len(flows)} tests and {result.probes} probes seen"
    if compare_logs:
        compare(lab, flows, far_flows, is_icmp, result)
    return result, flows


def answered(lab):
    """The number of replies that count in the newest run of each task that has ended one."""
    tasks = ApiClient(lab).all_statistics(groups=())
    return {
        one["sla-id"]: one["ds-pkt-count"]
        for one in tasks
        if one["successful-count"] or one["failed-count"]
    }


def flows_of(capture, is_icmp):
    return icmp_flows(capture) if is_icmp else udp_flows(capture, stage.NEAR, probe_number)


def compare(lab, flows, far_flows, is_icmp, result):
    """Adds the errors of the logged times."""
    by_destination = {}
    for key, flow in flows.items():
        by_destination[key[0] if is_icmp else key[2]] = (flow, far_flows.get(key))
    for far in far_flows.values():
        result.inside += far.round_trips().values()
    for number in range(1, result.tests + 1):
        address = bytes(int(part) for part in stage.farm_address(number).split("."))
        found = by_destination.get(address if is_icmp else _FIRST_PORT + number)
        if found is None:
            continue
        flow, far = found
        trips = flow.round_trips()
        for probe, on_wire in pair(logged_probes(lab.log_text(number)), flow):
            if on_wire not in trips:
                continue
            result.round_trip.append(probe.round_trip - trips[on_wire])
            if far is None or on_wire not in far.arrivals or probe.way_out is None:
                continue
            out = far.departures[on_wire] - flow.departures[on_wire]
            back = flow.arrivals[on_wire] - far.arrivals[on_wire]
            result.way_out.append(probe.way_out - out)
            result.way_back.append(probe.way_back - back)
