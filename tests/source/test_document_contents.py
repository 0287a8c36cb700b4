"""The documents against the tree: links, paths and environment that they name."""

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
