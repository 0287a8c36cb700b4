"""Debian's Prometheus inside a lab, with the configuration and rules of deploy/prometheus."""

import http.client
import json
import pathlib
import re
import socket
import subprocess
import urllib.parse

from .waiting import SCALE, wait_for

DEPLOY = pathlib.Path(__file__).resolve().parents[3] / "deploy"
_PORT = 9090


class _Connection(http.client.HTTPConnection):
    def __init__(self, lab):
        super().__init__("127.0.0.1", _PORT, timeout=30 * SCALE)
        self.lab = lab

    def connect(self):
        self.sock = self.lab.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.settimeout(30 * SCALE)
        self.sock.connect(("127.0.0.1", _PORT))


def promtool(*arguments, **options):
    result = subprocess.run(
        ["promtool", *map(str, arguments)], capture_output=True, text=True, timeout=120, **options
    )
    assert result.returncode == 0, result.stdout + result.stderr
    return result.stdout + result.stderr


class Prometheus:
    """A server that scrapes and evaluates every second; its files end with the test."""

    def __init__(self, lab):
        self.lab = lab
        directory = lab.directory / "prometheus"
        directory.mkdir()
        for source in (DEPLOY / "prometheus").iterdir():
            text = re.sub(r"\b(\w*interval): \w+", r"\1: 1s", source.read_text())
            (directory / source.name).write_text(
                text.replace("scrape_timeout: 10s", "scrape_timeout: 1s")
            )
        with open(directory / "log", "wb") as log:
            lab.popen(
                "prometheus",
                f"--config.file={directory / 'prometheus.yml'}",
                f"--storage.tsdb.path={directory / 'data'}",
                f"--web.listen-address=127.0.0.1:{_PORT}",
                stdout=log,
                stderr=log,
            )
        wait_for(self._is_ready, "Prometheus to be ready")

    def _is_ready(self):
        try:
            return self._get("/-/ready")[0] == 200
        except ConnectionRefusedError:
            return False

    def _get(self, target):
        connection = _Connection(self.lab)
        connection.request("GET", target)
        response = connection.getresponse()
        body = response.read()
        connection.close()
        return response.status, body

    def query(self, expression):
        """The instant vector, as pairs of labels and value."""
        target = "/api/v1/query?" + urllib.parse.urlencode({"query": expression})
        status, body = self._get(target)
        answer = json.loads(body)
        assert status == 200, (expression, answer)
        return [
            (sample["metric"], float(sample["value"][1])) for sample in answer["data"]["result"]
        ]

    def value(self, expression):
        """Of an expression with one result; nothing without."""
        results = self.query(expression)
        assert len(results) <= 1, (expression, results)
        return results[0][1] if results else None
