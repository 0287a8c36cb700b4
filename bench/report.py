"""The figures of all areas, as tables for people and as JSON for programs."""

import json
import sys

from . import figures, host

# Above this, other work is likely to be seen in the figures.
_QUIET_PERCENT = 15


class Report:
    """Collects what the areas find, and says how far it has come."""

    def __init__(self, build):
        self.host = host.describe(build)
        self.warnings = []
        self.areas = {}
        self._disturbed = 0
        for warning in host.build_warnings(build):
            self.warn(warning)

    def warn(self, text):
        self.warnings.append(text)
        print(f"warning: {text}", file=sys.stderr, flush=True)

    def begin(self, what):
        """To be called before a measurement: looks whether the machine is quiet."""
        busy = host.busy_percent()
        if busy > _QUIET_PERCENT:
            self._disturbed += 1
        print(f"{what} (other work: {busy:.0f} %)", file=sys.stderr, flush=True)

    def add(self, area, value):
        self.areas[area] = figures.plain(value)

    def head(self):
        """Where and of what the figures are."""
        return "\n".join(f"{name + ':':10} {text}" for name, text in self.host.items())

    def finish(self):
        """The warnings, those included that only the end can give."""
        if self._disturbed:
            self.warn(
                f"{self._disturbed} measurements began while other work kept the machine busy"
            )
        return [f"warning: {text}" for text in self.warnings]

    def write(self, path):
        document = {"host": self.host, "warnings": self.warnings, "areas": self.areas}
        with open(path, "w") as out:
            json.dump(document, out, indent=1)
            out.write("\n")
