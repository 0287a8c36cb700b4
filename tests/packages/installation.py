"""The build under test, installed below a prefix."""

import fcntl
import os
import pathlib
import subprocess

from support.lab import Build

ROOT = pathlib.Path(__file__).resolve().parents[2]


def build_directory():
    return pathlib.Path(os.environ.get("IPSLA_BUILD_DIR", ROOT / "build/release"))


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
    with open(build_directory() / "install.lock", "w") as lock:
        # Each installation writes its manifest and the filled-in units into the build directory.
        fcntl.flock(lock, fcntl.LOCK_EX)
        result = subprocess.run(
            ["cmake", "--install", build_directory(), "--prefix", prefix, *options],
            capture_output=True,
            text=True,
            stdin=subprocess.DEVNULL,
        )
    assert result.returncode == 0, result.stdout + result.stderr
    return result.stdout
