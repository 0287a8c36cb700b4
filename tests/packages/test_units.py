"""The installed units: what they name exists, systemd takes them, and they expose little."""

import pathlib
import re
import subprocess

import pytest

# As systemd counts a service's exposure, from 0 to 10; more would mean a loosened sandbox.
HIGHEST_EXPOSURE = {"sender": 2.7, "responder": 1.5, "exporter": 1.5}


def _unit(build, name):
    return build.prefix / f"lib/systemd/system/ip-sla-{name}.service"


@pytest.fixture(params=HIGHEST_EXPOSURE)
def name(build, request):
    if not build.has(f"ip-sla-{request.param}"):
        pytest.skip(f"ip-sla-{request.param} is not part of this build")
    return request.param


def test_a_unit_names_installed_programs_and_files(build, name):
    text = _unit(build, name).read_text()
    assert re.findall(r"@\w+dir@", text) == []
    named = re.findall(rf"{re.escape(str(build.prefix))}[^\s]*", text)
    assert [path for path in named if not pathlib.Path(path).exists()] == []
    assert str(build.program(f"ip-sla-{name}")) in named


def test_systemd_takes_a_unit(build, name):
    # Of the unit alone: manual pages and targets of a whole system need not be here.
    result = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", _unit(build, name)],
        capture_output=True,
        text=True,
    )
    about_it = [line for line in result.stderr.splitlines() if f"ip-sla-{name}" in line]
    assert (result.returncode, about_it) == (0, [])


def test_a_unit_exposes_little(build, name):
    table = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", "--no-pager", _unit(build, name)],
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    exposure = float(re.search(r"Overall exposure level for \S+: ([\d.]+)", table).group(1))
    assert exposure <= HIGHEST_EXPOSURE[name], table


def _command_on_limits(build):
    """What the sender's unit runs on the limits of socket buffers, as a shell is given it."""
    text = _unit(build, "sender").read_text().replace("\\\n", " ")
    (command,) = re.findall(r"^ExecStartPre=\+-/bin/sh -c '(cd /proc/.*)'$", text, re.MULTILINE)
    return command.replace("$$", "$")


def test_limits_of_socket_buffers_are_raised_and_never_lowered(build, tmp_path):
    (tmp_path / "rmem_max").write_text("212992\n")
    (tmp_path / "wmem_max").write_text("33554432\n")
    command = _command_on_limits(build).replace("/proc/sys/net/core", str(tmp_path))
    subprocess.run(["sh", "-c", command], check=True)
    assert (tmp_path / "rmem_max").read_text() == "16777216\n"
    assert (tmp_path / "wmem_max").read_text() == "33554432\n"
