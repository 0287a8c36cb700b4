"""docs/schema against the examples and against the daemon's own rules, as ip-sla-ctl check applies
them.
"""

import json
import pathlib

import jsonschema
import pytest
from support import schemas
from support.ctl import Ctl
from support.tasks import icmp_echo, udp_jitter

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"


@pytest.mark.parametrize("name", ["tasks", "keychain", "statistics"])
def test_schema_is_one(name):
    schema = json.loads((schemas.DIRECTORY / f"{name}.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    assert schema["$id"] == f"{name}.schema.json"


@pytest.mark.parametrize("name", ["tasks", "keychain"])
def test_examples_follow_their_schema(name):
    paths = sorted(EXAMPLES.rglob(f"*{name}*.json"))
    assert paths
    for path in paths:
        schemas.check(json.loads(path.read_text()), name)


def test_examples_have_no_faults(lab):
    arguments = ["check", "--no-host", EXAMPLES / "tasks.json", EXAMPLES / "keychain.json"]
    report = Ctl(lab).json(*arguments)
    assert report["tasks"]["elements"] == report["tasks"]["accepted"] > 0


def _follows(document, name):
    try:
        schemas.check(document, name)
    except AssertionError:
        return False
    return True


FAULTY = {
    "no id": {"sla_id": None},
    "id as text": {"sla_id": "1"},
    "no history": {"num_rep_hist": 0},
    "no schedule": {"schedule": None},
    "period below 0": {"scheduler": {"time": -1}},
    "no start": {"scheduler": {"Start-time": None}},
    "life below 0": {"scheduler": {"life-time": -1}},
    "no control phase": {"control_phase": None},
    "no control timeout": {"control": {"timeout": 0}},
    "no retry": {"control": {"retry": None}},
    "source port too high": {"control": {"src-port": 65536}},
    "source port word": {"control": {"src-port": "none"}},
    "no source": {"measurement": {"src-address": None}},
    "destination port below 0": {"measurement": {"dst-port": -1}},
    "no destination": {"measurement": {"dst-address": None}},
    "unknown mode": {"authentication": {"mode": "secret"}},
    "password without algorithm": {"authentication": {"mode": "password", "key-string": "x"}},
    "unknown algorithm": {
        "authentication": {"mode": "password", "key-string": "x", "algorithm": "md5"}
    },
    "no password": {
        "authentication": {"mode": "password", "algorithm": "sha256", "key-string": ""}
    },
    "no key id": {"authentication": {"mode": "keychain", "algorithm": "sha256"}},
    "no probes": {"measurement": {"num-packets": 0}},
    "packet too small": {"measurement": {"packet-size": 69}},
    "interval below 0": {"measurement": {"interval": -1}},
    "TTL too high": {"measurement": {"ttl": 256}},
    "DSCP too high": {"measurement": {"dscp": 64}},
    "no priority": {"measurement": {"cos": None}},
}


@pytest.mark.parametrize("name", FAULTY)
def test_schema_refuses_what_the_parser_refuses(lab, name):
    document = {"IP-SLA-tasks": [udp_jitter(1, **FAULTY[name])], "cpus": [0]}
    path = lab.directory / "tasks.json"
    path.write_text(json.dumps(document))
    assert Ctl(lab).json("check", path, status=1)["tasks"]["accepted"] == 0
    assert not _follows(document, "tasks")


def test_schema_accepts_what_the_parser_accepts(lab):
    tasks = [
        icmp_echo(1),
        udp_jitter(2),
        udp_jitter(3, authentication={"mode": "password", "algorithm": "sha256"}),
    ]
    tasks[2]["control-phase"]["authentication"]["key-string"] = "0x0a1B"
    document = {"IP-SLA-tasks": tasks, "cpus": [0, 1]}
    path = lab.directory / "tasks.json"
    path.write_text(json.dumps(document))
    assert Ctl(lab).json("check", path)["tasks"]["accepted"] == 3
    schemas.check(document, "tasks")


@pytest.mark.parametrize(
    "keys", [5, [5], [{"key-id": 1}], [{"key-id": "1", "key-string": "x"}], [{"key-string": "x"}]]
)
def test_schema_refuses_keys_that_the_parser_refuses(lab, keys):
    tasks, keychain = lab.directory / "tasks.json", lab.directory / "keychain.json"
    tasks.write_text('{"IP-SLA-tasks": [], "cpus": [0]}')
    keychain.write_text(json.dumps({"keychain-storage": keys}))
    assert Ctl(lab).json("check", tasks, keychain, status=1)["keychain"]["accepted"] == 0
    assert not _follows({"keychain-storage": keys}, "keychain")
