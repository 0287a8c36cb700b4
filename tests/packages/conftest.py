"""Fixtures of the tests of what is installed: the labs of the end-to-end tests, with installed
programs in them.
"""

import importlib.util
import os
import pathlib

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
from installation import InstalledBuild, build_directory, install  # noqa: E402


@pytest.fixture(scope="session")
def build(tmp_path_factory):
    assert "LD_LIBRARY_PATH" not in os.environ, "it would hide what the programs find by themselves"
    prefix = tmp_path_factory.mktemp("prefix")
    install(prefix)
    return InstalledBuild(build_directory(), prefix)
