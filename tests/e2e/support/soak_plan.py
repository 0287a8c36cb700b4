"""What the soak test runs: tasks of all types in several places, and what each run must come to.

    scripted   the far end loses, repeats, reorders and delays by a plan of ours
    steady     a VRF of its own, nothing happens to it
    local      the lab's own namespace, by loopback; nothing happens to it
    links      its links and addresses go and come back
    restarts   its responder ends and is started again
    changing   reloads remove these tasks, make them again, change them
"""

import random
from dataclasses import dataclass

from . import metric_model as model
from .pattern_responder import KINDS as UDP_KINDS
from .pattern_responder import Script
from .run_events import (
    ANSWERED,
    DUPLICATED,
    LOST_BACK,
    LOST_OUT,
    Pattern,
    Reply,
    metrics_of,
    reaching,
    replying,
    run_of,
)
from .tasks import task
from .waiting import SCALE

KINDS = {**UDP_KINDS, "icmp-echo": model.ICMP_ECHO, "icmp-jitter": model.ICMP_JITTER}
# Of each hundred tasks.
SHARES = {"scripted": 25, "steady": 15, "local": 10, "links": 20, "restarts": 15, "changing": 15}
VRFS = ("scripted", "steady", "links", "restarts", "changing")
KEY = "a key of the soak test"
FIRST_PORT = 20000
FIRST_SIZE = 200  # a scripted task of ICMP is told by the size of its probes
_HEADERS = {"icmp-echo": 42, "icmp-jitter": 34}
_IP_HEADER = 20
_UDP_SIZES = {"udp-echo": 70, "udp-jitter": 80, "udp-jitter-ntp": 110}


def addresses(place):
    """Near and far end of a VRF's link."""
    if place == "local":
        return "127.0.0.1", "127.0.0.1"
    number = VRFS.index(place) + 1
    return f"10.{number}.0.1", f"10.{number}.0.2"


@dataclass
class Spec:
    """One task."""

    number: int
    kind: str
    place: str
    packets: int
    period: int  # seconds
    interval: int = 5
    timeout: int = 600

    @property
    def is_udp(self):
        return self.kind in UDP_KINDS

    def document(self, life_time="forever"):
        near, far = addresses(self.place)
        signed = self.is_udp and self.place != "scripted" and self.number % 2
        mode = {"mode": "keychain", "algorithm": "hmac-sha256", "key-id": 1}
        if self.is_udp:
            size = _UDP_SIZES[self.kind]
        else:
            size = FIRST_SIZE + _HEADERS[self.kind] + _IP_HEADER + 4 * (self.number % 250)
        return task(
            self.number,
            self.kind,
            src=near,
            dst=far,
            vrf=None if self.place == "local" else self.place,
            time=self.period,
            packets=self.packets,
            interval=self.interval,
            timeout=int(self.timeout * SCALE),
            control={"timeout": int(1000 * SCALE)},
            authentication=mode if signed else {"mode": "no"},
            measurement={"dst-port": FIRST_PORT + self.number, "packet-size": size},
            scheduler={"life-time": life_time},
        )


def make_specs(count, seconds, chance):
    """`count` tasks; what runs for ten minutes and more passes 65,536 runs."""
    icmp_period = max(int(2 * SCALE) if seconds < 60 else 1, int(seconds / 600))
    udp_period = max(int(4 * SCALE) if seconds < 60 else 3, int(seconds / 300))
    places = [place for place, share in SHARES.items() for _ in range(share * count // 100)]
    kinds = list(KINDS)
    specs = []
    for number, place in enumerate(places, 1):
        kind = kinds[number % len(kinds)]
        period = udp_period if kind in UDP_KINDS else icmp_period
        # A wait of 0 ms in the log of the changing ones is the first one of a test; the scripted
        # far ends may take their time.
        if place in ("changing", "scripted"):
            period = max(2, period)
        specs.append(Spec(number, kind, place, chance.randint(3, 8), period, chance.randint(2, 9)))
        if period == 1:
            specs[-1].timeout = 400
        elif place == "scripted":
            specs[-1].timeout = 1200
    return specs


# -- what a run must come to
# ----------------------------------------------------------------------------------------------


def calm_script(packets):
    numbers = tuple(range(1, packets + 1))
    return Script(Pattern((ANSWERED,) * packets, numbers, numbers))


def scripted(seed, spec, run):
    """What the far end does with one run of a task, by seed and number alone."""
    chance = random.Random(f"{seed}/{spec.number}/{run}")
    chances = {ANSWERED: 80, LOST_OUT: 6, LOST_BACK: 6, DUPLICATED: 8}
    outcomes = tuple(chance.choices(list(chances), list(chances.values()), k=spec.packets))
    arrivals, replies = reaching(outcomes), replying(outcomes)
    if chance.random() < 0.3:
        chance.shuffle(arrivals)
    if chance.random() < 0.3:
        chance.shuffle(replies)
    delay = chance.choice((0, 0, 0, 0.05, 0.15))
    pattern = Pattern(outcomes, tuple(arrivals), tuple(replies))
    return Script(pattern, chance.random() < 0.5, delay=delay)


def icmp_stamps(script):
    """The far end's clock at each answer, in milliseconds: the order in which probes reached it.
    (Those that did not are never asked for.)
    """
    return script.pattern.counters()


def expected(spec, script):
    """The fields of the run's report that do not depend on times."""
    kind, count = KINDS[spec.kind], script.pattern.count
    if spec.is_udp:
        sends, replies = [100_000 + place for place in range(count)], script.replies()
    else:
        stamps = icmp_stamps(script)
        sends = [1000 + place for place in range(count)]
        replies = [
            Reply(number, 0, stamps[number], 2000.0 + place)
            for place, number in enumerate(script.in_time())
        ]
    budget = int(spec.timeout * SCALE) + (spec.interval + 7) * count
    metrics = metrics_of(run_of(kind, sends, replies), budget)
    if metrics.status != 0:
        return {"status": "fail", "error": metrics.error_description}
    result = {
        "status": "successful",
        "error": "",
        "sd_packets": metrics.sd_pkt_count,
        "ds_packets": metrics.ds_pkt_count,
        "rtt_count": metrics.rtt_smp_count,
    }
    if kind not in model.ECHO_TYPES:
        result |= {
            "sd_samples": metrics.sd_smp_count,
            "ds_samples": metrics.ds_smp_count,
            "late": metrics.late_arrival,
        }
        for name in ("sd_loss", "ds_loss", "skipped", "duplicate"):
            result[name] = getattr(metrics, name)
        for name in ("sd_out_of_sequence", "ds_out_of_sequence"):
            result[name] = getattr(metrics, name)
    return result


def differences(report, wanted):
    return {
        name: (value, getattr(report, name))
        for name, value in wanted.items()
        if getattr(report, name) != value
    }
