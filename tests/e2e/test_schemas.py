"""docs/schema against the examples. Against the daemon's own rules: test_corpus.py."""

import json
import pathlib

import jsonschema
import pytest
from support import schemas
from support.ctl import Ctl
from support.tasks import icmp_echo, udp_jitter

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"


@pytest.mark.parametrize("name", ["tasks", "keychain", "statistics", "task-results"])
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
