"""UDP runs against a responder that loses, reorders, repeats and delays by plan: exact counts, as
the model has.
"""

import itertools
import math
import random

import pytest

from support import metric_model as model
from support.api_client import ApiClient
from support.pattern_responder import KINDS, PatternResponder, Script
from support.run_events import (
    ANSWERED,
    LATE,
    OUTCOMES,
    Pattern,
    metrics_of,
    reaching,
    replying,
    run_of,
)
from support.tasks import task
from support.waiting import SCALE, wait_for

# Tasks of one daemon, each with one run: well below the descriptors that a process may have.
BATCH = 200
FIRST_PORT = 20000
TIMEOUT_MS = int(700 * SCALE)
INTERVAL_MS = 10
PACKET_SIZE = {"udp-echo": 70, "udp-jitter": 80, "udp-jitter-ntp": 110}


def _script(random_numbers, outcomes):
    """The outcomes in some order of arrival and of the answers."""
    arrivals, replies = reaching(outcomes), replying(outcomes)
    random_numbers.shuffle(arrivals)
    random_numbers.shuffle(replies)
    return Script(Pattern(outcomes, tuple(arrivals), tuple(replies)), random_numbers.random() < 0.5)


def _in_order(outcomes):
    return Script(Pattern(outcomes, tuple(reaching(outcomes)), tuple(replying(outcomes))))


def _all_outcomes(most):
    return [
        outcomes
        for count in range(1, most + 1)
        for outcomes in itertools.product(OUTCOMES, repeat=count)
    ]


def _all_orders(count):
    """Everything answered, in every order of arrival and every order of the answers."""
    orders = list(itertools.permutations(range(1, count + 1)))
    return [
        Script(Pattern((ANSWERED,) * count, *both)) for both in itertools.product(orders, repeat=2)
    ]


def _families():
    random_numbers = random.Random(20)
    every = _all_outcomes(4)
    yield "udp-jitter", "in order", [_in_order(outcomes) for outcomes in every]
    yield "udp-jitter", "some order", [_script(random_numbers, outcomes) for outcomes in every]
    yield "udp-jitter", "every order", [
        script for count in (2, 3, 4) for script in _all_orders(count)
    ]
    yield "udp-echo", "some order", [_script(random_numbers, outcomes) for outcomes in every]
    yield "udp-jitter-ntp", "some order", [
        _script(random_numbers, outcomes) for outcomes in _all_outcomes(3)
    ]


def _batches():
    for kind, name, scripts in _families():
        for start in range(0, len(scripts), BATCH):
            yield pytest.param(kind, scripts[start : start + BATCH], id=f"{kind}-{name}-{start}")


def _task(number, kind, count, **changes):
    return task(
        number,
        kind,
        packets=count,
        interval=INTERVAL_MS,
        timeout=TIMEOUT_MS,
        control={"timeout": int(5000 * SCALE)},
        measurement={"dst-port": FIRST_PORT + number, "packet-size": PACKET_SIZE[kind]},
        **{"time": 600, **changes},
    )


def expected_metrics(kind, script):
    count = script.pattern.count
    run = run_of(KINDS[kind], [100_000 + place for place in range(count)], script.replies())
    return metrics_of(run, TIMEOUT_MS + (INTERVAL_MS + 7) * count)


def expected_statistics(kind, script):
    """What the statistics document says of the run, as far as it does not depend on times."""
    metrics = expected_metrics(kind, script)
    good = metrics.status == 0
    return {
        "status": "successful" if good else "fail",
        "error-description": metrics.error_description,
        "successful-count": int(good),
        "failed-count": int(not good),
        "transm-pkt-count": script.pattern.count if good else 0,
        "test-type": KINDS[kind],
        "sd-smp-count": metrics.sd_smp_count,
        "ds-smp-count": metrics.ds_smp_count,
        "sd-pkt-count": metrics.sd_pkt_count,
        "ds-pkt-count": metrics.ds_pkt_count,
        "loss-values": {
            "sd-loss": metrics.sd_loss,
            "ds-loss": metrics.ds_loss,
            "sd-loss-pct": metrics.sd_loss_pct,
            "ds-loss-pct": metrics.ds_loss_pct,
            "late-arrival": metrics.late_arrival,
            "skipped": metrics.skipped,
            "duplicate": metrics.duplicate,
        },
        "out-of-sequence-values": {
            "sd-out-of-sequence": metrics.sd_out_of_sequence,
            "ds-out-of-sequence": metrics.ds_out_of_sequence,
        },
    }


def _assert_times(kind, script, found):
    """Times are not known beforehand, but the samples decide which there are and how they lie to
    one another.
    """
    metrics = expected_metrics(kind, script)
    rtt, latency = found["rtt-values"], found["one-way-latency-values"]
    jitter = found["jitter-values"]
    if metrics.status != 0:
        assert set(rtt.values()) | set(latency.values()) | set(jitter.values()) == {0}
    elif kind == "udp-echo":
        assert rtt["min"] == 0 and 0 < rtt["avg"] <= rtt["max"]
        assert set(latency.values()) | set(jitter.values()) == {0}
    elif kind == "udp-jitter-ntp":
        # No usable sample: the presets stay, rounded beyond the largest double by the 15 digits of
        # the document, and nothing divided by nothing has no number in JSON.
        preset = float(f"{model.LARGEST:.15g}")
        presets = {"min": preset, "max": -preset}
        assert metrics.skipped == metrics.ds_pkt_count and metrics.ds_smp_count == 0
        assert rtt == {**presets, "avg": None if math.isnan(metrics.rtt_avg) else metrics.rtt_avg}
    else:
        assert 0 < rtt["min"] <= rtt["max"] < 10_000 * SCALE
        for way in ("sd", "ds"):
            assert 0 <= latency[f"{way}-min"] <= latency[f"{way}-max"] <= rtt["max"]
            assert jitter[f"{way}-min"] == jitter[f"{way}-avg"] == jitter[f"{way}-max"] == 0


@pytest.mark.parametrize("kind, scripts", _batches())
def test_every_outcome_is_counted_as_the_model_says(lab, start_daemon, kind, scripts):
    numbers = range(1, len(scripts) + 1)
    responder = PatternResponder(lab, lambda port, run: scripts[port - FIRST_PORT - 1])
    start_daemon([_task(number, kind, scripts[number - 1].pattern.count) for number in numbers])
    api = ApiClient(lab)

    wait_for(
        lambda: len(api.all_statistics(groups=[])) == len(scripts),
        "one run of every task",
        deadline=30,
    )
    late = sum(outcome == LATE for script in scripts for outcome in script.pattern.outcomes)
    wait_for(lambda: responder.late_sent == late, "the late answers to be sent")
    statistics = api.all_statistics()
    assert [entry["sla-id"] for entry in statistics] == list(numbers)
    for script, entry in zip(scripts, statistics):
        expected = expected_statistics(kind, script)
        assert {
            name: entry[name] for name in expected
        } == expected, f"{script} of task {entry['sla-id']}"
        _assert_times(kind, script, entry)
