"""docs/sender-api.md against a running daemon: every request on the page is sent, every reply
compared.
"""

import json
import pathlib
import re

import pytest
from support import schemas
from support.api_client import ALL_STATISTICS, STATISTICS, ApiClient
from support.tasks import icmp_echo, icmp_jitter

PAGE = (pathlib.Path(__file__).resolve().parents[2] / "docs" / "sender-api.md").read_text()
BLOCKS = {
    (role, name): (form, text)
    for form, role, name, text in re.findall(
        r"^```(\w+) (request|reply) (\S+)\n(.*?)^```$", PAGE, re.M | re.S
    )
}
NAMES = sorted({name for _, name in BLOCKS})
JSON_COMMANDS = {"statistics": STATISTICS, "all-statistics": ALL_STATISTICS}
# What differs from run to run.
VARYING = re.compile(r'"(start-time|finish-time|successful-count|failed-count|avg|max)":[0-9.e+-]+')


@pytest.fixture
def api(lab, start_daemon):
    daemon = start_daemon([icmp_echo(1), icmp_jitter(2, src="192.0.2.10", dst="192.0.2.20")])
    daemon.wait_for_reports(1)
    daemon.wait_for_reports(2)
    return ApiClient(lab)


def _bytes(dump):
    """The bytes of a hexadecimal dump, its offsets checked."""
    data = b""
    for line in dump.splitlines():
        assert int(line[:4], 16) == len(data), line
        data += bytes.fromhex(line[6:53])
        readable = "".join(
            chr(byte) if 32 <= byte < 127 else "." for byte in data[int(line[:4], 16) :]
        )
        assert line[55:] == readable, line
    return data


def test_page_has_an_example_of_every_command():
    assert NAMES == sorted(
        [
            "all-statistics",
            "failure",
            "reload-keychain",
            "reload-tasks",
            "statistics",
            "status",
            "unknown",
        ]
    )
    assert all((role, name) in BLOCKS for role in ("request", "reply") for name in NAMES)


@pytest.mark.parametrize("name", [name for name in NAMES if BLOCKS[("request", name)][0] == "hex"])
def test_example_datagram_is_answered_as_documented(api, name):
    api.send(_bytes(BLOCKS[("request", name)][1]))
    assert api.receive() == _bytes(BLOCKS[("reply", name)][1])


@pytest.mark.parametrize("name", sorted(JSON_COMMANDS))
def test_example_text_is_answered_as_documented(api, name):
    form, request = BLOCKS[("request", name)]
    assert form == "json"
    reply = api.request(JSON_COMMANDS[name], request.replace("\n", "").encode() + b"\0")
    documented = BLOCKS[("reply", name)][1].replace("\n", "")
    assert VARYING.sub(r'"\1":N', reply.text) == VARYING.sub(r'"\1":N', documented)
    schemas.check(reply.document, "statistics")
    schemas.check(json.loads(documented), "statistics")
