"""The Debian packages for 64-bit ARM: what those of this machine's architecture hold, built for the
other one. script/arm64 makes both.
"""

import hashlib
import os
import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
NAMES = ["ip-sla-exporter", "ip-sla-platform-stub", "ip-sla-responder", "ip-sla-sender"]
PROGRAMS = ["usr/bin/ip-sla-ctl", "usr/bin/ip-sla-exporter", "usr/bin/ip-sla-responder"]
PROGRAMS += ["usr/sbin/ip-sla-sender"]
LIBRARIES = [f"usr/lib/ip-sla/lib{name}.so" for name in ("crashtrace", "keepalive", "logsvc")]
ELF_MACHINES = {62: "amd64", 183: "arm64"}


def _output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Packages:
    """Those of one architecture, and all that is in them."""

    def __init__(self, arch, directory):
        self.paths = sorted((ROOT / f"build/package-{arch}").glob("*.deb"))
        self.arch = arch
        self.root = directory / arch
        for path in self.paths:
            _output("dpkg-deb", "--extract", path, self.root)

    def fields(self, name):
        """By the package's name."""
        return {
            _output("dpkg-deb", "-f", path, "Package")
            .strip(): _output("dpkg-deb", "-f", path, name)
            .strip()
            for path in self.paths
        }

    def listing(self):
        """Mode, owner and name of everything in them."""
        lines = [
            line for path in self.paths for line in _output("dpkg-deb", "-c", path).split("\n")
        ]
        return sorted(re.sub(r" +\d+ \d{4}-\d\d-\d\d \d\d:\d\d ", " ", line) for line in lines)

    def files(self):
        """Bytes by name."""
        return {
            str(path.relative_to(self.root)): path.read_bytes()
            for path in sorted(self.root.rglob("*"))
            if path.is_file() and not path.is_symlink()
        }


@pytest.fixture(scope="module")
def arm64(tmp_path_factory):
    return Packages("arm64", tmp_path_factory.mktemp("packages"))


@pytest.fixture(scope="module")
def amd64(tmp_path_factory):
    return Packages("amd64", tmp_path_factory.mktemp("packages"))


def _is_elf(content):
    return content.startswith(b"\x7fELF")


def test_there_are_the_same_packages(arm64, amd64):
    assert sorted(arm64.fields("Package")) == sorted(amd64.fields("Package")) == NAMES
    assert set(arm64.fields("Architecture").values()) == {"arm64"}
    assert arm64.fields("Version") == amd64.fields("Version")


@pytest.mark.parametrize("field", ["Depends", "Recommends", "Suggests", "Provides"])
def test_they_need_the_same(arm64, amd64, field):
    def names(packages):
        """The least versions of the system's libraries differ."""
        return {
            package: re.sub(r" \(>= [^)]*\)", "", value)
            for package, value in packages.fields(field).items()
        }

    assert names(arm64) == names(amd64)


def test_they_hold_the_same_files(arm64, amd64):
    assert arm64.listing() == amd64.listing()


def test_what_is_no_program_is_the_same_to_the_byte(arm64, amd64):
    def digests(packages):
        return {
            name: hashlib.sha256(content).hexdigest()
            for name, content in packages.files().items()
            if not _is_elf(content)
        }

    assert digests(arm64) == digests(amd64)


def test_every_program_is_for_its_architecture(arm64, amd64):
    for packages in (arm64, amd64):
        programs = {name: file for name, file in packages.files().items() if _is_elf(file)}
        assert sorted(programs) == sorted(PROGRAMS + LIBRARIES)
        for name, content in programs.items():
            word_size, byte_order = content[4], content[5]
            machine = int.from_bytes(content[18:20], "little")
            assert (word_size, byte_order) == (2, 1), name
            assert ELF_MACHINES.get(machine) == packages.arch, name


def test_lintian_finds_nothing(arm64):
    command = ["lintian", "--allow-root", "--fail-on=error,warning", "--info", *arm64.paths]
    result = subprocess.run(command, capture_output=True, text=True)
    assert result.returncode == 0, result.stdout + result.stderr


def test_the_programs_start(arm64):
    def run(program, *arguments):
        return _output("qemu-aarch64-static", arm64.root / program, *arguments)

    assert "LD_LIBRARY_PATH" not in os.environ, "it would hide what the programs find by themselves"
    assert run("usr/sbin/ip-sla-sender", "-v").startswith("IP SLA")
    version = next(iter(arm64.fields("Version").values())).split("-")[0]
    for program in PROGRAMS[:3]:
        assert version in run(program, "--version")
    run("usr/bin/ip-sla-ctl", "check", "--no-host", arm64.root / "etc/ip-sla/tasks.json")
