"""The pictures of the documents, and the one that is drawn of a terminal."""

import re
import sys
import xml.etree.ElementTree as xml

from test_floors import ROOT

sys.path.insert(0, str(ROOT / "script/lib"))
from screen_svg import CELL_WIDTH, COLOURS, GROUND, INK, MARGIN, draw  # noqa: E402

SVG = "{http://www.w3.org/2000/svg}"


def test_every_picture_is_shown_and_small():
    shown = set(
        re.findall(r'(?:src|srcset)="docs/images/([^"]+)"', (ROOT / "README.md").read_text())
    )
    pictures = list((ROOT / "docs/images").iterdir())
    assert shown == {path.name for path in pictures} and len(shown) >= 3
    assert all(path.stat().st_size < 150_000 for path in pictures)


def _drawn(screen):
    """Texts and grounds: (column, text or None, colour)."""
    found = []
    for element in xml.fromstring(draw(screen, 40)).iter():
        if element.tag == SVG + "text" or element.tag == SVG + "rect" and element.get("x"):
            column = round((float(element.get("x")) - MARGIN) / CELL_WIDTH)
            found.append((column, element.text, element.get("fill")))
    return found


def test_a_screen_is_drawn_as_it_looks():
    assert _drawn("plain \x1b[1;31mFAIL\x1b[0m <&>\n\n \x1b[7m5\x1b[27m\n") == [
        (0, "plain ", INK),
        (6, "FAIL", COLOURS[1]),
        (10, " <&>", INK),
        (1, None, INK),
        (1, "5", GROUND),
    ]
