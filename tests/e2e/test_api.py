"""The Sender API as raw datagrams: what is echoed, what fails, what each command answers and logs,
and that nothing that can be sent to the socket keeps the daemon from answering."""

import json
import random
import socket
import struct

import pytest
from support import schemas
from support.api_client import (
    ALL_STATISTICS,
    GROUPS,
    HEADER_SIZE,
    RELOAD_KEYCHAIN,
    RELOAD_TASKS,
    STATISTICS,
    STATUS,
    ApiClient,
    Header,
)
from support.responder import ScriptedResponder
from support.tasks import icmp_echo, icmp_jitter, udp_echo, udp_jitter, udp_jitter_ntp
from support.waiting import wait_for

# A header in which every field that must be echoed is told apart from a default.
ODD = Header(
    prefix=b"\xa0\xa1\xa2\xa3\xa4\xa5\xa6\xa7",
    flags=0xF6,
    reserved=b"\xb0\xb1",
    fragment=0x11223344,
    length=77,
)
UNREACHABLE = "192.0.2.10"  # on no interface


def _odd(command, **changes):
    return Header(**{**ODD.__dict__, "command": command, "block": 0x99AABBCC, **changes})


def _header_reply(request, result):
    """The 28 bytes that answer a request without JSON."""
    fields = {
        **request.__dict__,
        "flags": request.flags & 0xFE,
        "length": 28,
        "block": 8,
        "result": result,
    }
    return Header(**fields).pack()


def _json_replies(request, text):
    """The datagrams of a JSON reply, made from the rules alone."""
    payload, datagrams = text.encode() + b"\0", []
    while payload:
        last = len(payload) < 8164
        part, payload = payload[:8164], payload[8164:]
        flags = request.flags & 0xFE if last else request.flags | 1
        fields = {
            "flags": flags,
            "fragment": len(datagrams) + 1,
            "length": len(part) + 28,
            "block": len(part) + 8,
        }
        datagrams.append(Header(**{**request.__dict__, **fields}).pack() + part)
    return datagrams


def _answers_correctly(client):
    return client.status(1) == [{"sla-id": 1, "status": True}]


@pytest.fixture
def daemon(start_daemon):
    """Task 1 runs and finds its replies; task 10 fails at once, run after run."""
    return start_daemon([icmp_echo(1), icmp_jitter(10, src=UNREACHABLE)])


@pytest.fixture
def client(lab, daemon):
    return ApiClient(lab)


def _with_results(daemon, *tasks):
    for task in tasks or (1, 10):
        daemon.wait_for_reports(task)


def test_wrong_marker_is_refused_with_the_header_echoed(client):
    for marker in (0, 2, 255):
        request = _odd(STATUS, marker=marker)
        client.send(request.pack() + b'{"tasks":[1]}\0')
        assert client.receive() == _header_reply(request, 4)


def test_result_other_than_zero_is_refused(client):
    for result in (7, 4, 1, 65535):
        request = _odd(STATUS, result=result)
        client.send(request.pack() + b'{"tasks":[1]}\0')
        assert client.receive() == _header_reply(request, 4)


def test_refused_requests_reach_no_command(daemon, client):
    client.send(_odd(STATUS, marker=0).pack())
    client.send(_odd(STATUS, result=7).pack())
    client.receive(), client.receive()
    assert _answers_correctly(client)
    daemon.wait_for_record("Recive commad ")
    assert len([record for record in daemon.log_records() if "Recive commad" in record]) == 1


def test_missing_header_bytes_read_as_zero(client):
    whole = Header(
        prefix=b"\xa0\xa1\xa2\xa3\xa4\xa5\xa6\xa7",
        flags=0xFF,
        reserved=b"\xb0\xb1",
        command=STATISTICS,
    )
    for size in range(1, HEADER_SIZE):
        cut = whole.pack()[:size].ljust(HEADER_SIZE, b"\0")
        client.send(whole.pack()[:size])
        assert client.receive() == _header_reply(Header.unpack(cut), 4), f"{size} bytes"


def test_short_datagram_is_not_completed_by_an_earlier_one(client):
    assert _answers_correctly(client)
    client.send(Header(command=STATUS).pack())  # would find the earlier text behind its header
    assert Header.unpack(client.receive()).result == 4


def test_empty_datagram_is_not_answered_and_does_no_harm(client):
    client.send(b"")
    assert _answers_correctly(client), "the first reply is the one to the second request"


def test_unknown_commands_are_answered_as_done(daemon, client):
    for command in (7, 5, 65535):
        client.send(_odd(command).pack() + b"no JSON")
        assert client.receive() == _header_reply(_odd(command), 0)
    daemon.wait_for_record("Recive commad unknown command", count=3)


@pytest.mark.parametrize("command", [STATISTICS, ALL_STATISTICS, STATUS])
def test_text_that_is_no_json_is_refused(daemon, client, command):
    request = _odd(command)
    for text in (b"", b"\0", b"{", b'{"tasks":[1,]}\0', b"\xff\xfe\0", b"nonsense\0"):
        client.send(request.pack() + text)
        assert client.receive() == _header_reply(request, 4), text
    daemon.wait_for_record("JSON parse error at line: ", count=6)
    assert "JSON parse error at line: nonsense" in daemon.log_records()


def test_text_ends_at_its_nul_or_at_the_end_of_the_datagram(client):
    expected = _json_replies(_odd(STATUS), '{"tasks":[{"sla-id":1,"status":true}]}')
    for text in (
        b'{"tasks":[1]}',
        b'{"tasks":[1]}\0',
        b'{"tasks":[1]}\0{"tasks":[10]}',
        b' \n{"tasks" : [1] }\n\0\xff',
    ):
        client.send(_odd(STATUS).pack() + text)
        assert [client.receive()] == expected, text


def test_text_nested_deeper_than_32_levels_is_refused(client):
    for depth, result in ((32, 0), (33, 4), (980, 4), (4000, 4)):
        inner = b"[" * (depth - 1) + b"]" * (depth - 1)
        reply = client.request(STATUS, b'{"tasks":[],"x":' + inner + b"}\0")
        assert reply.result == result, depth
    assert _answers_correctly(client)


def test_longest_request_is_read_whole_and_a_longer_one_is_not(client):
    text = b'{"tasks":[1]}'.ljust(8164)
    assert client.request(STATUS, text).text == '{"tasks":[{"sla-id":1,"status":true}]}'
    assert client.request(STATUS, b'{"tasks":[1'.ljust(8164) + b"]}\0").result == 4


def test_status_of_known_ids_only_in_the_order_asked_for(client):
    client.send(_odd(STATUS).pack() + b'{"tasks":[1,999]}\0')
    assert [client.receive()] == _json_replies(
        _odd(STATUS), '{"tasks":[{"sla-id":1,"status":true}]}'
    )
    text = client.request(STATUS, {"tasks": [10, 65537, 1, -1, "1", 1.9]}).text
    entry = '{"sla-id":%d,"status":true}'
    assert text == '{"tasks":[' + ",".join(entry % number for number in (10, 1, 1)) + "]}"
    assert client.request(STATUS, {"tasks": []}).text == '{"tasks":[]}'


@pytest.mark.parametrize("body", [{}, {"tasks": 5}, {"tasks": {"0": 1}}, [], 5])
def test_status_without_an_array_of_tasks_is_refused(daemon, client, body):
    client.send(_odd(STATUS).pack() + json.dumps(body).encode() + b"\0")
    assert client.receive() == _header_reply(_odd(STATUS), 4)
    daemon.wait_for_record("cJSON_IsArray() failed: invalid requested tasks")


def _ids_for(characters):
    """Ids 1 and 10 whose status reply has exactly so many characters."""
    single = len('{"sla-id":1,"status":true},')
    count, wider = divmod(characters - len('{"tasks":[]}') + 1, single)
    assert wider <= count
    return [10] * wider + [1] * (count - wider)


@pytest.mark.parametrize(
    "characters, slices",
    [
        (8162, [8163]),
        # Exactly full: the more bit stays set and no empty fragment follows.
        (8163, [8164]),
        (8164, [8164, 1]),
        (16327, [8164, 8164]),
        (20000, [8164, 8164, 3673]),
    ],
)
def test_reply_is_cut_into_fragments(client, characters, slices):
    ids = _ids_for(characters)
    text = '{"tasks":[' + ",".join('{"sla-id":%d,"status":true}' % number for number in ids) + "]}"
    assert len(text) == characters
    body = json.dumps({"tasks": ids}, separators=(",", ":")).encode() + b"\0"
    client.send(_odd(STATUS).pack() + body)
    expected = _json_replies(_odd(STATUS), text)
    assert [len(datagram) - HEADER_SIZE for datagram in expected] == slices
    assert [client.receive() for _ in slices] == expected
    client.send(_odd(7).pack())
    assert client.receive() == _header_reply(_odd(7), 0), "nothing follows the last fragment"


def test_statistics_of_nothing(client):
    client.send(_odd(STATISTICS).pack() + b'{"tasks":[]}\0')
    assert [client.receive()] == _json_replies(_odd(STATISTICS), '{"tasks":[]}')
    assert client.statistics(2, 999) == []


@pytest.mark.parametrize("body", [{}, {"tasks": 5}, {"tasks": None}, 5, []])
def test_statistics_without_an_array_of_tasks_are_refused(daemon, client, body):
    client.send(_odd(STATISTICS).pack() + json.dumps(body).encode() + b"\0")
    assert client.receive() == _header_reply(_odd(STATISTICS), 4)
    daemon.wait_for_record("cJSON_IsArray() failed: invalid sla task object")


@pytest.mark.parametrize(
    "command, body",
    [
        (STATISTICS, {"tasks": [{"sla-id": 1}]}),
        (STATISTICS, {"tasks": [{"sla-id": 1, "metrics": "rtt-values"}]}),
        (STATISTICS, {"tasks": [{"sla-id": 1, "metrics": []}, {"sla-id": 2, "metrics": {}}]}),
        (ALL_STATISTICS, {}),
        (ALL_STATISTICS, {"metrics": 5}),
    ],
)
def test_metrics_that_are_no_array_are_refused(daemon, client, command, body):
    client.send(_odd(command).pack() + json.dumps(body).encode() + b"\0")
    assert client.receive() == _header_reply(_odd(command), 4)
    daemon.wait_for_record("cJSON_IsArray() failed: invalid requested metrics")


def _keys(text):
    """The keys of the first task object in their order, those of groups left out."""
    (first, *_) = json.loads(text, object_pairs_hook=list)[0][1]
    return [key for key, _ in first]


FIXED_KEYS = [
    "sla-id",
    "status",
    "error-description",
    "start-time",
    "finish-time",
    "successful-count",
    "failed-count",
    "transm-pkt-count",
    "test-type",
    "src-address",
    "dst-address",
    "iface-name",
    "sd-smp-count",
    "ds-smp-count",
    "sd-pkt-count",
    "ds-pkt-count",
]


def test_groups_come_sorted_and_once_and_unknown_names_are_dropped(daemon, client):
    _with_results(daemon, 1)
    names = ["loss-values", "rtt-values", "loss-values", "no-such-values", 5, None, ["rtt-values"]]
    text = client.request(STATISTICS, {"tasks": [{"sla-id": 1, "metrics": names}]}).text
    assert _keys(text) == FIXED_KEYS + ["loss-values", "rtt-values"]
    text = client.request(STATISTICS, {"tasks": [{"sla-id": 1, "metrics": GROUPS}]}).text
    assert _keys(text) == FIXED_KEYS + sorted(GROUPS)


def test_no_valid_group_leaves_the_fixed_keys(daemon, client):
    _with_results(daemon, 1)
    text = client.request(
        STATISTICS, {"tasks": [{"sla-id": 1, "metrics": ["no-such-values"]}]}
    ).text
    assert _keys(text) == FIXED_KEYS


def test_failed_run_reports_no_transmitted_packets(daemon, client):
    _with_results(daemon)
    good, bad = client.statistics(10, 1)
    assert (good["sla-id"], good["status"], good["transm-pkt-count"]) == (1, "successful", 5)
    assert (bad["sla-id"], bad["status"], bad["transm-pkt-count"]) == (10, "fail", 0)
    assert bad["error-description"] == "source address or interface not exist"
    assert bad["rtt-values"] == {"min": 0, "avg": 0, "max": 0}


def test_id_asked_for_twice_keeps_its_first_groups(daemon, client):
    _with_results(daemon, 1)
    tasks = [{"sla-id": 1, "metrics": ["rtt-values"]}, {"sla-id": 1, "metrics": ["loss-values"]}]
    text = client.request(STATISTICS, {"tasks": tasks}).text
    assert _keys(text) == FIXED_KEYS + ["rtt-values"]
    assert len(json.loads(text)["tasks"]) == 1


def test_element_without_an_id_is_skipped(daemon, client):
    _with_results(daemon, 1)
    tasks = [{"metrics": []}, 5, "text", {}, {"sla-id": 1, "metrics": []}]
    reply = client.request(STATISTICS, {"tasks": tasks})
    assert [task["sla-id"] for task in reply.document["tasks"]] == [1]


def test_wide_id_shows_the_statistics_of_its_low_16_bits_without_the_configuration(daemon, client):
    _with_results(daemon, 1)
    (plain,) = client.statistics(1, groups=[])
    (wide,) = client.statistics(65537, groups=[])
    assert wide["sla-id"] == 65537
    assert wide["successful-count"] >= plain["successful-count"] > 0
    assert wide["transm-pkt-count"] == 0
    assert set(plain) - set(wide) == {"test-type", "src-address", "dst-address", "iface-name"}
    (negative,) = client.statistics(1 - 65536, groups=[])
    assert negative["sla-id"] == 1 - 65536


def test_any_integer_is_taken_for_an_id(daemon, client):
    """Deliberately lenient: what is no number has the integer value 0."""
    _with_results(daemon, 1)
    tasks = [
        {"sla-id": "1", "metrics": []},
        {"sla-id": None, "metrics": []},
        {"sla-id": 1.7, "metrics": []},
    ]
    reply = client.request(STATISTICS, {"tasks": tasks})
    assert reply.result == 0
    assert [task["sla-id"] for task in reply.document["tasks"]] == [1]


def test_all_active_statistics_hold_every_task_that_has_run(daemon, client):
    _with_results(daemon)
    assert [task["sla-id"] for task in client.all_statistics(groups=[])] == [1, 10]


def test_request_and_reply_are_logged(daemon, client):
    client.request(STATUS, {"tasks": [1]})
    daemon.wait_for_record("SenderAPI response JSON:")
    records = daemon.log_records()
    start = records.index("Recive commad SENDER_API_CSLD_GET_TASK_STATUS")
    assert records[start + 1] == 'SenderAPI request JSON:\n{\n\t"tasks":\t[1]\n}'
    assert records[start + 2].startswith(
        'SenderAPI response JSON:\n{\n\t"tasks":\t[{\n\t\t\t"sla-id":\t1,\n'
    )


def test_reloads_ignore_their_payload(daemon, client):
    for command in (RELOAD_TASKS, RELOAD_KEYCHAIN):
        client.send(_odd(command).pack() + b"no JSON")
        assert client.receive() == _header_reply(_odd(command), 0)
    daemon.wait_for_record("Recive commad SENDER_API_CSLD_PARSE_TASKS_CONFIG")
    daemon.wait_for_record("Recive commad SENDER_API_CSLD_PARSE_KEYCHAIN_CONFIG")


def test_replies_of_every_type_follow_the_schema(lab, start_daemon):
    ScriptedResponder(lab)
    lab.add_vrf("blue")
    tasks = [
        udp_echo(1, control={"src-port": "any"}, measurement={"packet-size": 70}),
        udp_jitter(2),
        udp_jitter_ntp(3),
        icmp_echo(4, src="10.1.0.1", dst="10.1.0.2", vrf="blue"),
        icmp_jitter(5),
        icmp_jitter(6, src=UNREACHABLE),
    ]
    daemon = start_daemon(tasks)
    for task in range(1, 7):
        daemon.wait_for_reports(task)
    reply = ApiClient(lab).request(ALL_STATISTICS, {"metrics": GROUPS})
    schemas.check(
        json.loads(reply.text, parse_constant=lambda text: pytest.fail(text)), "statistics"
    )
    by_id = {task["sla-id"]: task for task in reply.document["tasks"]}
    assert [by_id[task]["test-type"] for task in range(1, 7)] == [1, 2, 3, 4, 5, 5]
    assert by_id[4]["vrf-instance"] == "blue" and "vrf-instance" not in by_id[5]
    assert by_id[3]["rtt-values"]["avg"] is None, "every reply of this type counts as skipped"
    assert [by_id[task]["status"] for task in range(1, 7)] == ["successful"] * 5 + ["fail"]


def _send_from_port_zero(lab, payload):
    """A datagram that cannot be answered."""
    raw = lab.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_UDP)
    raw.sendto(struct.pack(">HHHH", 0, 10101, 8 + len(payload), 0) + payload, ("127.0.0.1", 0))


def test_requester_that_cannot_be_answered_ends_its_request_not_the_daemon(lab, daemon, client):
    _send_from_port_zero(lab, _odd(STATUS, marker=0).pack())
    daemon.wait_for_record("send_to: ")
    _send_from_port_zero(lab, _odd(STATUS).pack() + b'{"tasks":[1]}\0')
    daemon.wait_for_record("sendto() failed: ")
    assert _answers_correctly(client)


def test_requester_that_is_gone_does_no_harm(lab, client):
    for _ in range(20):
        gone = ApiClient(lab)
        gone.send(_odd(STATUS).pack() + b'{"tasks":[1]}\0')
        gone.socket.close()
    assert _answers_correctly(client)


def test_burst_of_1000_requests_is_answered_whole(client):
    client.socket.setsockopt(socket.SOL_SOCKET, 33, 16 << 20)  # SO_RCVBUFFORCE
    for number in range(1000):
        text = b'{"tasks":[1]}'.ljust(1000) if number % 10 == 0 else b"no JSON"
        client.send(_odd(STATUS, prefix=struct.pack(">Q", number)).pack() + text)
    prefixes = [Header.unpack(client.receive()).prefix for _ in range(1000)]
    assert prefixes == [struct.pack(">Q", number) for number in range(1000)]


# -- hostile datagrams
# -----------------------------------------------------------------------------------------------

_SEEDS = [
    b'{"tasks":[{"sla-id":1,"metrics":["rtt-values","loss-values"]},{"sla-id":10,"metrics":[]}]}\0',
    b'{"metrics":["rtt-values","one-way-latency-values","jitter-values","loss-values","out-of-sequence-values"]}\0',
    b'{"tasks":[1,10,999,-1,1e300,0.5,null,true,"x",[],{}]}\0',
]


def _hostile_text(rng):
    kind = rng.randrange(8)
    if kind == 0:
        return rng.randbytes(rng.randrange(8165))
    if kind == 1:
        depth = rng.choice([31, 32, 33, 100, 1000, 4000])
        opening, closing = rng.choice([(b"[", b"]"), (b'{"a":', b"1}")])
        return (opening * depth)[:8000] + closing * rng.randrange(depth + 1)
    if kind == 2:
        return b'{"tasks":"' + rng.randbytes(rng.randrange(200)) + b'"}\0'
    if kind == 3:
        return b'{"tasks":[' + b"1" * rng.randrange(8000) + b"]}"
    if kind == 4:
        return (
            b'{"tasks":["\\u'
            + bytes(rng.choices(b"0123456789abcdefDd8cCxX\\u", k=rng.randrange(40)))
            + b'"]}\0'
        )
    seed = bytearray(rng.choice(_SEEDS))
    for _ in range(rng.randrange(4)):
        seed[rng.randrange(len(seed))] = rng.randrange(256)
    return bytes(seed[: rng.randrange(len(seed) + 1)]) if kind == 5 else bytes(seed)


def _hostile_datagram(rng, number):
    """Its first 8 bytes, when it has so many, tell it from the others."""
    header = bytearray(
        Header(
            prefix=struct.pack(">Q", number), command=rng.choice([0, 0, 1, 2, 2, 3, 4, 5, 9])
        ).pack()
    )
    if rng.random() < 0.3:
        for _ in range(rng.randrange(1, 5)):
            header[rng.randrange(8, HEADER_SIZE)] = rng.randrange(256)
    datagram = bytes(header) + _hostile_text(rng)
    if rng.random() < 0.1:
        datagram = datagram[: rng.randrange(len(datagram))]
    if rng.random() < 0.02:
        datagram = datagram.ljust(rng.choice([8191, 8192, 8193, 20000, 65000]), b"[")
    return datagram


def test_10000_hostile_datagrams_leave_the_daemon_answering(daemon, client):
    client.socket.setsockopt(socket.SOL_SOCKET, 33, 16 << 20)  # SO_RCVBUFFORCE
    threads = len(daemon.threads())
    descriptors = max(
        len(daemon.descriptors()) for _ in range(200)
    )  # with a run's socket or without
    rng = random.Random(20101)
    for first in range(0, 10000, 200):
        sent = [_hostile_datagram(rng, first + index) for index in range(200)]
        expected = {datagram[:8].ljust(8, b"\0") for datagram in sent if datagram}
        for datagram in sent:
            client.send(datagram)
        while expected:
            expected.discard(Header.unpack(client.receive()).prefix)
    last = _odd(STATUS)
    client.send(last.pack() + b'{"tasks":[1]}\0')
    wait_for(
        lambda: client.receive()
        == _json_replies(last, '{"tasks":[{"sla-id":1,"status":true}]}')[0],
        "a correct answer",
    )
    assert daemon.is_running()
    assert len(daemon.threads()) == threads
    wait_for(lambda: len(daemon.descriptors()) <= descriptors, "as few descriptors as before")
