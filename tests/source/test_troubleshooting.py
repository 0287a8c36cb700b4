"""docs/troubleshooting.md against the sources: every reason for which a run fails, every start
failure, and the hints of ip-sla-ctl, which are the advice of that page.
"""

import re

import pytest
from test_floors import ROOT

PAGE = (ROOT / "docs" / "troubleshooting.md").read_text()
REST = "anything else"
ESCAPES = {"n": "\n", "t": "\t"}


def _plain(text):
    return re.sub(r"\s+", " ", text).strip()


def _source(name):
    return (ROOT / name).read_text()


def _strings(text):
    """The string literals in C++ text, adjacent ones joined."""
    strings, end = [], -1
    for match in re.finditer(r'"((?:[^"\\\n]|\\.)*)"', text):
        literal = re.sub(r"\\(.)", lambda escape: ESCAPES.get(escape[1], escape[1]), match[1])
        if strings and text[end : match.start()].strip() == "":
            strings[-1] += literal
        else:
            strings.append(literal)
        end = match.end()
    return strings


def _section(title):
    found = re.search(rf"^## {re.escape(title)}\n(.*?)(?=^## |\Z)", PAGE, re.M | re.S)
    return found.group(1)


def _failures():
    """Reason to its part of the page."""
    parts = re.split(r"^### (.+)\n", _section("A task fails"), flags=re.M)
    return dict(zip(parts[1::2], parts[2::2]))


def _rows(section):
    """The cells of the tables of a section, without their heads."""
    rows = []
    for line in section.splitlines():
        cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", line)[1:-1]]
        if cells and not set("".join(cells)) <= set("- "):
            rows.append(cells)
    return [row for row in rows if "`" in row[0]]


FAILURES = _failures()
HINTS = _strings(_source("tools/ctl/hints.cpp").split("kHints{")[1].split("};")[0])
HINTS = list(zip(HINTS[::2], HINTS[1::2]))


def _reasons_in_sources():
    """What the sources give to failed runs: whole texts, and beginnings that a status follows."""
    reasons = set()
    for path in sorted((ROOT / "src").rglob("*.cpp")):
        text = path.read_text()
        for literal in re.findall(
            r'(?:FailRun\(|description = |kInternalError = )\s*("[^;)]*")', text
        ):
            reasons.update(_strings(literal))
    return reasons


def test_sources_have_the_reasons_that_are_looked_for():
    assert {"timeout, no samples", "Start test failed", "control phase failed: internal error"} <= (
        _reasons_in_sources()
    )
    assert any(reason.endswith(": ") for reason in _reasons_in_sources())


def _part_for(reason):
    return FAILURES.get(reason) or FAILURES.get(reason.rsplit(": ", 1)[0] + ": " + REST)


@pytest.mark.parametrize("reason", sorted(_reasons_in_sources()))
def test_every_reason_of_a_failed_run_is_explained(reason):
    names = _strings(
        _source("src/config/names.cpp").split("kControlStatuses = {")[1].split("};")[0]
    )
    assert len(names) == 14
    if not reason.endswith(": "):
        assert reason in FAILURES
        return
    for name in names[1:]:
        part = FAILURES.get(reason + name)
        # The header's status "fail" only points to the other two.
        if part is None and (reason, name) != (
            "control phase failed: command header status: ",
            "fail",
        ):
            assert f"`{name}`" in _plain(FAILURES[reason + REST]), name


@pytest.mark.parametrize("reason, hint", HINTS, ids=[reason for reason, _ in HINTS])
def test_hint_is_the_pages_advice(reason, hint):
    part = FAILURES[reason + REST if reason.endswith(": ") else reason]
    advices = [_plain(advice) for advice in re.findall(r"^\*([^*]+)\*$", part, re.M)]
    # One for each type, where types differ.
    assert hint in advices
    assert len(advices) == [known for known, _ in HINTS].count(reason)


def test_page_explains_nothing_that_there_is_not():
    assert set(FAILURES) == {
        reason + REST if reason.endswith(": ") else reason for reason, _ in HINTS
    }


@pytest.mark.parametrize("reason", FAILURES)
def test_explanation_has_cause_proof_and_remedy(reason):
    part = _plain(FAILURES[reason])
    cause, proof, remedy = re.search(r"- Cause: (.+) - Proof: (.+) - Remedy: (.+)", part).groups()
    assert cause and remedy
    assert re.search(r"`[^`]+`", proof), "a command that proves it"


def _start_failures():
    """What the daemon says on standard error before it gives up, without what varies."""
    main = _source("src/main/sender_main.cpp")
    calls = re.findall(r"^ +(?:EndWith|Complain)\(([^;]*)\);", main, re.M)
    texts = [_strings(call)[0] for call in calls if '"' in call]
    faults = _source("src/config/config_file.cpp").split("std::string FileFaultText")[1]
    texts += [text for text in _strings(faults) if len(text) > 5]
    line = _source("src/main/command_line.cpp")
    texts += [text for text in _strings(line) if text.startswith(("-f with", "-k with"))]
    tasks = _source("src/config/sender_help_funcs.cpp")
    return texts + [text for text in _strings(tasks) if "cannot be looked up" in text]


def test_every_start_failure_is_explained():
    section = _section("The daemon does not start")
    failures = _start_failures()
    assert len(failures) >= 10
    for text in failures:
        # Never said: a missing name is named as a missing option.
        if not text.startswith("no file with") and "is named" not in text:
            assert text.strip(': "') in section, text


@pytest.mark.parametrize("title", ["The daemon does not start", "What the logs say"])
def test_rows_have_cause_proof_and_remedy(title):
    rows = _rows(_section(title))
    assert len(rows) >= 10
    for row in rows:
        assert len(row) == 4 and all(row), row
        assert re.search(r"`[^`]+`", row[2]), "a command that proves it"


def _formats():
    """The literals of the daemon as patterns of the lines that they become."""
    lines = {
        _plain(line)
        for path in sorted((ROOT / "src").rglob("*.cpp"))
        for literal in _strings(path.read_text())
        for line in literal.split("\n")
    }
    for line in lines:
        parts = re.split(r"%[-0-9.]*(?:l|z)?[a-z]", line)
        if len("".join(parts)) > 3:
            yield re.compile(".+".join(map(re.escape, parts)))


def test_log_lines_are_those_of_the_sources():
    formats = list(_formats())
    for row in _rows(_section("What the logs say")):
        for text in re.findall(r"`([^`]+)`", row[0]):
            text = _plain(text.replace("\\|", "|"))
            if " " in text:  # else a word within a line
                assert any(
                    one.fullmatch(text)
                    or one.fullmatch(text.rstrip("… ."))
                    or one.pattern.startswith(re.escape(text.rstrip("… .")))
                    for one in formats
                ), text
