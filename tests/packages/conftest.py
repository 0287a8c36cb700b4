"""Fixtures of the tests of what is installed: the labs of the end-to-end tests, with installed
programs in them.
"""

import fcntl
import importlib.util
import os
import pathlib
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]

_spec = importlib.util.spec_from_file_location("e2e_fixtures", ROOT / "tests/e2e/conftest.py")
_e2e = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_e2e)
pytest_configure = _e2e.pytest_configure
pytest_runtest_makereport = _e2e.pytest_runtest_makereport
lab = _e2e.lab
start_daemon = _e2e.start_daemon

from support.lab import Build  # noqa: E402  (the end-to-end tests' path is set by now)


class InstalledBuild(Build):
    """The same programs, below a prefix."""

    def __init__(self, directory, prefix):
        super().__init__(directory)
        self.prefix = prefix

    def program(self, name):
        for place in ("bin", "sbin"):
            path = self.prefix / place / name
            if path.exists():
                return path
        raise AssertionError(f"{name} is not installed")

    def has(self, name):
        return any((self.prefix / place / name).exists() for place in ("bin", "sbin"))


def install(prefix, *options):
    """Installs the build under test; returns what the installation said."""
    with open(_e2e._build_directory() / "install.lock", "w") as lock:
        # Each installation writes its manifest and the filled-in units into the build directory.
        fcntl.flock(lock, fcntl.LOCK_EX)
        result = subprocess.run(
            ["cmake", "--install", _e2e._build_directory(), "--prefix", prefix, *options],
            capture_output=True,
            text=True,
            stdin=subprocess.DEVNULL,
        )
    assert result.returncode == 0, result.stdout + result.stderr
    return result.stdout


@pytest.fixture(scope="session")
def build(tmp_path_factory):
    assert "LD_LIBRARY_PATH" not in os.environ, "it would hide what the programs find by themselves"
    prefix = tmp_path_factory.mktemp("prefix")
    install(prefix)
    return InstalledBuild(_e2e._build_directory(), prefix)
