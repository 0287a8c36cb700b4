"""ICMP runs against a replier that loses, reorders, repeats and stamps by plan: exact counts, as
the model has them.
"""

import itertools
import random
import socket
import struct
from dataclasses import dataclass

import pytest

from support import metric_model as model
from support.api_client import ApiClient
from support.icmp_replier import TIMESTAMP_REPLY, IcmpReplier
from support.run_events import Reply, metrics_of, run_of
from support.tasks import task
from support.waiting import SCALE, wait_for

NEAR, FAR = "10.2.0.1", "10.2.0.2"
KINDS = {"icmp-echo": model.ICMP_ECHO, "icmp-jitter": model.ICMP_JITTER}
BATCH = 60
_SO_RCVBUFFORCE = 33
FIRST_SIZE = 200  # a task is told by the size of its probes


@dataclass(frozen=True)
class Plan:
    count: int
    replies: tuple  # sequence numbers in the order of their answers, copies included
    # The peer's clock at the answer to probe 1, 2 ..., in milliseconds; it may stand or go back.
    stamps: tuple


def _plans():
    random_numbers = random.Random(11)
    for count in (1, 2, 3, 4):
        for outcomes in itertools.product((0, 1, 2), repeat=count):
            answered = [number for number, copies in enumerate(outcomes, 1) if copies]
            orders = list(itertools.permutations(answered))
            for order in (
                orders if count < 4 else random_numbers.sample(orders, min(2, len(orders)))
            ):
                replies = tuple(number for number in order for _ in range(outcomes[number - 1]))
                yield Plan(
                    count, replies, tuple(random_numbers.randint(1, count) for _ in range(count))
                )


def _batches():
    plans = list(_plans())
    for kind in KINDS:
        for start in range(0, len(plans), BATCH):
            yield pytest.param(kind, plans[start : start + BATCH], id=f"{kind}-{start}")


class PatternReplier(IcmpReplier):
    """Waits for all probes of a test's run, then answers by its plan."""

    def __init__(self, lab, plans, **options):
        self._plans = plans
        self._probes = {}
        super().__init__(lab, **options)
        # The probes of all tests come at once.
        self._wire.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 16 << 20)

    def _session(self, identifier, source):
        return self  # in place of a session of the simple replier: see probe()

    def _is_new_run(self, identifier, sequence):
        return False

    def _on_packet(self, packet, address):
        self._source = ".".join(str(part) for part in packet[12:16])
        super()._on_packet(packet, address)

    def probe(self, sequence, message):
        (identifier,) = struct.unpack_from(">H", message, 4)
        number = (len(message) - FIRST_SIZE) // 4
        plan = self._plans[number]
        probes = self._probes.setdefault((number, identifier), {})
        probes[sequence] = message
        if len(probes) == plan.count:
            for answered in plan.replies:
                self.send(self._planned(probes[answered], plan.stamps[answered - 1]), self._source)

    def _planned(self, request, stamp):
        reply = self._reply(request)
        if reply[0] == TIMESTAMP_REPLY:
            struct.pack_into(">II", reply, 12, stamp, stamp)
        return reply


def expected_metrics(kind, plan):
    sends = [1000 + place for place in range(plan.count)]
    replies = [
        Reply(number, 0, plan.stamps[number - 1], 2000.0 + place)
        for place, number in enumerate(plan.replies)
    ]
    return metrics_of(run_of(KINDS[kind], sends, replies), 0)


@pytest.mark.parametrize("kind, plans", _batches())
def test_every_outcome_is_counted_as_the_model_says(lab, start_daemon, kind, plans):
    lab.add_peer("peer", f"{NEAR}/24", f"{FAR}/24")
    PatternReplier(lab, plans, interface="peer-far", namespace="peer")
    # The bytes sent are the configured size less 42 (less 34 for the time-stamp type) and less the
    # IP header's 20.
    extra = FIRST_SIZE + 20 + (42 if kind == "icmp-echo" else 34)
    tasks = [
        task(
            number + 1,
            kind,
            src=NEAR,
            dst=FAR,
            packets=plan.count,
            interval=5,
            timeout=int(800 * SCALE),
            time=600,
            measurement={"packet-size": extra + 4 * number},
        )
        for number, plan in enumerate(plans)
    ]
    start_daemon(tasks)
    api = ApiClient(lab)
    wait_for(
        lambda: len(api.all_statistics(groups=[])) == len(plans),
        "one run of every task",
        deadline=30,
    )
    for plan, entry in zip(plans, api.all_statistics()):
        expected = expected_metrics(kind, plan)
        assert (entry["status"] == "fail") == (expected.status == 1), plan
        assert entry["error-description"] == expected.error_description
        for name in ("sd_smp_count", "ds_smp_count", "sd_pkt_count", "ds_pkt_count"):
            assert entry[name.replace("_", "-")] == getattr(expected, name), (name, plan)
        groups = {**entry["loss-values"], **entry["out-of-sequence-values"]}
        for name, value in groups.items():
            assert value == getattr(expected, name.replace("-", "_")), (name, plan)
