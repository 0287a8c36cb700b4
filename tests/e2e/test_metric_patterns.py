"""The daemon's metric calculations against the model, over every small pattern of loss, order,
copies and delay.
"""

import itertools
import random

import pytest

from support import metric_model as model
from support.metrics_runner import Comparison, history_line, line_of
from support.run_events import (
    OUTCOMES,
    Pattern,
    Reply,
    Run,
    Timing,
    all_patterns,
    metrics_of,
    reaching,
    replying,
    run_of,
)


@pytest.fixture
def comparison(build):
    return Comparison(build)


def _add(comparison, run, budget_ms):
    """Adds a run that the daemon would calculate: one with at least one accepted reply."""
    if run.accepted > 0:
        line = line_of(run, budget_ms)
        comparison.add(line, metrics_of(run, budget_ms))


def _add_pattern(comparison, kind, pattern, timing):
    run = run_of(kind, timing.sends(pattern.count), timing.replies(pattern))
    _add(comparison, run, timing.budget_ms(pattern.count))


# Patterns with at least one reply: over the outcomes, the orders of those that arrive times the
# orders of the replies.
PATTERNS_WITH_A_REPLY = {1: 3, 2: 54, 3: 1503, 4: 70788}


@pytest.mark.parametrize("count", [1, 2, 3, 4])
def test_every_udp_jitter_pattern_agrees_with_the_model(comparison, count):
    timing = Timing()
    for pattern in all_patterns(count):
        _add_pattern(comparison, model.UDP_JITTER, pattern, timing)
    assert len(comparison) == PATTERNS_WITH_A_REPLY[count]
    comparison.run()


@pytest.mark.parametrize("count", [1, 2, 3, 4])
def test_every_udp_echo_outcome_and_reply_order_agrees_with_the_model(comparison, count):
    for outcomes in itertools.product(OUTCOMES, repeat=count):
        for replies in itertools.permutations(replying(outcomes)):
            _add_pattern(
                comparison,
                model.UDP_ECHO,
                Pattern(outcomes, tuple(reaching(outcomes)), replies),
                Timing(),
            )
    comparison.run()


@pytest.mark.parametrize("count", [1, 2, 3])
def test_no_ntp_reply_is_usable_whatever_the_pattern(comparison, count):
    timing = Timing()
    for pattern in all_patterns(count):
        run = run_of(model.UDP_JITTER_NTP, timing.sends(count), timing.replies(pattern))
        if run.accepted:
            line = line_of(run, timing.budget_ms(count))
            expected = metrics_of(run, timing.budget_ms(count))
            assert expected.skipped == run.accepted and expected.ds_smp_count == 0
            comparison.add(line, expected)
    comparison.run()


@pytest.mark.parametrize("count", [1, 2, 3])
def test_every_pattern_agrees_with_the_model_whatever_the_responders_clock_says(comparison, count):
    """Responder stamps at and beyond both ends of the round trip, to the millisecond and to the
    unit.
    """
    timing = Timing(base=432_100_000 * 10_000 + 99_999, timeout_ms=100)
    for pattern in all_patterns(count):
        for offset in (-200_000, -99_999, 0, 1, 50_000):
            replies = timing.replies(pattern)
            sends = timing.sends(count)
            for place, reply in enumerate(replies):
                start = reply.received if place % 2 else sends[reply.sequence - 1]
                reply.remote = max(0, start + offset)
            _add(comparison, run_of(model.UDP_JITTER, sends, replies), timing.budget_ms(count))
    comparison.run()


@pytest.mark.parametrize("distance", [-1, 0, 1])
def test_a_reply_counts_up_to_the_budget_and_not_a_unit_longer(comparison, distance):
    budget_ms = 1000 + (20 + 7) * 10
    sends = [5_000_000_000 + place * 2_000_000 for place in range(10)]
    replies = [Reply(n, n, sends[n - 1] + 10, sends[n - 1] + 20) for n in range(1, 10)]
    replies.append(Reply(10, 10, sends[9] + 10, sends[9] + budget_ms * 100_000 + distance))
    run = run_of(model.UDP_JITTER, sends, replies)
    line, expected = line_of(run, budget_ms), metrics_of(run, budget_ms)
    assert budget_ms == 1270 and expected.skipped == (1 if distance > 0 else 0)
    comparison.add(line, expected)
    comparison.run()


def test_replies_stamped_at_or_before_their_probes_agree_with_the_model(comparison):
    timing = Timing()
    for count in (1, 2, 3, 4):
        sends = timing.sends(count)
        for durations in itertools.product((-1, 0, 1000), repeat=count):
            for order in itertools.permutations(range(1, count + 1)):
                replies = [
                    Reply(n, n, sends[n - 1], sends[n - 1] + durations[n - 1]) for n in order
                ]
                _add(comparison, run_of(model.UDP_JITTER, sends, replies), timing.budget_ms(count))
    comparison.run()


def test_counters_that_jump_repeat_or_are_zero_agree_with_the_model(comparison):
    """A responder that restarts, answers copies with new numbers, or does not count at all."""
    timing = Timing()
    for count in (1, 2, 3):
        sends = timing.sends(count)
        for order in itertools.permutations(range(1, count + 1)):
            for counters in itertools.product((0, 1, 2, 5, 2**31 - 2), repeat=count):
                replies = [
                    Reply(n, counter, sends[-1] + 500_000, sends[-1] + 1_000_000 + place * 1000)
                    for place, (n, counter) in enumerate(zip(order, counters))
                ]
                _add(comparison, run_of(model.UDP_JITTER, sends, replies), timing.budget_ms(count))
    comparison.run()


@pytest.mark.parametrize("count", [1, 2, 3, 4])
def test_every_icmp_jitter_pattern_agrees_with_the_model(comparison, count):
    """Every set of answered probes, every order of the replies and of the peer's stamps, equal ones
    included.
    """
    sends = [50_000_000 + 10 * place for place in range(count)]
    for answered in range(1, count + 1):
        for replies in itertools.permutations(range(1, count + 1), answered):
            for stamps in itertools.product(range(answered), repeat=answered):
                arriving = [
                    Reply(number, 0, sends[-1] + 3 + stamp, sends[-1] + 9.25 + place * 1.125)
                    for place, (number, stamp) in enumerate(zip(replies, stamps))
                ]
                _add(comparison, run_of(model.ICMP_JITTER, sends, arriving), 0)
    comparison.run()


def test_icmp_stamps_outside_the_round_trip_agree_with_the_model(comparison):
    sends = [50_000_000, 50_000_010]
    for receive, transmit in itertools.product((-5, 0, 3, 12, 13, 40), repeat=2):
        replies = [
            Reply(
                n,
                0,
                sends[n - 1] + transmit,
                sends[n - 1] + 12.5,
                remote_receive=sends[n - 1] + receive,
            )
            for n in (2, 1)
        ]
        _add(comparison, run_of(model.ICMP_JITTER, sends, replies), 0)
    comparison.run()


@pytest.mark.parametrize("seed", range(4))
def test_long_runs_of_every_type_agree_with_the_model(comparison, seed):
    """Random runs of up to 40 probes, with everything that the small patterns hold one by one."""
    random_numbers = random.Random(seed)
    for _ in range(1500):
        count = random_numbers.randint(5, 40)
        outcomes = tuple(random_numbers.choices(OUTCOMES, weights=(6, 1, 1, 1, 1), k=count))
        arrivals = _nearly_ordered(random_numbers, reaching(outcomes))
        replies = _nearly_ordered(random_numbers, replying(outcomes))
        timing = Timing(
            base=random_numbers.randint(0, 8_000_000_000_000),
            interval_ms=random_numbers.randint(0, 30),
            spacing=random_numbers.randint(1, 200_000),
            jitter=tuple(random_numbers.randint(-300_000, 300_000) for _ in range(7)),
        )
        kind = random_numbers.choice(
            (model.UDP_JITTER, model.UDP_JITTER, model.UDP_ECHO, model.UDP_JITTER_NTP)
        )
        _add_pattern(comparison, kind, Pattern(outcomes, arrivals, replies), timing)
    comparison.run()


def _nearly_ordered(random_numbers, numbers):
    keys = {
        number: number + random_numbers.choice((0, 0, 0, random_numbers.uniform(-6, 6)))
        for number in numbers
    }
    return tuple(sorted(numbers, key=keys.get))


def test_ntp_stamps_are_compared_in_whole_milliseconds(comparison):
    """The calculation on complete records; no run of the daemon fills them so."""
    random_numbers = random.Random(7)
    start = 3_900_000_000
    for _ in range(3000):
        count = random_numbers.randint(1, 4)
        run = run_of(model.UDP_JITTER_NTP, [1000] * count, [Reply(n) for n in range(1, count + 1)])
        for record in run.records:
            seconds = [start + random_numbers.randint(0, 2) for _ in range(4)]
            record.ntp = tuple(
                (second << 32) | random_numbers.getrandbits(32) for second in seconds
            )
            record.receive_stamp, record.rs = 2000, record.id + 1
        _add(comparison, run, 1000)
    comparison.run()


# Counters of the largest possible value are outside the model's domain: the next one is 0.
_EDGES_32 = (*range(6), *range(2**31 - 2, 2**31 + 2), *range(2**32 - 8, 2**32 - 1))


def _hostile_record(random_numbers):
    """Values around the limits of their types, of each other, and anything in between."""

    def u32():
        return random_numbers.choice((*_EDGES_32, random_numbers.randrange(2**32 - 1)))

    def stamp():
        return random_numbers.choice(
            (
                random_numbers.randrange(4),
                2**64 - 1 - random_numbers.randrange(4),
                (4000 + random_numbers.randrange(700)) * model.UNITS_PER_MS,
                random_numbers.randrange(2**64),
            )
        )

    state = random_numbers.choice((model.SENT, model.RECEIVED, random_numbers.randrange(256)))
    return model.Record(
        id=u32(),
        state=state,
        ss=u32(),
        rs=u32(),
        send_stamp=stamp(),
        remote_receive=stamp(),
        remote_transmit=stamp(),
        receive_stamp=stamp(),
        send_ms=float(random_numbers.randrange(86_400_000)),
        receive_ms=random_numbers.randrange(86_400_000) + 0.5,
        ntp=tuple(stamp() for _ in range(4)),
    )


@pytest.mark.parametrize("kind", [model.UDP_JITTER, model.UDP_JITTER_NTP, model.ICMP_JITTER])
def test_whatever_a_hostile_peer_leaves_in_the_records_agrees_with_the_model(comparison, kind):
    random_numbers = random.Random(20240305)
    for _ in range(4000):
        count = random_numbers.randrange(12)
        run = Run(kind, [_hostile_record(random_numbers) for _ in range(count)])
        run.responder_count = random_numbers.choice((*_EDGES_32, random_numbers.randrange(2**32)))
        run.accepted = 1
        budget_ms = random_numbers.choice((*_EDGES_32, random_numbers.randrange(2**32)))
        _add(comparison, run, budget_ms)
    comparison.run()


def test_the_latest_value_aggregates_the_history_as_the_model_does(build):
    comparison = Comparison(build)
    comparison.NAMES = [
        f"jitter_{way}_{value}" for way in ("sd", "ds") for value in ("min", "avg", "sd", "max")
    ]
    random_numbers = random.Random(3)
    for _ in range(2000):
        history = []
        for _ in range(random_numbers.randint(1, 5)):
            entry = model.Metrics(status=random_numbers.choice((0, 0, 1)))
            for name in comparison.NAMES:
                setattr(entry, name, random_numbers.choice((0.0, random_numbers.uniform(-5, 50))))
            history.append(entry)
        history[-1].status = 0
        comparison.add(history_line(history), model.latest_of_history(model.UDP_JITTER, history))
    comparison.run()
