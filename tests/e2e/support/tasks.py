"""Valid task objects of every type, to be varied by the tests."""

import copy

from .waiting import allowance

_PACKET_SIZE = {
    "udp-echo": 84,
    "udp-jitter": 100,
    "udp-jitter-ntp": 120,
    "icmp-echo": 84,
    "icmp-jitter": 74,
}


def task(
    number,
    kind,
    src="127.0.0.1",
    dst="127.0.0.1",
    vrf=None,
    time=1,
    packets=5,
    interval=10,
    timeout=allowance(300),
    **changes
):
    """One task as the tasks file holds it.

    `changes`: `control`, `measurement`, `scheduler` and `authentication` are dictionaries merged
    into those objects, any other name is a key of the task itself with hyphens for underscores. A
    value of None removes the key.
    """
    endpoint = {"src-address": src, "src-port": "any", "dst-address": dst}
    result = {
        "sla-id": number,
        "schedule": True,
        "num-rep-hist": 10,
        "scheduler": {"time": time, "Start-time": "now", "life-time": "forever"},
        "control-phase": {
            **endpoint,
            "dst-port": 2000,
            "timeout": 500,
            "retry": 1,
            "authentication": {"mode": "no"},
        },
        "sla-type": kind,
        kind: {
            **endpoint,
            "dst-port": 2001,
            "num-packets": packets,
            "packet-size": _PACKET_SIZE[kind],
            "interval": interval,
            "timeout": timeout,
            "ttl": 64,
            "dscp": 0,
            "cos": 0,
        },
    }
    if vrf is not None:
        result["vrf-instance"] = vrf
    _merge(result["control-phase"], changes.pop("control", {}))
    _merge(result["control-phase"]["authentication"], changes.pop("authentication", {}))
    _merge(result[kind], changes.pop("measurement", {}))
    _merge(result["scheduler"], changes.pop("scheduler", {}))
    _merge(result, {name.replace("_", "-"): value for name, value in changes.items()})
    return copy.deepcopy(result)


def _merge(target, changes):
    for name, value in changes.items():
        if value is None:
            target.pop(name, None)
        else:
            target[name] = value


def icmp_echo(number, **options):
    return task(number, "icmp-echo", **options)


def icmp_jitter(number, **options):
    return task(number, "icmp-jitter", **options)


def udp_echo(number, **options):
    return task(number, "udp-echo", **options)


def udp_jitter(number, **options):
    return task(number, "udp-jitter", **options)


def udp_jitter_ntp(number, **options):
    return task(number, "udp-jitter-ntp", **options)
