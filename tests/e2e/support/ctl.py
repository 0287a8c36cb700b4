"""ip-sla-ctl inside a lab: run to its end, or on a pseudo-terminal; and its tables without what
differs from run to run.
"""

import fcntl
import json
import os
import pty
import re
import struct
import termios

from .tasks import icmp_echo, icmp_jitter
from .waiting import SCALE, wait_for

_UNREACHABLE = "192.0.2.10"  # on no interface
NO_SOURCE = "source address or interface not exist"
HEADER = (
    "ID TYPE VRF DEST RESULT AGE RTT ONE-WAY sd/ds JITTER LOSS LOSS sd/ds JITTER sd/ds OK FAILED"
)
ECHO = "1 icmp-echo - 127.0.0.1 ok AGE N.NNN - - 0% - - COUNT 0"
JITTER = "2 icmp-jitter blue 10.1.0.2 ok AGE N.NNN N.NNN/N.NNN N.NNN 0% 0%/0% N.NNN/N.NNN COUNT 0"
NOT_RUN = "9 icmp-echo - 127.0.0.1 not run - - - - - - - - -"
FAILING = [
    "5 icmp-echo - 127.0.0.1 FAIL AGE - - - - - - 0 COUNT",
    NO_SOURCE,
    "hint: give the task a source address that an interface of its VRF has and that is up "
    "(ip address)",
]
# Whether the machine's clock is synchronised is not the test's.
CLOCK_REMARK = "the clock of this machine is not synchronised: one-way values may be wrong"


class Ctl:
    """Runs ip-sla-ctl inside a lab."""

    def __init__(self, lab):
        self.lab = lab
        self.environment = {**lab.build.environment(), "TZ": "UTC0"}
        self.environment = {name: value for name, value in self.environment.items() if value}

    def command(self, *arguments, program="ip-sla-ctl", **environment):
        variables = [
            f"{name}={value}" for name, value in {**self.environment, **environment}.items()
        ]
        launcher = self.lab.build.launcher()
        return [
            "env",
            "-i",
            *variables,
            *launcher,
            self.lab.build.program(program),
            *map(str, arguments),
        ]

    def __call__(self, *arguments, status=0, error=""):
        """Standard output; the exit status and standard error must be as given."""
        result = self.lab.run(*self.command(*arguments), check=False, timeout=60 * SCALE)
        assert (result.returncode, result.stderr) == (status, error), (result.stdout, result.stderr)
        return result.stdout

    def json(self, *arguments, **expected):
        text = self("--json", *arguments, **expected)
        assert text.count("\n") == 1, "one document, one line"
        return json.loads(text)


class Terminal:
    """A program on a pseudo-terminal of a given size."""

    def __init__(self, ctl, *arguments, width=200, height=40, **environment):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", height, width, 0, 0))
        environment = {"TERM": "xterm", **environment}
        command = ctl.command(*arguments, **environment)
        self.process = ctl.lab.popen(*command, stdin=slave, stdout=slave, stderr=slave)
        os.close(slave)
        os.set_blocking(self.master, False)
        self.text = ""

    def read(self):
        try:
            while data := os.read(self.master, 65536):
                self.text += data.decode().replace("\r\n", "\n")
        except BlockingIOError:
            pass
        except OSError:  # the program ended and closed its side
            pass
        return self.text

    def wait_for(self, pattern):
        return wait_for(
            lambda: re.search(pattern, self.read(), re.S), f"{pattern!r} on the terminal"
        )

    def wait_exit(self):
        wait_for(
            lambda: self.read() is not None and self.process.poll() is not None, "the program's end"
        )
        self.read()
        os.close(self.master)
        return self.process.returncode


class Piped:
    """ip-sla-ctl with its outputs in files."""

    def __init__(self, ctl, *arguments):
        self._paths = [ctl.lab.directory / f"piped-{id(self)}.{end}" for end in ("out", "err")]
        with open(self._paths[0], "wb") as out, open(self._paths[1], "wb") as err:
            self.process = ctl.lab.popen(*ctl.command(*arguments), stdout=out, stderr=err)

    @property
    def lines(self):
        """Of standard output, as far as they are complete."""
        return self._paths[0].read_text().split("\n")[:-1]

    @property
    def errors(self):
        return self._paths[1].read_text()


def masked(text):
    """The lines of a table with single spaces, and without what differs from run to run and from
    machine to machine.
    """
    lines = [re.sub(r" +", " ", line.strip()) for line in text.splitlines()]
    lines = [line for line in lines if line != CLOCK_REMARK]
    lines = [re.sub(r"\b\d+\.\d{2,3}\b", "N.NNN", line) for line in lines]
    lines = [re.sub(r" (ok|FAIL) (\d+m\d\ds|\d+s) ", r" \1 AGE ", line) for line in lines]
    lines = [re.sub(r"( ok .*) \d+ 0$", r"\1 COUNT 0", line) for line in lines]
    return [re.sub(r"( FAIL .*) 0 \d+$", r"\1 0 COUNT", line) for line in lines]


def start_usual_daemon(lab, start_daemon):
    """Tasks 1 and 2 succeed, 5 fails, 9 has not run yet."""
    lab.add_vrf("blue")
    later = {"Start-time": "23:59:59"}
    tasks = [
        icmp_echo(1),
        icmp_jitter(2, src="10.1.0.1", dst="10.1.0.2", vrf="blue"),
        icmp_echo(5, src=_UNREACHABLE),
        icmp_echo(9, time=3600, scheduler=later),
    ]
    started = start_daemon(tasks, env={"TZ": "UTC0"})
    for number in (1, 2, 5):
        started.wait_for_reports(number)
    return started
