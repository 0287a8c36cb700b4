"""A screen of a terminal, as text with its escape sequences, drawn as an SVG picture."""

import re
import unicodedata
from xml.sax.saxutils import escape

CELL_WIDTH, LINE_HEIGHT, MARGIN = 8.4, 18, 14
GROUND, INK = "#16191f", "#d7dae0"
# The eight colours, then the same brighter.
COLOURS = ["#5c6370", "#f2777a", "#7fc97f", "#e6c35c", "#6ea8ff", "#c99be8", "#5cc4c4", "#d7dae0"]
COLOURS += ["#7f8794", "#ff9a9c", "#a2e3a2", "#ffe08a", "#97c2ff", "#e0bcf7", "#86e0e0", "#ffffff"]

_ESCAPE = re.compile(r"\x1b\[([0-9;]*)m|[\x0e\x0f]")


class Style:
    """How the text that follows looks."""

    def __init__(self):
        self.colour, self.bold, self.faint, self.reverse = None, False, False, False

    def take(self, numbers):
        for number in numbers:
            if number == 0:
                self.__init__()
            elif number in (1, 2, 7):
                setattr(self, {1: "bold", 2: "faint", 7: "reverse"}[number], True)
            elif number == 22:
                self.bold = self.faint = False
            elif number == 27:
                self.reverse = False
            elif number == 39:
                self.colour = None
            elif 30 <= number <= 37:
                self.colour = COLOURS[number - 30]
            elif 90 <= number <= 97:
                self.colour = COLOURS[number - 82]

    def attributes(self):
        ink = self.colour or INK
        text = f' fill="{GROUND if self.reverse else ink}"'
        text += ' font-weight="bold"' if self.bold else ""
        return text + (' opacity="0.65"' if self.faint else "")


def cells(text):
    """Columns that a text takes."""
    return sum(2 if unicodedata.east_asian_width(one) in "WF" else 1 for one in text)


def spans(line, style):
    """Pieces of one look: (first column, text, style's attributes, ground or nothing)."""
    column, at = 0, 0
    for match in [*_ESCAPE.finditer(line), None]:
        text = line[at : match.start() if match else len(line)]
        if text:
            ground = (style.colour or INK) if style.reverse else None
            yield column, text, style.attributes(), ground
            column += cells(text)
        if match:
            at = match.end()
            if match[0][0] == "\x1b":
                style.take([int(number or 0) for number in match[1].split(";")])


def _piece(column, top, text, attributes, ground):
    x, width = MARGIN + column * CELL_WIDTH, cells(text) * CELL_WIDTH
    if ground:
        place = f'x="{x:.1f}" y="{top}" width="{width:.1f}" height="{LINE_HEIGHT}"'
        yield f'<rect {place} fill="{ground}"/>'
    if text.strip():
        # The length keeps columns in line in whatever font the viewer has.
        yield (
            f'<text x="{x:.1f}" y="{top + 13}" textLength="{width:.1f}"{attributes}'
            f' xml:space="preserve">{escape(text)}</text>'
        )


def draw(screen, columns):
    """The SVG document of a screen of that many columns."""
    lines, style, body = screen.rstrip().split("\n"), Style(), []
    for row, line in enumerate(lines):
        for span in spans(line, style):
            body += _piece(span[0], MARGIN + row * LINE_HEIGHT, *span[1:])
    width = round(2 * MARGIN + columns * CELL_WIDTH)
    height = 2 * MARGIN + len(lines) * LINE_HEIGHT
    head = (
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}"'
        f' viewBox="0 0 {width} {height}" font-size="14"'
        ' font-family="DejaVu Sans Mono, Menlo, Consolas, monospace">'
    )
    ground = f'<rect width="{width}" height="{height}" rx="8" fill="{GROUND}"/>'
    return "\n".join([head, ground, *body, "</svg>", ""])
