"""The documents against the tree: links, paths and environment that they name."""

import json
import re

import pytest
from test_floors import ROOT

PAGES = sorted([*ROOT.glob("*.md"), *(ROOT / "docs").glob("*.md")])
NAMES = [str(page.relative_to(ROOT)) for page in PAGES]


def _anchors(text):
    """As hosts of repositories make them from headings."""
    headings = re.findall(r"^#+ (.+)$", re.sub(r"^```.*?^```$", "", text, flags=re.M | re.S), re.M)
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


def _links(page):
    text = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.M | re.S)
    return [link for link in re.findall(r"\]\(([^)\s]+)\)", text) if "://" not in link]


@pytest.mark.parametrize("page", PAGES, ids=NAMES)
def test_links_lead_somewhere(page):
    for link in _links(page):
        name, _, anchor = link.partition("#")
        target = page.parent / name if name else page
        assert target.exists(), link
        if anchor:
            assert anchor in _anchors(target.read_text()), link


@pytest.mark.parametrize("page", PAGES, ids=NAMES)
def test_files_of_the_tree_that_are_named_are_there(page):
    top = "src|tools|tests|docs|script|bench|cmake|deploy|examples"
    for path in re.findall(rf"`((?:{top})/[\w./-]+)`", page.read_text()):
        assert (ROOT / path).exists(), path


def test_every_reason_of_the_parser_is_in_the_configuration():
    page = " ".join((ROOT / "docs" / "configuration.md").read_text().split())
    source = (ROOT / "src" / "config" / "task_parser.cpp").read_text()
    reasons = set(re.findall(r'"((?:invalid|no|duplicate) [a-z/ ]{8,})"', source))
    assert len(reasons) > 30
    for reason in sorted(reasons):
        assert f"`{reason}`" in page, reason


def test_keys_of_results_are_those_of_the_schema():
    page = (ROOT / "docs" / "ip-sla-ctl.md").read_text()
    schema = json.loads((ROOT / "docs" / "schema" / "task-results.schema.json").read_text())
    described = schema["properties"]["tasks"]["items"]
    if "$ref" in described:
        described = schema["$defs"][described["$ref"].rsplit("/", 1)[1]]
    table = page.split("| Key of a task | Value |")[1].split("\n\n")[0]
    first_cells = [row.split("|")[1] for row in table.splitlines() if row]
    keys = {key for cell in first_cells for key in re.findall(r"`([^`]+)`", cell)}
    assert keys == set(described["properties"])


def _property_names(schema):
    if isinstance(schema, dict):
        yield from schema.get("properties", {})
        for value in schema.values():
            yield from _property_names(value)
    elif isinstance(schema, list):
        for value in schema:
            yield from _property_names(value)


@pytest.mark.parametrize("name", ["tasks", "keychain"])
def test_manual_pages_of_the_files_have_every_key(name):
    schema = json.loads((ROOT / "docs" / "schema" / f"{name}.schema.json").read_text())
    page = (ROOT / "docs" / "man" / f"ip-sla-{name}.5.scd").read_text()
    keys = set(_property_names(schema)) - {"$schema"}
    assert len(keys) > 2
    for key in sorted(keys):
        assert f'"{key}"' in page, key
