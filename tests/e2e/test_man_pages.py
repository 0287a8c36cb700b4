"""The manual pages: built, well-formed, and none falls behind its program's --help."""

import pathlib
import re
import subprocess

import pytest
from support.help_texts import all_helps, options

COMMAND_LINE = pathlib.Path(__file__).resolve().parents[2] / "src" / "main" / "command_line.cpp"
PAGES = [
    "ip-sla-ctl.1",
    "ip-sla-exporter.8",
    "ip-sla-keychain.5",
    "ip-sla-responder.8",
    "ip-sla-sender.8",
    "ip-sla-tasks.5",
]
# What the generator alone causes: it begins each paragraph with a macro, wanted or not.
_GENERATORS_OWN = re.compile(r"STYLE: |WARNING: skipping paragraph macro: ")


def _path(build, page):
    return build.directory / "man" / f"man{page[-1]}" / page


def _text(build, page):
    command = ["mandoc", "-Tutf8", "-O", "width=200", _path(build, page)]
    rendered = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    return re.sub(r".\x08", "", rendered)


def test_every_page_is_built(build):
    assert sorted(path.name for path in (build.directory / "man").glob("man?/*")) == PAGES


@pytest.mark.parametrize("page", PAGES)
def test_page_is_well_formed(build, page):
    command = ["mandoc", "-Tlint", _path(build, page)]
    findings = subprocess.run(command, capture_output=True, text=True, check=False).stdout
    assert [line for line in findings.splitlines() if not _GENERATORS_OWN.search(line)] == []


@pytest.mark.parametrize("page", PAGES)
def test_page_names_only_pages_that_there_are(build, page):
    named = set(re.findall(r"(ip-sla-[a-z]+)\((\d)\)", _text(build, page)))
    assert {f"{name}.{section}" for name, section in named} <= set(PAGES)


@pytest.mark.parametrize("program", ["ip-sla-ctl", "ip-sla-responder", "ip-sla-exporter"])
def test_every_option_is_on_its_page(build, program):
    if not build.has(program):
        pytest.skip(f"{program} is not built")
    section = 1 if program == "ip-sla-ctl" else 8
    page = _text(build, f"{program}.{section}")
    seen = set()
    for words, text in all_helps(build, program):
        for word in (*options(text), *words):
            assert re.search(rf"(?<![\w-]){re.escape(word)}(?![\w-])", page), (words, word)
            seen.add(word)
    assert {"-h", "--help", "-V", "--version"} <= seen, "the helps were read"


def test_every_option_of_the_daemon_is_on_its_page(build):
    """It has no --help: what getopt(3) is told is what there is."""
    page = _text(build, "ip-sla-sender.8")
    (letters,) = re.findall(r'getopt\(argc, argv, "([a-z:]+)"', COMMAND_LINE.read_text())
    for letter in letters.replace(":", ""):
        assert re.search(rf"^ +-{letter}\b", page, re.M), letter
