"""The Debian packages on a machine of their own: installed, started, upgraded, removed, purged."""

import json
import re
import shutil
import subprocess
import time

import pytest
from installation import ROOT
from support.waiting import wait_for

NAMES = ("ip-sla-exporter", "ip-sla-platform-stub", "ip-sla-responder", "ip-sla-sender")
SERVICES = ("ip-sla-exporter", "ip-sla-responder", "ip-sla-sender")


def _field(package, name):
    shown = subprocess.run(["dpkg-deb", "-f", package, name], check=True, capture_output=True)
    return shown.stdout.decode().strip()


def _install(machine, paths):
    machine.run("dpkg", "--install", *paths)


def _is_active(machine, service):
    return machine.property(service, "ActiveState") == "active"


# -- the files
# ------------------------------------------------------------------------------------------------


def test_there_is_a_package_for_each_purpose(packages):
    assert sorted(packages) == list(NAMES)
    cmake = (ROOT / "CMakeLists.txt").read_text()
    version = re.search(r"^project\(.* VERSION (\S+)", cmake, re.MULTILINE).group(1)
    assert {_field(path, "Version") for path in packages.values()} == {f"{version}-1"}


def test_lintian_finds_nothing(packages):
    result = subprocess.run(
        ["lintian", "--allow-root", "--fail-on=error,warning", "--info"]
        + [str(path) for path in packages.values()],
        capture_output=True,
        text=True,
    )
    assert result.returncode == 0, result.stdout + result.stderr


def test_a_second_build_elsewhere_gives_the_same_bytes(packages, packages_again):
    assert sorted(packages_again) == sorted(packages)
    differing = [
        name
        for name, path in packages.items()
        if path.read_bytes() != packages_again[name].read_bytes()
    ]
    assert differing == []


def test_the_banner_tells_the_time_that_was_given_for_the_build(packages, tmp_path):
    for name in ("ip-sla-sender", "ip-sla-platform-stub"):
        subprocess.run(["dpkg-deb", "--extract", packages[name], tmp_path], check=True)
    told = subprocess.run([tmp_path / "usr/sbin/ip-sla-sender", "-v"], capture_output=True)
    # The members of the archive carry it as well: decimal digits, behind the first one's name.
    seconds = int(packages["ip-sla-sender"].read_bytes()[24:36])
    moment = time.strftime("%b %e %Y @ %H:%M:%S", time.gmtime(seconds))
    assert f"(compiled {moment})" in told.stdout.decode()


# -- on a machine
# ------------------------------------------------------------------------------------------------


def test_the_life_of_the_packages(machine, packages, tmp_path):
    before = machine.files()

    _install(machine, [f"/packages/{path.name}" for path in packages.values()])
    for service in SERVICES:
        assert machine.run("systemctl", "is-enabled", service).stdout == "enabled\n"
        assert _is_active(machine, service), machine.journal(service)
    _measures(machine)
    keys = machine.run("stat", "-c", "%a %U", "/etc/ip-sla/keychain.json").stdout
    assert keys == "600 root\n"

    # What an administrator changed outlives an upgrade and a removal.
    tasks = machine.path("/etc/ip-sla/tasks.json")
    tasks.write_text(tasks.read_text().replace('"time": 60', '"time": 30'))
    machine.run("systemctl", "disable", "ip-sla-exporter")
    pids = {service: machine.property(service, "MainPID") for service in SERVICES}
    newer = [_newer(path, tmp_path) for path in packages.values()]
    for path in newer:
        machine.path(f"/tmp/{path.name}").write_bytes(path.read_bytes())
    _install(machine, [f"/tmp/{path.name}" for path in newer])
    for service in SERVICES:
        assert _is_active(machine, service), machine.journal(service)
        assert machine.property(service, "MainPID") != pids[service], "the old program still runs"
    assert '"time": 30' in tasks.read_text()
    assert machine.run(
        "systemctl", "is-enabled", "ip-sla-exporter", check=False
    ).stdout.strip() == ("disabled")
    _measures(machine)

    machine.run("dpkg", "--remove", *NAMES)
    for service in SERVICES:
        assert not _is_active(machine, service)
    assert '"time": 30' in tasks.read_text()
    assert machine.path("/var/log/ip-sla/sender.log").exists()

    machine.run("dpkg", "--purge", *NAMES)
    machine.run("rm", *[f"/tmp/{path.name}" for path in newer])
    assert machine.run("dpkg-query", "-W", "ip-sla-*", check=False).stdout == ""
    assert sorted(machine.files() - before) == []


def _measures(machine):
    """The sample task has a good run, which the exporter shows."""

    def good():
        shown = machine.run("ip-sla-ctl", "show", "--json", check=False)
        tasks = json.loads(shown.stdout)["tasks"] if shown.stdout else []
        return [task["status"] for task in tasks] == ["successful"]

    wait_for(good, "a good run of the sample task")
    command = ["nsenter", "-t", str(machine.init), "--net", "/usr/bin/python3", "-c", _FETCH]
    page = wait_for(
        lambda: subprocess.run(command, capture_output=True, text=True).stdout, "the exporter"
    )
    assert re.search(r"^ipsla_up(\{\})? 1", page, re.MULTILINE), page


_FETCH = """
import urllib.request
print(urllib.request.urlopen("http://127.0.0.1:9815/metrics", timeout=20).read().decode())
"""


def _newer(path, directory):
    """The same package with a later version."""
    tree = directory / path.stem
    subprocess.run(["dpkg-deb", "--raw-extract", path, tree], check=True)
    control = tree / "DEBIAN/control"
    version = _field(path, "Version")
    control.write_text(control.read_text().replace(version, version + "+later"))
    newer = directory / path.name.replace(version, version + "+later")
    subprocess.run(
        ["dpkg-deb", "--root-owner-group", "-Znone", "--build", tree, newer],
        check=True,
        capture_output=True,
    )
    return newer


@pytest.fixture
def device_package(build, tmp_path):
    """A device's own libraries: a package that provides what the stand-ins do."""
    tree = tmp_path / "device"
    places = tree / "usr/lib"
    places.mkdir(parents=True)
    (tree / "DEBIAN").mkdir()
    (tree / "DEBIAN/control").write_text(
        "Package: device-libraries\nVersion: 1\nArchitecture: all\nProvides: ip-sla-platform\n"
        "Maintainer: nobody <nobody@example.com>\nDescription: a device's own libraries\n"
    )
    for name in ("libcrashtrace.so", "libkeepalive.so"):
        shutil.copy(build.directory / "lib" / name, places)
    shutil.copy(build.recorder, places / "liblogsvc.so")
    path = tmp_path / "device-libraries.deb"
    command = ["dpkg-deb", "--root-owner-group", "--build", tree, path]
    subprocess.run(command, check=True, capture_output=True)
    return path


def test_a_devices_package_takes_the_stand_ins_place(machine, packages, device_package):
    sender = f"/packages/{packages['ip-sla-sender'].name}"
    without = machine.run("dpkg", "--install", sender, check=False)
    assert without.returncode != 0
    assert "ip-sla-platform" in without.stderr
    machine.path("/tmp/device.deb").write_bytes(device_package.read_bytes())
    _install(machine, ["/tmp/device.deb", sender])
    machine.run("systemctl", "start", "ip-sla-sender")
    maps = machine.path(f"/proc/{machine.property('ip-sla-sender', 'MainPID')}/maps").read_text()
    assert "/usr/lib/liblogsvc.so" in maps
    assert "/usr/lib/ip-sla/" not in maps
