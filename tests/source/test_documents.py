"""What documents and comments say of each other is true."""

import re

import pytest
from test_floors import ROOT

KEPT = ROOT / "docs/kept-behaviours.md"
ARCHITECTURE = ROOT / "docs/architecture.md"
POINTER = re.compile(r"kept-behaviours\.md#([\w-]+)")
ROW = re.compile(r"^\| [^|]+ \| `([^`]+)` \| `([^`]+)` \|$", re.MULTILINE)


def anchor(heading):
    """The fragment that a heading gets where the document is shown."""
    return re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")


def anchors(level, text):
    return [anchor(heading) for heading in re.findall(rf"^#{{{level}}} (.+)$", text, re.MULTILINE)]


def pointers():
    """Anchor to the files that point to it."""
    found = {}
    paths = [path for top in ("src", "tools") for path in (ROOT / top).rglob("*.[hc]*")]
    for path in paths + [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]:
        for target in POINTER.findall(path.read_text()):
            found.setdefault(target, []).append(str(path.relative_to(ROOT)))
    return found


def test_every_pointer_to_a_kept_behaviour_arrives():
    there = set(anchors(3, KEPT.read_text()))
    assert len(there) > 25
    assert {target: files for target, files in pointers().items() if target not in there} == {}


def test_every_kept_behaviour_is_pointed_to_from_the_code():
    from_code = {
        target
        for target, files in pointers().items()
        if any(file.startswith(("src/", "tools/")) for file in files)
    }
    assert [name for name in anchors(3, KEPT.read_text()) if name not in from_code] == []


def test_kept_behaviours_are_listed_by_group_and_linked_from_the_start():
    text = KEPT.read_text()
    assert re.findall(r"^- \[.*\]\(#(.*)\)$", text, re.MULTILINE) == anchors(2, text)
    assert "docs/kept-behaviours.md" in (ROOT / "README.md").read_text()


def test_what_looks_like_a_mistake_is_explained_in_one_place():
    """A comment that says "deliberate" owes the reader the reason, which the list has."""
    said = [
        str(path.relative_to(ROOT))
        for top in ("src", "tools")
        for path in (ROOT / top).rglob("*.[hc]*")
        if re.search(r"//.*\bdeliberate", path.read_text(), re.IGNORECASE)
    ]
    assert said == []


def test_the_table_of_places_is_true():
    section = ARCHITECTURE.read_text().split("### Where is ...")[1].split("\n#")[0]
    rows = ROW.findall(section)
    assert len(rows) >= 10 and len(rows) == section.count("\n| ") - 2
    assert [(file, name) for file, name in rows if name not in (ROOT / file).read_text()] == []


@pytest.mark.parametrize(
    "heading, expected",
    [
        ("Echo minima are 0", "echo-minima-are-0"),
        ("Text that is no address is 0.0.0.0", "text-that-is-no-address-is-0000"),
        ("Some reasons end in %m", "some-reasons-end-in-m"),
    ],
)
def test_anchors_are_made_as_they_are_shown(heading, expected):
    assert anchor(heading) == expected
