"""What a newcomer sees first."""

import os
import pathlib
import re
import subprocess

from support.waiting import SCALE

ROOT = pathlib.Path(__file__).resolve().parents[2]
ROW = re.compile(r" *(\d+)  ([a-z-]+) +(\S+) +(\S+) +ok +\d+s +(.*)")


def test_demo_shows_every_type_and_one_report(build):
    command = [*build.launcher(), ROOT / "script" / "demo"]
    environment = {**os.environ, **build.environment(), "IPSLA_BUILD_DIR": str(build.directory)}
    result = subprocess.run(
        command,
        env=environment,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=100 * SCALE,
        check=False,
    )
    assert result.returncode == 0, result.stdout + result.stderr
    lines = result.stdout.splitlines()
    assert len(lines) <= 80 and max(map(len, lines)) <= 160
    rows = {match[2]: match for match in map(ROW.fullmatch, lines) if match}
    assert set(rows) == {"icmp-echo", "icmp-jitter", "udp-echo", "udp-jitter", "udp-jitter-ntp"}
    assert set(rows["udp-jitter-ntp"][5].split()[:4]) == {"-"}
    assert "  no usable replies" in lines
    report = result.stdout.split("SLA task:\n")
    assert len(report) == 2 and "Type: udp-jitter (#2)" in report[1]
    assert not re.search(r"\d{20}", result.stdout), "no presets that nobody measured"
