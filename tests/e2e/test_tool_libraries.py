"""What each program loads: the tools stand on what both ends share, on nothing of the daemon's."""

import os
import subprocess

import pytest

DEVICE = ("liblogsvc.so", "libcrashtrace.so", "libkeepalive.so")


def loaded(program):
    """As the loader lists them, instead of starting the program (ld.so(8))."""
    listing = subprocess.run(
        [program],
        env={**os.environ, "LD_TRACE_LOADED_OBJECTS": "1"},
        check=True,
        capture_output=True,
        text=True,
    )
    return {line.split()[0].split(".so")[0] + ".so" for line in listing.stdout.splitlines()}


def test_the_daemon_loads_the_devices_libraries(build):
    assert loaded(build.directory / "bin" / "ip-sla-sender").issuperset(DEVICE)


@pytest.mark.parametrize(
    "program, foreign",
    [
        ("ip-sla-ctl", ("libcrypto.so", "libsystemd.so")),
        ("ip-sla-exporter", ("libcrypto.so", "libsystemd.so")),
        ("ip-sla-responder", ("libsystemd.so",)),
    ],
)
def test_a_tool_loads_nothing_of_the_devices(build, program, foreign):
    libraries = loaded(build.directory / "bin" / program)
    assert "libcjson.so" in libraries
    assert libraries.isdisjoint(DEVICE + foreign)
