"""Spreads of measured values, and tables of them."""

from dataclasses import asdict, dataclass


@dataclass
class Spread:
    """Median, 99th percentile and largest of the absolute values; microseconds."""

    median: float
    p99: float
    largest: float
    count: int

    def __str__(self):
        return f"{self.median:.1f} / {self.p99:.1f} / {self.largest:.0f}"


def spread(nanoseconds):
    """The spread of errors in nanoseconds, or nothing when there are none."""
    values = sorted(abs(value) for value in nanoseconds)
    if not values:
        return None

    def quantile(share):
        return values[min(len(values) - 1, int(share * len(values)))] / 1000

    return Spread(quantile(0.5), quantile(0.99), values[-1] / 1000, len(values))


def plain(value):
    """The value as JSON can hold it."""
    if isinstance(value, Spread):
        return asdict(value)
    if isinstance(value, dict):
        return {str(name): plain(part) for name, part in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain(part) for part in value]
    return value


def table(head, rows):
    """A Markdown table, columns aligned."""
    cells = [[text(cell) for cell in row] for row in [head, *rows]]
    widths = [max(len(row[column]) for row in cells) for column in range(len(head))]
    lines = ["| " + " | ".join(c.ljust(w) for c, w in zip(row, widths)) + " |" for row in cells]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(lines)


def text(cell):
    """One cell: "-" where there is nothing."""
    if cell is None:
        return "-"
    return f"{cell:.1f}" if isinstance(cell, float) else str(cell)
