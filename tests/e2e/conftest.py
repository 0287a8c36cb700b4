"""Fixtures of the end-to-end tests: the build under test and, per test, a private lab."""

import os
import pathlib
import sys

import pytest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))


def _build_directory():
    return pathlib.Path(os.environ.get("IPSLA_BUILD_DIR", HERE.parents[1] / "build" / "release"))


def pytest_configure(config):
    config.addinivalue_line("markers", "fleet: needs a browser or a Prometheus server")
    cache = _build_directory() / "CMakeCache.txt"
    if not cache.exists():
        raise pytest.UsageError(
            f"{cache.parent} is not built: run script/build, or set IPSLA_BUILD_DIR"
        )
    if os.geteuid() != 0:
        raise pytest.UsageError("the end-to-end tests make namespaces of their own and need root")
    if "IPSLA_SANITIZE:STRING=\n" not in cache.read_text():
        os.environ.setdefault("IPSLA_DEADLINE_SCALE", "3")


from support.daemon import Daemon  # noqa: E402  (after the path is set)
from support.lab import Build, Lab  # noqa: E402


@pytest.fixture(scope="session")
def build():
    return Build(_build_directory())


@pytest.fixture
def lab(build, tmp_path, request):
    worker = int(os.environ.get("PYTEST_XDIST_WORKER", "gw0")[2:])
    laboratory = Lab(build, tmp_path, worker)
    yield laboratory
    failed = getattr(request.node, "failed_call", False)
    if failed:
        _show(laboratory)
    for daemon in laboratory.daemons:
        daemon.stop()
    findings = [finding for daemon in laboratory.daemons for finding in daemon.findings()]
    laboratory.close()
    assert not findings, "\n".join(findings)


@pytest.fixture
def start_daemon(lab):
    """Starts the daemon; with wait=True (default) it is ready when the call returns."""

    def start(tasks=(), wait=True, **options):
        daemon = Daemon(lab, tasks, **options)
        return daemon.wait_ready() if wait else daemon

    return start


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    if call.when == "call":
        item.failed_call = outcome.get_result().failed


def _show(laboratory):
    """Prints what a failed test's daemon had to say."""
    for daemon in laboratory.daemons:
        print(
            f"--- daemon {daemon.pid}, status {daemon.process.poll()}, stderr:\n"
            f"{daemon.stderr[-4000:]}"
        )
    directory = laboratory.path("/var/log/ip-sla")
    if directory.is_dir():
        for path in sorted(directory.iterdir()):
            print(f"--- {path.name}:\n{path.read_text(errors='replace')[-4000:]}")
