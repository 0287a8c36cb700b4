"""The responder's sessions: copies of requests and probes, new runs, and how long sessions last."""

import itertools
import time

import pytest

from support.responder_program import (
    AUTHENTICATION_FAIL,
    ResponderProgram,
    Sender,
    session_id,
    statuses,
)
from support.waiting import wait_for

KEY = b"a key"
SIGNED = {"key": KEY, "mode": "password"}
MODES = pytest.mark.parametrize("signature", [{}, SIGNED], ids=["open", "signed"])


def start(lab, *options):
    return ResponderProgram(lab, "--password", KEY.decode(), "--allow-open", *options)


@MODES
def test_a_copy_of_the_request_in_mid_run_is_answered_again_and_resets_nothing(lab, signature):
    responder = start(lab)
    sender = Sender(lab)
    request = sender.request(**signature)
    first = sender.ask(request)
    assert [sender.exchange(sequence) for sequence in range(1, 6)] == [1, 2, 3, 4, 5]
    again = sender.ask(request)
    assert statuses(again) == (0, 0, 0)
    assert session_id(again) == session_id(first) and again[166:168] == first[166:168]
    assert [sender.exchange(sequence) for sequence in range(6, 11)] == [6, 7, 8, 9, 10]
    assert responder.lines("session ") == []
    assert responder.statistics()["sessions"]["answered again"] == 1


def test_late_copies_of_probes_after_a_copy_of_the_request_reset_nothing(lab):
    start(lab)
    sender = Sender(lab)
    request = sender.request()
    sender.ask(request)
    assert [sender.exchange(sequence) for sequence in range(1, 21)] == list(range(1, 21))
    sender.ask(request)
    # The path holds copies back by five probes.
    for sequence in range(21, 41):
        sender.probe(sequence - 5)
        sender.reply()
        assert sender.exchange(sequence) == sequence


def test_a_run_from_the_same_ports_is_counted_afresh(lab):
    responder = start(lab)
    sender = Sender(lab)
    request = sender.request()
    sender.ask(request)
    assert [sender.exchange(sequence) for sequence in range(1, 31)] == list(range(1, 31))
    for _ in range(2):
        assert statuses(sender.ask(request)) == (0, 0, 0)
        # The second probe is lost.
        run = [1, *range(3, 31)]
        assert [sender.exchange(sequence) for sequence in run] == list(range(1, 30))
    assert len(responder.wait_for_lines("session 1 restarted: ", 2)) == 2


def test_a_run_after_the_duration_is_a_new_one_whatever_is_lost(lab):
    """The session is still there. Of the run before the last probe was lost."""
    start(lab)
    sender = Sender(lab)
    request = sender.request(duration=200)
    sender.ask(request)
    began = time.monotonic()
    assert [sender.exchange(sequence) for sequence in range(1, 5)] == [1, 2, 3, 4]
    wait_for(lambda: time.monotonic() > began + 0.2, "the end of the run")
    sender.ask(request)
    assert [sender.exchange(sequence) for sequence in (1, 2, 3, 5)] == [1, 2, 3, 4]


def test_a_new_signed_run_replaces_the_session(lab):
    responder = start(lab)
    sender = Sender(lab)
    sender.ask(sender.request(**SIGNED))
    assert [sender.exchange(sequence) for sequence in (1, 2)] == [1, 2]
    assert session_id(sender.ask(sender.request(**SIGNED))) == 2
    assert sender.exchange(1) == 1
    responder.wait_for_lines("session 1 replaced: ")


def test_a_recorded_signed_request_opens_nothing_twice(lab):
    responder = start(lab)
    sender = Sender(lab)
    recorded = sender.request(**SIGNED)
    assert statuses(sender.ask(recorded)) == (0, 0, 0)
    # In the middle of the run that came after it.
    sender.ask(sender.request(**SIGNED, duration=1))
    sender.exchange(1)
    assert statuses(sender.ask(recorded)) == (1, AUTHENTICATION_FAIL, 0)
    assert sender.exchange(2) == 2
    # And when no session is left.
    responder.wait_for_lines("session 2 ended: ")
    assert statuses(sender.ask(recorded)) == (1, AUTHENTICATION_FAIL, 0)
    statistics = responder.statistics()
    assert statistics["refused for"]["repeated request"] == 2
    assert statistics["refused"] == {"authentication: authentication fail": 2}


def test_every_number_is_answered_where_the_path_triples_packets(lab):
    start(lab)
    sender = Sender(lab)
    sender.ask(sender.request())
    highest = 0
    for sequence in range(1, 121):
        for _ in range(3):
            sender.probe(sequence)
        answered = 0
        while answered != sequence:
            answered, counter = sender.reply()
            highest = max(highest, counter)
        assert highest == sequence


def test_a_session_lasts_no_longer_than_allowed(lab):
    responder = start(lab, "--max-duration", 1)
    sender = Sender(lab)
    answer = sender.ask(sender.request(duration=0xFFFFFFFF))
    assert int.from_bytes(answer[168:172], "big") == 1000
    assert responder.lines("session 1 shortened: 4294967295 ms asked for, 1000 ms given")
    responder.wait_for_lines("session 1 ended: ")


def test_an_idle_session_ends(lab):
    responder = start(lab, "--idle-timeout", 1)
    used, idle = Sender(lab), Sender(lab)
    used.ask(used.request())
    idle.ask(idle.request())

    numbers = itertools.count(1)

    def idle_is_gone():
        used.exchange(next(numbers))
        return responder.lines("session 2 idle: ")

    wait_for(idle_is_gone, "the idle session to end")
    assert responder.lines("session 1") == []
    assert responder.statistics()["sessions"]["idle"] == 1
