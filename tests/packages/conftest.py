"""Fixtures of the tests of what is installed: the labs of the end-to-end tests, with installed
programs in them.
"""

import importlib.util
import os
import pathlib
import platform

import pytest

_E2E = pathlib.Path(__file__).resolve().parents[1] / "e2e/conftest.py"
_spec = importlib.util.spec_from_file_location("e2e_fixtures", _E2E)
_e2e = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_e2e)
pytest_configure = _e2e.pytest_configure
pytest_runtest_makereport = _e2e.pytest_runtest_makereport
lab = _e2e.lab
start_daemon = _e2e.start_daemon

# The end-to-end tests' path is set by now.
from installation import ROOT, InstalledBuild, build_directory, install  # noqa: E402
from machine import Container  # noqa: E402
from this_machine import ThisMachine  # noqa: E402

ARCHITECTURE = {"x86_64": "amd64", "aarch64": "arm64"}[platform.machine()]


@pytest.fixture(scope="session")
def build(tmp_path_factory):
    assert "LD_LIBRARY_PATH" not in os.environ, "it would hide what the programs find by themselves"
    prefix = tmp_path_factory.mktemp("prefix")
    install(prefix)
    return InstalledBuild(build_directory(), prefix)


def _packages(directory):
    """The packages that script/package has made there, by their names."""
    found = {path.name.split("_")[0]: path for path in sorted(directory.glob("*.deb"))}
    assert found, f"no packages in {directory}: script/test package makes them"
    return found


@pytest.fixture(scope="session")
def packages():
    return _packages(ROOT / f"build/package-{ARCHITECTURE}")


@pytest.fixture(scope="session")
def packages_again():
    """Of the same tree, made at another time in another place."""
    return _packages(ROOT / f"build/package-again/{ARCHITECTURE}")


@pytest.fixture
def machine(packages, tmp_path):
    """IPSLA_MACHINE=this: the emulated machine that the test runs in; otherwise a container."""
    shared = packages["ip-sla-sender"].parent
    if os.environ.get("IPSLA_MACHINE") == "this":
        booted = ThisMachine(shared)
    else:
        root = ROOT / "build/scratch-root"
        assert root.is_dir(), f"{root} is missing: script/test package makes it"
        booted = Container(root, shared, tmp_path)
    yield booted
    booted.close()
