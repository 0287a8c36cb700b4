"""Runs of more probes than 16 bits can number. They take longer than a minute: script/soak has them
run (IPSLA_SOAK_SECONDS of 300 or more), the other end-to-end tests do without.
"""

import os

import pytest
from support.api_client import ApiClient
from support.responder_program import ResponderProgram
from support.tasks import icmp_echo
from support.udp_tasks import udp_task
from support.waiting import wait_for

PROBES = 66_000
PORTS = {"udp-jitter": 2001, "udp-echo": 2002}


@pytest.mark.skipif(
    float(os.environ.get("IPSLA_SOAK_SECONDS", 0)) < 300, reason="only in a long soak"
)
def test_more_probes_than_16_bits_number(lab, start_daemon):
    """A number of 32 bits serves all of them; so does one of 16 where the responder counts on, as
    the lab's does. What answers a ping behind the 65,535th is taken for a second answer to the
    first ones.
    """
    ResponderProgram(lab, "--allow-open", "--port-range", "2001-2999")
    # The budget of a run has 7 ms for each probe beside the interval.
    timing = {"packets": PROBES, "interval": 1, "timeout": 3000, "time": 600}
    wanted = {1: PROBES, 2: PROBES, 3: 65_535}
    tasks = [
        udp_task(number, kind, measurement={"dst-port": PORTS[kind]}, **timing)
        for number, kind in ((1, "udp-jitter"), (2, "udp-echo"))
    ]
    start_daemon([*tasks, icmp_echo(3, **timing)], env={"IPSLA_RECORDING_FILE": ""})
    api = ApiClient(lab)
    wait_for(lambda: len(api.all_statistics(groups=[])) == 3, "three runs", 240, interval=1)
    for entry in api.all_statistics():
        found = entry["sd-pkt-count"], entry["ds-pkt-count"]
        print(entry["sla-id"], entry["status"], found, entry["loss-values"])
        assert entry["status"] == "successful"
        assert found == (PROBES, wanted[entry["sla-id"]])
        if entry["sla-id"] != 3:
            assert not any(entry["loss-values"].values())
    (jitter,) = api.statistics(1)
    assert not any(jitter["out-of-sequence-values"].values())
