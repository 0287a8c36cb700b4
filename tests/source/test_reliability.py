"""docs/reliability.md says of faults, fuzz targets and scenarios what the tests do."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from support.fault_table import OTHER_FAULTS, RUN_FAULTS  # noqa: E402  (after the path is set)

TEXT = (ROOT / "docs" / "reliability.md").read_text()


def rows_below(heading):
    section = TEXT.split(f"\n## {heading}\n")[1].split("\n## ")[0]
    rows = re.findall(r"^\| (.*) \|$", section, re.MULTILINE)
    return [tuple(row.split(" | ")) for row in rows if not row.startswith("---")]


def test_the_table_of_faults_is_the_tests_own():
    faults = [(fault.name, fault.effect) for fault in [*RUN_FAULTS, *OTHER_FAULTS]]
    assert rows_below("Faults of the system")[1:] == faults


def test_no_fault_has_two_rows():
    names = [fault.name for fault in [*RUN_FAULTS, *OTHER_FAULTS]]
    assert sorted(set(names)) == sorted(names)


def test_scenarios_stand_where_the_table_says():
    for _, where in rows_below("Recovery")[1:]:
        for name in re.findall(r"`(test_\w+\.py)`", where):
            assert (ROOT / "tests" / "e2e" / name).exists(), name


def test_every_fuzz_target_is_named_and_has_a_corpus():
    targets = {path.stem.removesuffix("_fuzz") for path in (ROOT / "tests/fuzz").glob("*_fuzz.cpp")}
    rows = rows_below("Hostile input")
    named = set(re.findall(r"`(\w+)`", " ".join(row[-1] for row in rows if len(row) == 2)))
    assert named == targets
    for target in targets:
        assert any((ROOT / "tests/fuzz/corpus" / target).iterdir()), target
