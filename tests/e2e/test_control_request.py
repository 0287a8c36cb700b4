"""Control-phase requests as they leave the daemon: golden bytes, digests recomputed, keys that
change, dumps.
"""

import struct

import pytest

from support.api_client import ApiClient
from support.control_message import DIGEST, NONCE, digest, dump_records, expected_request, unsigned
from support.responder import Control, ScriptedResponder
from support.tasks import task
from support.waiting import wait_for

KINDS = ["udp-echo", "udp-jitter", "udp-jitter-ntp"]
KEYCHAIN = {7: "a key of the chain", 255: "0x0102"}
AUTHENTICATIONS = {
    "open": ({"mode": "no"}, b""),
    "password sha256": (
        {"mode": "password", "algorithm": "sha256", "key-string": "0x0a1B"},
        b"\x0a\x1b",
    ),
    "password hmac": (
        {"mode": "password", "algorithm": "hmac-sha256", "key-string": "not hex"},
        b"not hex",
    ),
    "long password": (
        {"mode": "password", "algorithm": "hmac-sha256", "key-string": "k" * 200},
        b"k" * 200,
    ),
    "odd hex password": (
        {"mode": "password", "algorithm": "sha256", "key-string": "abc"},
        b"\xab\x0c",
    ),
    "keychain sha256": (
        {"mode": "keychain", "algorithm": "sha256", "key-id": 7},
        b"a key of the chain",
    ),
    "keychain hmac": ({"mode": "keychain", "algorithm": "hmac-sha256", "key-id": 255}, b"0x0102"),
}
CONTROL_PORT, FIRST_PORT = 2000, 3000


def requests_of(responder, number):
    """The requests of task `number`, told by the measurement port that they ask for, with their
    source ports.
    """
    return [
        (data, source[1])
        for data, source in list(responder.requests)
        if struct.unpack_from(">H", data, 166)[0] == FIRST_PORT + number
    ]


def a_task(number, kind="udp-jitter", authentication=None, **changes):
    changes.setdefault("packets", 1)
    measurement = {"dst-port": FIRST_PORT + number, **changes.pop("measurement", {})}
    return task(
        number,
        kind,
        authentication=authentication or {"mode": "no"},
        measurement=measurement,
        **changes,
    )


def test_requests_of_every_type_and_authentication(lab, start_daemon):
    tasks, keys = [], []
    for kind in KINDS:
        for authentication, key in AUTHENTICATIONS.values():
            tasks.append(
                a_task(
                    len(tasks) + 1, kind, dict(authentication), packets=10, interval=20, timeout=700
                )
            )
            keys.append(key)
    responder = ScriptedResponder(lab)
    responder.control = lambda number: Control(status=1)
    start_daemon(tasks, keychain=KEYCHAIN)
    for configured, key in zip(tasks, keys):
        number = configured["sla-id"]
        seen = wait_for(
            lambda: (lambda s: s if len(s) >= 3 else None)(requests_of(responder, number)),
            "3 requests",
        )
        authentication = configured["control-phase"]["authentication"]
        for data, source_port in seen:
            measurement_port = struct.unpack_from(">H", data, 164)[0]
            assert measurement_port not in (0, source_port)
            assert unsigned(data) == expected_request(configured, source_port, measurement_port)
            if authentication["mode"] == "no":
                assert data[32:80] == bytes(48)
            else:
                assert data[DIGEST] == digest(data, authentication["algorithm"], key), (
                    configured,
                    data.hex(),
                )
        if authentication["mode"] != "no":
            assert len({data[NONCE] for data, _ in seen}) == len(
                seen
            ), "every control phase has a nonce of its own"
            assert bytes(16) not in {data[NONCE] for data, _ in seen}


def test_duration_and_fixed_ports_in_the_request(lab, start_daemon):
    fixed = a_task(
        1,
        packets=10,
        interval=20,
        timeout=1000,
        time=2,
        control={"src-port": 4711},
        measurement={"src-port": 4712},
    )
    responder = ScriptedResponder(lab)
    responder.control = lambda number: Control(status=1)
    start_daemon([fixed])
    wait_for(lambda: len(requests_of(responder, 1)) >= 2, "two requests from the same ports")
    for data, source_port in requests_of(responder, 1):
        assert source_port == 4711
        assert data == expected_request(fixed, 4711, 4712)
        assert data[160:172] == bytes.fromhex("1267 0000 1268 0bb9 000004f6")


def test_reserved_bytes_are_zero(lab, start_daemon):
    responder = ScriptedResponder(lab)
    responder.control = lambda number: Control(status=1)
    start_daemon(
        [a_task(1, authentication=dict(AUTHENTICATIONS["keychain hmac"][0]))], keychain=KEYCHAIN
    )
    wait_for(lambda: responder.requests, "a request")
    data = responder.requests[0][0]
    for first, last in ((1, 1), (4, 7), (12, 19), (30, 30), (91, 95), (162, 163)):
        assert data[first : last + 1] == bytes(last + 1 - first), f"bytes {first} to {last}"


def test_a_keychain_read_again_changes_the_key_of_a_running_test(lab, start_daemon):
    configured = a_task(1, authentication={"mode": "keychain", "algorithm": "sha256", "key-id": 7})
    responder = ScriptedResponder(lab)
    daemon = start_daemon([configured], keychain={7: "first"})
    api = ApiClient(lab)

    def signed_with(key):
        data = responder.requests[-1][0] if responder.requests else bytes(172)
        return data[DIGEST] == digest(data, "sha256", key)

    def wait_for_key(key):
        wait_for(lambda: signed_with(key), f"a request signed with {key}")

    def count(condition):
        return len([report for report in daemon.reports(1) if condition(report)])

    wait_for_key(b"first")
    daemon.write_keychain({7: "second and longer"})
    assert api.reload_keychain() == 0
    wait_for_key(b"second and longer")
    daemon.write_keychain({8: "another"})
    assert api.reload_keychain() == 0
    daemon.wait_for_record("Error: Start test failed", task=1)
    daemon.wait_for_record("(test 1) Get auth key failed for test 1", task=1)
    while_gone = len(responder.requests)
    failed = count(lambda report: report.error == "Start test failed")
    wait_for(
        lambda: count(lambda report: report.error == "Start test failed") > failed,
        "a further run without a key",
    )
    assert len(responder.requests) == while_gone, "no request without a key"
    daemon.write_keychain({7: "third"})
    assert api.reload_keychain() == 0
    wait_for_key(b"third")
    good = count(lambda report: report.status == "successful")
    wait_for(lambda: count(lambda report: report.status == "successful") > good, "a good run again")


def _dumps(records, title):
    """Start indexes of the dumps of one kind in a list of records."""
    return [
        place for place, text in enumerate(records) if text.startswith(f" [Control phase {title}]")
    ]


@pytest.mark.parametrize("name", ["open", "password hmac", "keychain sha256"])
def test_dumps_show_the_request_before_its_nonce_and_the_response_as_received(
    lab, start_daemon, name
):
    authentication, key = AUTHENTICATIONS[name]
    mode = authentication["mode"]
    configured = a_task(1, timeout=300, authentication=dict(authentication))
    responder = ScriptedResponder(lab)
    daemon = start_daemon([configured], keychain=KEYCHAIN)
    daemon.wait_for_reports(1, count=2)
    records = daemon.log_records(1)
    requests, responses = _dumps(records, "request"), _dumps(records, "response")
    first, second = (data for data, _ in responder.requests[:2])
    # Before the first run's nonce and digest there are none, before the second's there are the
    # first's.
    shown_second = second[:32] + first[32:80] + second[80:]
    for start, message in ((requests[0], unsigned(first)), (requests[1], shown_second)):
        expected = dump_records(message, mode, key.decode())
        assert records[start : start + len(expected)] == expected
    answer = bytearray(first)
    struct.pack_into(">H", answer, 166, responder.measurement_port)
    expected = dump_records(answer, mode, key.decode(), response=True)
    assert records[responses[0] : responses[0] + len(expected)] == expected
    timers = [place for place, text in enumerate(records) if text.startswith("func '")]
    names = [records[place].split("'")[1] for place in timers]
    assert names[:3] == ["NewStart", "ControlPhaseTimer", "TestStop"]
    assert requests[0] < timers[1] < responses[0] < timers[2]
    assert records[timers[1]] == "func 'ControlPhaseTimer' timeout 500 ms"
    assert records[timers[2]] == "func 'TestStop' timeout 317 ms"
    ids = [
        record.text
        for record in daemon.syslog()
        if "   .  .  |- ID                     : #" in record.text
    ]
    # The system log gets the key id of a password task too; the file gets it of a keychain task
    # only.
    assert (len(ids) > 0) == (mode != "no")


def test_icmp_tasks_send_no_request(lab, start_daemon):
    responder = ScriptedResponder(lab)
    daemon = start_daemon([task(1, "icmp-echo"), task(2, "icmp-jitter")])
    daemon.wait_for_reports(1)
    daemon.wait_for_reports(2)
    assert responder.requests == []
