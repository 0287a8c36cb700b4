"""The installed units: what they name exists, systemd takes them, and they expose little."""

import pathlib
import re
import subprocess

import pytest
from installation import install

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


def _verify(unit):
    """What systemd says against a unit alone: manual pages and targets of a whole system need not be
    here.
    """
    result = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", unit],
        capture_output=True,
        text=True,
    )
    return result.returncode, [line for line in result.stderr.splitlines() if unit.name in line]


def test_systemd_takes_a_unit(build, name):
    assert _verify(_unit(build, name)) == (0, [])


def _words(text, key):
    """Of all commands of that key, as systemd reads them."""
    lines = re.findall(rf"^{key}=(/.*)$", text, re.MULTILINE)
    words = " ".join(lines).replace("%%", "%").split()
    return [re.sub(r"\\x(..)", lambda code: chr(int(code[1], 16)), word) for word in words]


def test_units_of_a_prefix_with_blanks_and_signs_name_what_is_there(tmp_path):
    prefix = tmp_path / "a 100%i prefix"
    install(prefix)
    units = sorted((prefix / "lib/systemd/system").iterdir())
    for unit in units:
        assert _verify(unit) == (0, [])
        text = unit.read_text()
        commands = _words(text, "ExecStart") + _words(text, "ExecStartPre")
        files = re.findall(r"^(?:EnvironmentFile=-|LoadCredential=keychain:)(.*)$", text, re.M)
        named = commands + [file.replace("%%", "%") for file in files]
        named = [path for path in named if path.startswith(str(tmp_path))]
        assert [path for path in named if not pathlib.Path(path).exists()] == []
        assert str(prefix / "etc/ip-sla") in {str(pathlib.Path(path).parent) for path in named}
    assert units


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
