"""The control-phase exchange end to end: every way to fail with its texts, and the responses that
count.
"""

import socket
import struct

import pytest

from support.api_client import ApiClient
from support.control_message import STATUS_NAMES, status_name
from support.responder import Control, ScriptedResponder
from support.tasks import task
from support.waiting import SCALE, allowance, wait_for

FIRST_PORT = 3000
CLOSED_PORT = 1999
NOT_RESPONDING = "Control phase failed: destination host is not responding"
REFUSED = (
    "Control phase failed: connection refused. "
    "The responder may not be running or is using a different port"
)
WRONG_VERSION = "Control phase failed: invalid response control phase protocol version"


def a_task(number, **changes):
    measurement = {"dst-port": FIRST_PORT + number, **changes.pop("measurement", {})}
    return task(number, "udp-jitter", **{"packets": 1, **changes}, measurement=measurement)


class PlannedResponder(ScriptedResponder):
    """Answers by task and by the number of that task's request: `plan(task, number)` gives the
    Control.
    """

    def __init__(self, lab, plan, **options):
        self._plan = plan
        self._counts = {}
        super().__init__(lab, **options)

    def _on_request(self, data, source):
        number = struct.unpack_from(">H", data, 166)[0] - FIRST_PORT
        count = self._counts.get(number, 0)
        self._counts[number] = count + 1
        self.control = lambda _: self._plan(number, count)
        super()._on_request(data, source)

    def requests_of(self, number):
        return self._counts.get(number, 0)


def failed(text):
    return f"Control phase failed: command header status: {text}"


# What the responder answers, the texts after "(test N) " in the logs, the text in the result.
ROWS = [
    (
        Control(silent=True),
        [NOT_RESPONDING],
        "control phase failed: destination host is not responding",
    ),
    (None, [REFUSED], "control phase failed: connection refused"),
    (
        Control(version=3),
        [WRONG_VERSION],
        "control phase failed: invalid response control phase protocol version",
    ),
    (
        Control(raw=b"\x01"),
        [WRONG_VERSION],
        "control phase failed: invalid response control phase protocol version",
    ),
    (
        Control(status=1, authentication_status=2),
        ["Control phase authentication failed: authentication fail"],
        "control phase authentication failed: authentication fail",
    ),
    (
        Control(status=1, measurement_status=4),
        ["Control phase measurement failed: requested port is busy"],
        "control phase measurement failed: requested port is busy",
    ),
    (
        Control(status=1, authentication_status=10, measurement_status=12),
        [
            "Control phase authentication failed: unsupported authentication mode",
            "Control phase measurement failed: unsupported operation type",
        ],
        "control phase measurement failed: unsupported operation type",
    ),
    (
        Control(status=4, authentication_status=2),
        [
            failed("requested port is busy"),
            "Control phase authentication failed: authentication fail",
        ],
        "control phase authentication failed: authentication fail",
    ),
    (
        Control(status=13, authentication_status=99, measurement_status=65535),
        [
            failed("unknown internal error"),
            "Control phase authentication failed: undefined",
            "Control phase measurement failed: undefined",
        ],
        "control phase measurement failed: undefined",
    ),
    (Control(status=1), [], ""),
    (Control(raw=b""), [], ""),
    *[
        (Control(status=code), [failed(status_name(code))], f"c{failed(status_name(code))[1:]}")
        for code in [*range(2, len(STATUS_NAMES)), 14, 256, 65535]
    ],
]


def errors_in_file(daemon, number):
    return [
        record for record in daemon.log_records(number) if record.startswith(f"(test {number}) ")
    ]


def errors_in_system_log(daemon, number):
    return [
        record
        for record in daemon.syslog()
        if record.severity == 3 and f": (test {number}) " in record.text
    ]


def test_every_failure_has_its_texts_and_is_logged_once_a_minute(lab, start_daemon):
    rows = dict(enumerate(ROWS, 1))
    responder = PlannedResponder(lab, lambda number, count: rows[number][0])
    daemon = start_daemon(
        [
            a_task(number, control={"dst-port": CLOSED_PORT} if row[0] is None else {})
            for number, row in rows.items()
        ]
    )
    for number, (_, lines, text) in rows.items():
        reports = daemon.wait_for_reports(number, count=3)
        assert {(report.status, report.error) for report in reports} == {("fail", text)}, number
        expected = [f"(test {number}) {line}" for line in lines]
        assert errors_in_file(daemon, number) == expected
        found = errors_in_system_log(daemon, number)
        assert [record.text for record in found] == [
            f"%IP_SLA-E-ERROR: {line}" for line in expected
        ]
        assert {(record.flag, record.module) for record in found} <= {(0, 59)}
    for entry in ApiClient(lab).statistics(*rows):
        assert (entry["status"], entry["error-description"]) == ("fail", rows[entry["sla-id"]][2])
        assert entry["successful-count"] == 0 and entry["failed-count"] >= 3
        assert entry["transm-pkt-count"] == entry["sd-smp-count"] == entry["sd-pkt-count"] == 0
    for number, (control, _, _) in rows.items():
        if control is not None:
            # One request a run, however long the configured "retry": the next one is the next
            # run's.
            assert responder.requests_of(number) <= len(daemon.reports(number)) + 1


def test_a_request_that_cannot_be_sent_is_an_internal_error(lab, start_daemon):
    daemon = start_daemon([a_task(1, control={"dst-address": "255.255.255.255"})])
    reports = daemon.wait_for_reports(1, count=2)
    assert {report.error for report in reports} == {"control phase failed: internal error"}
    (line,) = errors_in_file(daemon, 1)
    assert line.startswith("(test 1) Control phase failed: ") and line.endswith("Permission denied")


def test_a_nonce_that_cannot_be_had_is_an_internal_error(lab, start_daemon):
    preloaded = f"{lab.build.recorder}:{lab.build.recorder.parent / 'librandom_failure.so'}"
    key = {"mode": "password", "algorithm": "sha256", "key-string": "secret"}
    responder = ScriptedResponder(lab)
    daemon = start_daemon([a_task(1, authentication=key), a_task(2)], env={"LD_PRELOAD": preloaded})
    reports = daemon.wait_for_reports(1, count=2)
    assert {report.error for report in reports} == {"control phase failed: internal error"}
    # A line of every run: this one is no error of the responder's and is not limited.
    daemon.wait_for_record("RAND_bytes() failed for test 1", task=1, count=2)
    assert errors_in_file(daemon, 1) == []
    assert daemon.wait_for_reports(2)[0].status == "successful"
    assert all(
        data[28] == 1 for data, _ in responder.requests
    ), "only the test without a key has asked"


def test_kinds_of_errors_are_limited_apart_and_results_are_not(lab, start_daemon):
    """All responses share one kind; the texts of the results follow every run all the same."""
    plans = [Control(silent=True), Control(version=9), Control(status=5), Control()]
    PlannedResponder(lab, lambda number, count: plans[min(count, 3)])
    daemon = start_daemon([a_task(1, control={"timeout": allowance(300)})])
    reports = daemon.wait_for_reports(1, count=4)[:4]
    assert [report.error for report in reports] == [
        "control phase failed: destination host is not responding",
        "control phase failed: invalid response control phase protocol version",
        "control phase failed: command header status: unsupported protocol version",
        "",
    ]
    assert reports[3].status == "successful"
    assert errors_in_file(daemon, 1) == [f"(test 1) {NOT_RESPONDING}"]


def test_the_next_run_after_a_failed_control_phase_comes_after_retry_seconds(lab, start_daemon):
    responder = PlannedResponder(lab, lambda number, count: Control(status=2))
    daemon = start_daemon(
        [a_task(1, time=600, control={"retry": 1}), a_task(2, time=1, control={"retry": 600})]
    )
    daemon.wait_for_reports(1, count=3)
    assert len(daemon.reports(2)) == 1 and responder.requests_of(2) == 1
    assert "func 'NewStart' timeout 1000 ms" in daemon.log_records(1)
    assert "func 'NewStart' timeout 600000 ms" in daemon.log_records(2)


def test_a_refused_run_does_not_spoil_the_next(lab, start_daemon):
    """The refusal is read away, so the socket of no later run reports it, and the responder found
    then serves.
    """
    daemon = start_daemon([a_task(1)])
    daemon.wait_for_reports(1, count=2)
    ScriptedResponder(lab)
    wait_for(lambda: daemon.reports(1)[-1].status == "successful", "a run with a responder")
    refusals = [report for report in daemon.reports(1) if report.status == "fail"]
    assert {report.error for report in refusals} == {"control phase failed: connection refused"}


def test_a_single_byte_of_the_right_version_is_a_response_with_port_0(lab, start_daemon):
    responder = PlannedResponder(
        lab, lambda number, count: Control() if count == 0 else Control(raw=b"\x02")
    )
    daemon = start_daemon([a_task(1, packets=3)])
    reports = daemon.wait_for_reports(1, count=3)
    # The first run's port is not left over in the buffer: nothing is sent to it any more.
    assert [report.status for report in reports[:3]] == ["successful", "fail", "fail"]
    assert [report.error for report in reports[:3]] == [
        "",
        "timeout, no samples",
        "timeout, no samples",
    ]
    assert (
        len(responder.runs[0].arrivals) == 3 and len(responder.runs) == 1 and responder._strays == 0
    )
    (line,) = errors_in_file(daemon, 1)
    assert line == "(test 1) Invalid argument"


@pytest.mark.parametrize("size", [167, 168, 171, 172, 400])
def test_a_response_is_read_up_to_its_172nd_byte(lab, start_daemon, size):
    """Bytes that did not come are zeros: without its 168th byte the port reads as another one."""
    port = 2345
    responder = ScriptedResponder(lab, measurement_port=port)
    whole = bytearray(500)
    whole[0] = 2
    struct.pack_into(">H", whole, 166, port)
    whole[172:] = b"\xff" * (len(whole) - 172)
    answers = Control(raw=bytes(whole[:size]))
    responder.control = lambda number: answers
    daemon = start_daemon([a_task(1)])
    daemon.wait_for_reports(1)
    if size > 167:
        wait_for(lambda: responder._strays > 0, "a probe at the port of the response")
    else:
        assert responder._strays == 0


def test_a_response_from_any_address_counts(lab, start_daemon):
    """And the measurement goes to the task's own destination, at the port of the response."""
    responder = ScriptedResponder(lab)
    stranger = lab.socket(socket.AF_INET, socket.SOCK_DGRAM, bind=("127.0.0.9", 0))
    silent = Control(silent=True)

    def from_the_stranger(number):
        data, source = responder.requests[number]
        responder._open_run(data, source)
        answer = bytearray(responder._message(data, Control()))
        answer[144:148] = socket.inet_aton("127.0.0.77")  # addresses in a response mean nothing
        stranger.sendto(answer, source)
        return silent

    responder.control = from_the_stranger
    daemon = start_daemon([a_task(1, packets=5)])
    reports = daemon.wait_for_reports(1, count=2)
    assert {report.status for report in reports} == {"successful"}
    assert [sequence for _, sequence, _ in responder.runs[0].arrivals] == [1, 2, 3, 4, 5]
    assert errors_in_file(daemon, 1) == []


def test_only_the_first_response_counts(lab, start_daemon):
    responder = ScriptedResponder(lab)

    def twice(number):
        data, source = responder.requests[number]
        second = responder._message(data, Control(status=4))
        responder.later(0, lambda: responder._control_socket.sendto(second, source))
        return Control()

    responder.control = twice
    daemon = start_daemon([a_task(1, packets=5, interval=20)])
    reports = daemon.wait_for_reports(1, count=2)
    assert {(report.status, report.error) for report in reports} == {("successful", "")}
    assert errors_in_file(daemon, 1) == []
    assert len(daemon.log_records(1)) > 0
    responses = [
        text for text in daemon.log_records(1) if text.startswith(" [Control phase response]")
    ]
    assert len(responses) <= len(responder.requests)


@pytest.mark.parametrize("delay", [0.0, 0.6], ids=["at once", "shortly before the time-out"])
def test_the_control_time_out_does_not_reach_into_the_measurement(lab, start_daemon, delay):
    """The measurement outlasts the control phase's time: only the measurement's own timer is
    running then.
    """
    control_ms = int(1000 * SCALE)
    PlannedResponder(lab, lambda number, count: Control(delay=delay * SCALE))
    changes = {"packets": 12, "interval": int(100 * SCALE), "timeout": int(1000 * SCALE)}
    daemon = start_daemon(
        [a_task(1, time=int(10 * SCALE), control={"timeout": control_ms}, **changes)]
    )
    (report, *_) = daemon.wait_for_reports(1)
    assert (report.status, report.error, report.ds_packets) == ("successful", "", 12)
    assert errors_in_file(daemon, 1) == []


def test_a_response_after_the_time_out_is_nothing(lab, start_daemon):
    PlannedResponder(lab, lambda number, count: Control(delay=0.5) if count == 0 else Control())
    daemon = start_daemon([a_task(1, time=3, control={"timeout": 200, "retry": 2})])
    reports = daemon.wait_for_reports(1, count=2)
    assert [report.error for report in reports[:2]] == [
        "control phase failed: destination host is not responding",
        "",
    ]
    assert reports[1].status == "successful"


def test_a_test_restarted_in_its_control_phase_reports_only_its_new_run(lab, start_daemon):
    """A change on the test's interface restarts it at once; the old run leaves no result and no
    error line.
    """
    lab.add_peer("peer", "10.2.0.1/24", "10.2.0.2/24")
    responder = PlannedResponder(
        lab,
        lambda number, count: Control(delay=1.0) if count == 0 else Control(),
        address="10.2.0.2",
        namespace="peer",
    )
    control = {"timeout": int(20000 * SCALE)}
    daemon = start_daemon([a_task(1, src="10.2.0.1", dst="10.2.0.2", time=600, control=control)])
    wait_for(lambda: len(responder.requests) == 1, "the first request")
    lab.run("ip", "address", "add", "10.2.0.77/24", "dev", "peer-near")
    wait_for(lambda: len(responder.requests) >= 2, "a request of the restarted test")
    daemon.wait_for_reports(1)
    wait_for(lambda: not responder._later, "the late response to the first request to be sent")
    reports = daemon.reports(1)
    assert [(report.status, report.error) for report in reports] == [("successful", "")] * len(
        reports
    )
    (entry,) = ApiClient(lab).statistics(1)
    assert (entry["successful-count"], entry["failed-count"]) == (len(reports), 0)
    assert errors_in_file(daemon, 1) == []


def test_a_task_replaced_in_its_control_phase_leaves_no_result(lab, start_daemon):
    responder = PlannedResponder(lab, lambda number, count: Control(silent=count == 0))
    daemon = start_daemon([a_task(1, time=3, control={"timeout": 700})])
    wait_for(lambda: responder.requests, "the first request")
    daemon.write_tasks([a_task(1, time=2, packets=2)])
    api = ApiClient(lab)
    assert api.reload_tasks() == 0
    reports = daemon.wait_for_reports(1, count=2)
    assert {(report.status, report.error, report.sd_packets) for report in reports} == {
        ("successful", "", 2)
    }
    assert errors_in_file(daemon, 1) == []
    assert api.statistics(1)[0]["failed-count"] == 0


@pytest.mark.parametrize("code", ["host-unreachable", "net-unreachable", "admin-prohibited"])
def test_a_routers_word_does_not_end_the_wait(lab, start_daemon, code):
    """The router says so at once; the daemon waits for its time-out, as it does in silence."""
    lab.add_peer("router", "10.2.0.1/24", "10.2.0.2/24")
    lab.run("nft", "add table ip lab", namespace="router")
    lab.run(
        "nft",
        "add chain ip lab input { type filter hook input priority 0; }",
        namespace="router",
    )
    lab.run(
        "nft",
        f"add rule ip lab input udp dport 2000 reject with icmp type {code}",
        namespace="router",
    )
    daemon = start_daemon([a_task(1, src="10.2.0.1", dst="10.2.0.2", time=2)])
    report = daemon.wait_for_reports(1)[0]
    assert (report.status, report.error) == (
        "fail",
        "control phase failed: destination host is not responding",
    )
    assert errors_in_file(daemon, 1) == [f"(test 1) {NOT_RESPONDING}"]


def test_a_refusal_that_says_nothing_leaves_the_line_to_one_that_does(lab, start_daemon):
    plain, telling = Control(status=1), Control(status=4)
    PlannedResponder(lab, lambda number, count: plain if count == 0 else telling)
    daemon = start_daemon([a_task(1)])
    daemon.wait_for_reports(1, count=2)
    expected = "Control phase failed: command header status: requested port is busy"
    wait_for(lambda: errors_in_file(daemon, 1), "the line of the second refusal")
    assert errors_in_file(daemon, 1) == [f"(test 1) {expected}"]
