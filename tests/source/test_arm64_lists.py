"""The lists of what does not run on emulated processors."""

import re

from test_floors import ROOT

FILES = {path.relative_to(ROOT).as_posix(): path for path in (ROOT / "tests/e2e").glob("test_*.py")}


def _listed(name):
    lines = (ROOT / "tests/arm64" / name).read_text().splitlines()
    return [line.split("#")[0].strip() for line in lines if line.split("#")[0].strip()]


def _tests(text):
    return re.findall(r"^(?: {4})?def (test_\w+)", text, re.M)


def test_left_out_is_what_there_is():
    for entry in _listed("left-out"):
        file, _, name = entry.partition("::")
        assert file in FILES, entry
        assert not name or name.split("[")[0] in _tests(FILES[file].read_text()), entry


def test_more_than_half_of_the_end_to_end_tests_run_there():
    left_out = _listed("left-out")
    total = sum(len(_tests(path.read_text())) for path in FILES.values())
    remaining = sum(
        len(_tests(path.read_text())) for file, path in FILES.items() if file not in left_out
    )
    assert remaining - sum("::" in entry for entry in left_out) > total / 2


def test_unit_test_patterns_name_what_there_is():
    names = set()
    for path in (ROOT / "tests/unit").rglob("*.cpp"):
        names.update(re.findall(r"TEST(?:_F|_P)?\((\w+), *(\w+)\)", path.read_text()))
    known = {f"{suite}.{name}" for suite, name in names}
    for pattern in _listed("not-emulated") + _listed("too-slow"):
        expression = re.escape(pattern.split("/")[-1]).replace(r"\*", ".*")
        assert any(re.fullmatch(expression, name) for name in known), pattern
