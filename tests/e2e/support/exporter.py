"""ip-sla-exporter inside a lab, and what it answers: by HTTP, as metrics, as raw bytes."""

import http.client
import json
import re
import signal
import socket

from .daemon import SANITIZER_MARKS
from .tasks import icmp_echo, icmp_jitter, udp_echo, udp_jitter, udp_jitter_ntp
from .udp_tasks import start_responder
from .waiting import DEFAULT_DEADLINE, SCALE, wait_for

PORT = 9815

# A task that has run is not soon run again, so that its results stay the same; and no reply is too
# late for it, however slow the programs are.
RUN_ONCE = {"time": 3600, "timeout": int(10000 * SCALE), "control": {"timeout": int(5000 * SCALE)}}

_SAMPLE = re.compile(r"([a-zA-Z_:][a-zA-Z0-9_:]*)(?:\{(.*)\})? (\S+)")
_LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\]|\\.)*)"')


def start_each_type(lab, start_daemon):
    """A daemon with a task of each type, 1 to 5, and 6, which fails; each has run once."""
    start_responder(lab)
    kinds = (udp_echo, udp_jitter, udp_jitter_ntp, icmp_echo, icmp_jitter)
    tasks = [kind(number, **RUN_ONCE) for number, kind in enumerate(kinds, 1)]
    daemon = start_daemon([*tasks, icmp_echo(6, src="192.0.2.10", **RUN_ONCE)])
    for number in range(1, 7):
        daemon.wait_for_reports(number)
    return daemon


class Metrics(dict):
    """Samples by name and labels: metrics["name", ("label", "value"), ...], labels in any order."""

    def __init__(self, text):
        super().__init__()
        self.text = text
        for line in text.splitlines():
            if line.startswith("#"):
                continue
            name, labels, value = _SAMPLE.fullmatch(line).groups()
            key = (name, frozenset(_LABEL.findall(labels or "")))
            assert key not in self, f"twice: {line}"
            self[key] = float(value)

    def value(self, name, **labels):
        """Nothing when there is no such sample."""
        return self.get((name, frozenset((key, str(value)) for key, value in labels.items())))

    def names(self):
        return {name for name, _ in self}

    def of_task(self, number):
        return {name for name, labels in self if ("task", str(number)) in labels}


class _Connection(http.client.HTTPConnection):
    def __init__(self, exporter):
        super().__init__("127.0.0.1", PORT, timeout=30 * SCALE)
        self.exporter = exporter

    def connect(self):
        self.sock = self.exporter.connect()


class Exporter:
    """The process, ready when the constructor returns."""

    def __init__(self, lab, *arguments):
        self.lab = lab
        environment = {name: value for name, value in lab.build.environment().items() if value}
        self.stderr_path = lab.directory / "exporter-stderr"
        self.stdout_path = lab.directory / "exporter-stdout"
        with open(self.stdout_path, "wb") as out, open(self.stderr_path, "wb") as err:
            self.process = lab.popen(
                "env",
                "-i",
                *(f"{name}={value}" for name, value in environment.items()),
                *lab.build.launcher(),
                lab.build.program("ip-sla-exporter"),
                *arguments,
                stdout=out,
                stderr=err,
            )
        lab.on_close(self.stop)
        wait_for(self._is_serving, "the exporter to serve")

    def _is_serving(self):
        assert self.process.poll() is None, self.stderr
        return "serving on" in self.stdout_path.read_text()

    @property
    def stderr(self):
        return self.stderr_path.read_text(errors="replace")

    @property
    def pid(self):
        return self.process.pid

    def stop(self):
        """A clean stop, with nothing on standard error."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(timeout=DEFAULT_DEADLINE * SCALE)
            assert (self.process.returncode, self.stderr) == (0, "")
        assert not any(mark in self.stderr for mark in SANITIZER_MARKS), self.stderr

    def connect(self):
        sock = self.lab.socket(socket.AF_INET, socket.SOCK_STREAM)
        sock.settimeout(30 * SCALE)
        sock.connect(("127.0.0.1", PORT))
        return sock

    def request(self, target, method="GET", status=200, **headers):
        """The response, its body read."""
        connection = _Connection(self)
        headers = {name.replace("_", "-"): value for name, value in headers.items()}
        connection.request(method, target, headers=headers)
        response = connection.getresponse()
        response.body = response.read()
        connection.close()
        assert response.status == status, (target, response.status, response.body[:200])
        return response

    def metrics(self, accept="text/plain"):
        return Metrics(self.request("/metrics", accept=accept).body.decode())

    def json(self, target, **options):
        return json.loads(self.request(target, **options).body)

    def descriptors(self):
        return len(list(self.lab.path(f"/proc/{self.pid}/fd").iterdir()))
