"""Waiting for a condition, with a deadline. Nothing in the tests sleeps for a fixed time and hopes.
"""

import os
import time

# Sanitized programs and a busy build machine are slow; a deadline only decides how long a failure
# takes.
SCALE = float(os.environ.get("IPSLA_DEADLINE_SCALE", "1"))
DEFAULT_DEADLINE = 20.0


def allowance(milliseconds):
    """A task's time for its replies: twice that where programs are slow. A run of a few hundred
    milliseconds still ends within its second.
    """
    return milliseconds * (2 if SCALE > 1 else 1)


def wait_for(condition, what, deadline=DEFAULT_DEADLINE, interval=0.02):
    """Returns the condition's first true value; fails with `what` when the deadline (seconds)
    passes.
    """
    end = time.monotonic() + deadline * SCALE
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= end:
            raise AssertionError(
                f"waited {deadline * SCALE:.0f} s in vain for {what}; last value: {value!r}"
            )
        time.sleep(interval)


def holds_for(condition, what, seconds):
    """Asserts that the condition stays true for some time: for things that must not happen."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        assert condition(), what
        time.sleep(0.02)
