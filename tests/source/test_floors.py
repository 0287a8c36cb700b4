"""The floors of the source tree: an include points down the house or stays on its floor, never up.
"""

import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
FLOORS = ["platform", "log", "env", "config", "sender", "udp", "api", "main"]

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


def sources():
    return sorted(path for path in (ROOT / "src").rglob("*") if path.suffix in (".h", ".cpp", ".c"))


def includes(path):
    return INCLUDE.findall(path.read_text())


def floor_of(name):
    first = name.split("/")[0]
    return FLOORS.index(first) if first in FLOORS else None


def violations(names_and_includes):
    """Yields (file, include) for each include that points up."""
    for name, included in names_and_includes:
        for target in included:
            if floor_of(target) is not None and floor_of(target) > floor_of(name):
                yield name, target


def test_there_is_something_to_check():
    assert len(sources()) > 20
    assert all(floor_of(str(path.relative_to(ROOT / "src"))) is not None for path in sources())


def test_no_include_points_up():
    tree = [(str(path.relative_to(ROOT / "src")), includes(path)) for path in sources()]
    assert list(violations(tree)) == []


@pytest.mark.parametrize(
    "name, target, expected",
    [
        ("log/log.cpp", "api/api_sender.h", True),
        ("env/process.h", "config/keychain.h", True),
        ("api/sender_factory.cpp", "udp/udp_sender.h", False),
        ("config/task_parser.cpp", "udp/udp_sender.h", True),
        ("api/api_sender.cpp", "log/log.h", False),
    ],
)
def test_the_check_itself_tells_up_from_down(name, target, expected):
    assert bool(list(violations([(name, [target])]))) is expected


def test_every_include_of_the_project_names_its_floor():
    """A bare file name would hide from which floor a header comes."""
    bare = [
        (str(path), target) for path in sources() for target in includes(path) if "/" not in target
    ]
    assert bare == []


def test_every_header_is_included_once():
    for path in sources():
        if path.suffix == ".h":
            assert "#pragma once" in path.read_text() or "#ifndef" in path.read_text(), path
