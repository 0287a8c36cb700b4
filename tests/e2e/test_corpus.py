"""tests/corpus/check: configuration files that are wrong in one way each, and what is to be said.

Beside NAME.json stands NAME.txt. Its first line says what the JSON Schema does with the file:
"refuses", "cannot say: REASON" (a schema has no words for it), "marks: deprecated", or "no JSON".
The others are what `ip-sla-ctl check --no-host` prints, without the file's name and the counts.
"""

import json
import pathlib
import re
import subprocess

import jsonschema
import pytest
from support import schemas

CORPUS = pathlib.Path(__file__).resolve().parents[1] / "corpus" / "check"
FILES = sorted(CORPUS.glob("*/*.json"))
GOOD = {"tasks": CORPUS / "good-tasks.json", "keychain": CORPUS / "good-keychain.json"}
WITHOUT_WORDS = {
    "sums",
    "tasks that are alike",
    "keys that are alike",
    "members that stand twice",
    "ports that must differ",
    "the keychain",
}
SECRETS = ("corpus-secret", "corpus-se", "1122334455", "c0ffe")
# What depends on the day of the test.
TODAY = re.compile("has passed|ahead, longer")


def _check(build, path, *options):
    """Exit status and output about one file, whose companion is good."""
    kind = path.parent.name
    files = [path if name == kind else good for name, good in GOOD.items()]
    environment = {**build.environment(), "TZ": "UTC0"}
    command = [*build.launcher(), build.program("ip-sla-ctl"), "check", "--no-host", *options]
    result = subprocess.run(
        [*map(str, command), *files],
        env={name: value for name, value in environment.items() if value},
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert result.stderr == ""
    return result.returncode, result.stdout


def _schema_messages(document, name):
    schema = json.loads((schemas.DIRECTORY / f"{name}.schema.json").read_text())
    return [
        fault.message for fault in jsonschema.Draft202012Validator(schema).iter_errors(document)
    ]


def test_there_are_enough():
    assert len(FILES) >= 60
    assert {path.with_suffix(".txt") for path in FILES} == set(CORPUS.glob("*/*.txt"))


@pytest.mark.parametrize("path", FILES, ids=lambda path: f"{path.parent.name}-{path.stem}")
def test_check_and_schema_name_what_is_wrong(build, path):
    verdict, *expected = path.with_suffix(".txt").read_text().splitlines()
    status, output = _check(build, path)
    named = [
        line[len(str(path)) + 1 :].strip()
        for line in output.splitlines()
        if line.startswith(f"{path}:") and " accepted, " not in line and not TODAY.search(line)
    ]
    assert named == expected and expected
    faults = [line for line in expected if "warning: " not in line]
    assert not faults or status == 1
    assert _check(build, path, "--strict")[0] == 1

    text = path.read_text()
    if verdict == "schema no JSON":
        with pytest.raises(json.JSONDecodeError):
            json.loads(text)
        messages = []
    else:
        messages = _schema_messages(json.loads(text), path.parent.name)
        assert bool(messages) == (verdict == "schema refuses"), messages
        if verdict.startswith("schema cannot say: "):
            assert verdict.removeprefix("schema cannot say: ") in WITHOUT_WORDS
        elif not messages:
            assert verdict == "schema marks: deprecated"
    for secret in SECRETS:
        assert not any(secret in line for line in messages + output.splitlines())


@pytest.mark.parametrize("name", GOOD)
def test_nothing_is_said_about_good_files(build, name):
    status, output = _check(build, GOOD["tasks"], "--strict")
    assert status == 0, output
    assert _schema_messages(json.loads(GOOD[name].read_text()), name) == []
