"""`cmake --install` with any prefix: what is installed starts, and a device's own libraries are
used wherever the loader finds them.
"""

import json
import pathlib
import re
import shutil
import stat
import subprocess

import pytest
from installation import install
from support.ctl import Ctl
from support.tasks import icmp_echo

PROGRAMS = ("ip-sla-sender", "ip-sla-ctl", "ip-sla-responder", "ip-sla-exporter")
WITHOUT_RECORDER = {"LD_PRELOAD": ""}


@pytest.mark.parametrize("name", PROGRAMS)
def test_an_installed_program_starts(build, name):
    if not build.has(name):
        assert not (build.directory / "bin" / name).exists(), "built, but not installed"
        pytest.skip(f"{name} is not part of this build")
    option = "-v" if name == "ip-sla-sender" else "--version"
    result = subprocess.run([build.program(name), option], capture_output=True, text=True)
    assert (result.returncode, result.stderr) == (0, "")
    assert re.search(r"\d+\.\d+\.\d+", result.stdout)


def test_all_tools_have_the_projects_version(build):
    cache = (build.directory / "CMakeCache.txt").read_text()
    version = re.search(r"^CMAKE_PROJECT_VERSION:STATIC=(.*)$", cache, re.MULTILINE).group(1)
    for name in filter(build.has, PROGRAMS[1:]):
        told = subprocess.run([build.program(name), "--version"], capture_output=True, text=True)
        assert told.stdout == f"{name} {version}\n"


def test_the_samples_make_a_daemon_that_measures(lab, start_daemon):
    etc = lab.build.prefix / "etc/ip-sla"
    Ctl(lab)("check", "--strict", etc / "tasks.json", etc / "keychain.json")
    daemon = start_daemon(
        arguments=["-f", etc / "tasks.json", "-k", etc / "keychain.json"], env=WITHOUT_RECORDER
    )
    (report,) = daemon.wait_for_reports(1)
    assert (report.status, report.rtt_count) == ("successful", 5)
    assert Ctl(lab).json("show")["tasks"][0]["sla-id"] == 1


def test_keys_are_for_root_alone_and_kept_by_the_next_installation(tmp_path):
    install(tmp_path)
    for name in ("keychain.json", "responder-keychain.json"):
        assert stat.S_IMODE((tmp_path / "etc/ip-sla" / name).stat().st_mode) == 0o600
    mine = '{"keychain-storage": [{"key-id": 1, "key-string": "mine"}]}'
    (tmp_path / "etc/ip-sla/keychain.json").write_text(mine)
    (tmp_path / "etc/ip-sla/tasks.json").unlink()
    install(tmp_path)
    assert (tmp_path / "etc/ip-sla/keychain.json").read_text() == mine
    assert json.loads((tmp_path / "etc/ip-sla/tasks.json").read_text())["cpus"] == [0]


def test_links_between_installed_documents_hold(build):
    base = build.prefix / "share/doc/ip-sla"
    pages = [base / "README.md", *sorted((base / "docs").glob("*.md"))]
    assert len(pages) > 5
    dead = [
        f"{page.name}: {target}"
        for page in pages
        for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", page.read_text())
        if not (page.parent / target).exists()
    ]
    assert dead == []


# -- a device's own libraries
# ------------------------------------------------------------------------------------------------

RECORDER = "liblogsvc.so"


@pytest.fixture
def own_prefix(build, tmp_path):
    """An installation that a test may change."""
    copy = tmp_path / "own"
    shutil.copytree(build.prefix, copy, symlinks=True)
    return copy


def _is_recorded(lab, start_daemon, prefix, **environment):
    """Whether a daemon of that installation speaks to the recording library."""
    lab.build = type(lab.build)(lab.build.directory, prefix)
    daemon = start_daemon([icmp_echo(1)], env={**WITHOUT_RECORDER, **environment})
    assert pathlib.Path(f"/proc/{daemon.pid}/exe").resolve() == prefix / "sbin/ip-sla-sender"
    daemon.wait_for_reports(1)
    return any("SLA task" in record.text for record in daemon.syslog())


def _private(prefix):
    (directory,) = prefix.glob("lib*/**/ip-sla")
    return directory


def test_without_a_device_the_stand_ins_are_used(lab, start_daemon, own_prefix):
    assert not _is_recorded(lab, start_daemon, own_prefix)


def test_a_devices_library_on_the_loaders_path_is_used(lab, start_daemon, own_prefix):
    place = lab.build.recorder.parent
    assert _is_recorded(lab, start_daemon, own_prefix, LD_LIBRARY_PATH=str(place))


def test_a_devices_library_in_the_stand_ins_place_is_used(lab, start_daemon, own_prefix):
    shutil.copy(lab.build.recorder, _private(own_prefix) / RECORDER)
    assert _is_recorded(lab, start_daemon, own_prefix)


@pytest.mark.parametrize("system", ["/usr/local/lib", "/usr/lib"])
def test_a_devices_library_in_the_system_is_used(lab, start_daemon, own_prefix, system):
    lab.run("mkdir", "/run/upper", "/run/work")
    layers = f"lowerdir={system},upperdir=/run/upper,workdir=/run/work"
    lab.run("mount", "-t", "overlay", "overlay", "-o", layers, system)
    lab.run("cp", lab.build.recorder, f"{system}/{RECORDER}")
    assert _is_recorded(lab, start_daemon, own_prefix)


def test_a_devices_library_that_only_the_loader_knows_is_used_without_stand_ins(
    lab, start_daemon, own_prefix
):
    device = own_prefix / "opt"
    _private(own_prefix).rename(device)
    shutil.copy(lab.build.recorder, device / RECORDER)
    lab.run("ldconfig", "-X", "-C", "/run/ld.so.cache", device)
    lab.run("mount", "--bind", "/run/ld.so.cache", "/etc/ld.so.cache")
    assert _is_recorded(lab, start_daemon, own_prefix)
