"""A real terminal for programs that people look at."""

import itertools
import re

from .waiting import wait_for


class Tmux:
    """A terminal of a given size inside a lab. Its lines are those of the screen: one that the
    terminal had to break is two.
    """

    _numbers = itertools.count()

    def __init__(self, lab, width, height, command):
        self.lab = lab
        self.socket = lab.directory / f"tmux-{next(self._numbers)}"
        self._run("-f", "/dev/null", "new-session", "-d", "-x", width, "-y", height, command)
        lab.on_close(lambda: self.lab.run(*self._command("kill-server"), check=False))

    def _command(self, *arguments):
        variables = ["TERM=screen", "PATH=/usr/bin:/bin", "LC_ALL=C.UTF-8"]
        return ["env", "-i", *variables, "tmux", "-S", self.socket, *map(str, arguments)]

    def _run(self, *arguments):
        return self.lab.run(*self._command(*arguments)).stdout

    def lines(self):
        return [line.rstrip() for line in self._run("capture-pane", "-p").splitlines()]

    def text(self):
        return "\n".join(self.lines())

    def coloured(self):
        """The text with escape sequences for its colours."""
        return self._run("capture-pane", "-e", "-p")

    def type(self, *keys):
        self._run("send-keys", *keys)

    def wait_for(self, pattern):
        wait_for(lambda: re.search(pattern, self.text(), re.M), f"{pattern!r} on the screen")
        return self.lines()
