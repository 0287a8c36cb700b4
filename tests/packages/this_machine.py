"""The machine that the tests run in, as a test's own: an emulated one that is thrown away after them
(script/arm64 service). What a test changes there is put back before the next one.
"""

import pathlib

from machine import Machine

# In the root of that machine alone, where script/lib/arm64_guest.sh puts it.
MARK = pathlib.Path("/emulated-machine")
INIT = pathlib.Path("/proc/1/comm")
MOUNTS = pathlib.Path("/proc/mounts")
_PACKAGES = pathlib.Path("/packages")
# What the sender's unit raises.
_LIMITS = [pathlib.Path(f"/proc/sys/net/core/{name}mem_max") for name in "rw"]


def _refuse_elsewhere():
    """The tests install packages on the machine they run on: on no other than the emulated one."""
    assert MARK.is_file(), "this machine is not the emulated one"
    assert INIT.read_text() == "systemd\n", "its first process is not systemd"
    mounts = [line.split()[:3] for line in MOUNTS.read_text().splitlines()]
    kinds = {kind for _, place, kind in mounts if place == "/"}
    assert kinds and kinds <= {"rootfs", "tmpfs", "ramfs"}, f"its root is not in memory: {kinds}"


class ThisMachine(Machine):
    """`shared` is a directory that the test finds as /packages."""

    init = 1
    # As the first test found them, and every other one does.
    _files = None

    def __init__(self, shared):
        _refuse_elsewhere()
        self._wait_until_up()
        self._limits = {path: path.read_text() for path in _LIMITS}
        self._installed = self._packages()
        ThisMachine._files = self._files or self.files()
        _PACKAGES.symlink_to(shared)

    def path(self, inside):
        return pathlib.Path(inside)

    def _packages(self):
        return set(self.run("dpkg-query", "-W", "-f", "${Package}\n").stdout.split())

    def close(self):
        new = self._packages() - self._installed
        if new:
            self.run("dpkg", "--purge", *new)
        files = self.files()
        assert sorted(self._files - files) == []
        if files > self._files:
            self.run("rm", "-rf", *(files - self._files))
        _PACKAGES.unlink()
        self.run("ip", "-all", "netns", "delete")
        for path, limit in self._limits.items():
            path.write_text(limit)
        self.run("systemctl", "daemon-reload")
        self.run("systemctl", "reset-failed")
        self.run("journalctl", "--rotate", "--vacuum-size=1")
        self._check()

    def _check(self):
        """As it was before the test."""
        units = self.run("systemctl", "list-units", "--all", "--plain", "--no-legend", "ip-sla*")
        assert units.stdout == ""
        assert self.run("ip", "netns", "list").stdout == ""
        journal = self.run("journalctl", "--no-pager", "-o", "cat").stdout
        assert "ip-sla" not in journal
