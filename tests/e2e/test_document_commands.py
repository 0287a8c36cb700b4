"""Every command of the project's programs that a document shows is one that the program takes."""

import pathlib
import re
import shlex

import pytest
from support.help_texts import all_helps, options

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = sorted(
    page
    for page in [
        *ROOT.glob("*.md"),
        *(ROOT / "docs").rglob("*.md"),
        *(ROOT / "docs").rglob("*.scd"),
    ]
    if page.name != "CHANGELOG.md"
)
PROGRAMS = ("ip-sla-ctl", "ip-sla-responder", "ip-sla-exporter")


def _code(text):
    """What stands in blocks, and between backquotes."""
    blocks = re.findall(r"^```.*?\n(.*?)^ *```$", text, re.M | re.S)
    text = re.sub(r"^```.*?^ *```$", "", text, flags=re.M | re.S)
    blocks += re.findall(r"^(?: {4}|\t).*$", text, re.M)
    return [line for block in blocks for line in block.splitlines()] + [
        " ".join(code.split()) for code in re.findall(r"`([^`]+)`", text)
    ]


def _commands(text):
    """(program, words) of each command, without what a shell makes of the rest of the line."""
    for line in _code(text):
        for program, rest in re.findall(
            r"(?:^|[\s(/])(ip-sla-(?:ctl|responder|exporter))((?: [^#;|&>)]*)?)", line
        ):
            yield program, shlex.split(rest.replace("'", ""))


@pytest.fixture(scope="module")
def helps(build):
    """Of each program and command its own options and those above it."""
    found = {}
    for program in PROGRAMS:
        if build.has(program):
            for words, text in all_helps(build, program):
                above = found.get((program, *words[:-1]), set()) if words else set()
                found[program, *words] = options(text) | above
    return found


@pytest.mark.parametrize("page", PAGES, ids=[page.name for page in PAGES])
def test_commands_and_options_are_there(build, helps, page):
    for program, words in _commands(page.read_text()):
        if not build.has(program):
            continue
        command = (program,)
        for word in words:
            if word.startswith("-"):
                assert word.split("=")[0] in helps[command], (page.name, program, words)
            elif (*command, word) in helps:
                command = (*command, word)
        known = {key[1] for key in helps if key[0] == program and len(key) > 1}
        first = next((word for word in words if not word.startswith("-")), None)
        if known and first and re.fullmatch(r"[a-z]+", first):
            assert first in known, (page.name, words)


def test_commands_are_found():
    found = [command for page in PAGES for command in _commands(page.read_text())]
    assert len(found) > 60
    assert {program for program, _ in found} == set(PROGRAMS)


@pytest.mark.parametrize("program", PROGRAMS)
def test_every_option_is_on_the_programs_page(build, helps, program):
    if not build.has(program):
        pytest.skip(f"{program} is not built")
    page = next(page for page in PAGES if page.stem in (program, program.removeprefix("ip-sla-")))
    text = page.read_text()
    # A short name stands beside a long one.
    names = {name for key in helps if key[0] == program for name in helps[key]}
    for name in sorted(name for name in names if name.startswith("--")):
        assert re.search(rf"{name}(?![\w-])", text), name
