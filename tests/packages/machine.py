"""A machine that is a test's own: Debian with its own systemd, in a container above a root that
script/lib/scratch_root made once. What a test changes lies in memory and is gone with the test.
"""

import fcntl
import os
import pathlib
import subprocess
import time
import uuid

from support.waiting import wait_for

_DEADLINE = 60


class Machine:
    """`shared` is a directory that the machine sees, read-only, as /packages."""

    def __init__(self, root, shared, directory):
        # One at a time: the systemds of two would share one control group.
        self._lock = open(root.with_suffix(".lock"), "w")
        fcntl.flock(self._lock, fcntl.LOCK_EX)
        self._console = directory / "console"
        command = ["setpriv", "--pdeathsig", "KILL", "systemd-nspawn", "--quiet", "--boot"]
        command += [f"--directory={root}", "--volatile=overlay", f"--bind-ro={shared}:/packages"]
        command += ["--register=no", "--keep-unit", "--private-network", "--link-journal=no"]
        command += ["--console=pipe", f"--machine=ip-sla-{uuid.uuid4().hex[:12]}"]
        with open(self._console, "wb") as console:
            self._process = subprocess.Popen(
                command,
                stdin=subprocess.DEVNULL,
                stdout=console,
                stderr=console,
                env={**os.environ, "SYSTEMD_NSPAWN_LOCK": "0"},
            )
        try:
            wait_for(self._is_up, "the machine to be up", _DEADLINE)
        except BaseException:
            self.close()
            raise

    def _is_up(self):
        assert self._process.poll() is None, f"the machine ended: {self._console.read_text()}"
        self.init = _first_child(self._process.pid)
        if self.init is None:
            return False
        state = self.run("systemctl", "is-system-running", check=False).stdout.strip()
        return state in ("running", "degraded")

    def inside(self, *command):
        entered = ["nsenter", "-t", str(self.init), "--all", "env", "-i", "LC_ALL=C.UTF-8"]
        entered += ["PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"]
        return entered + ["DEBIAN_FRONTEND=noninteractive", *map(str, command)]

    def run(self, *command, check=True):
        result = subprocess.run(
            self.inside(*command),
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=_DEADLINE,
        )
        if check and result.returncode != 0:
            raise AssertionError(
                f"{command} gave {result.returncode}: {result.stdout}{result.stderr}"
            )
        return result

    def path(self, inside):
        """A file of the machine, by a path that the test can open."""
        return pathlib.Path(f"/proc/{self.init}/root{inside}")

    def property(self, unit, name):
        return self.run("systemctl", "show", "--value", "-p", name, unit).stdout.strip()

    def journal(self, unit):
        return self.run("journalctl", "--no-pager", "-o", "cat", "-u", unit).stdout

    def close(self):
        if self._process.poll() is None:
            if self.init is not None:
                self.run("systemctl", "poweroff", "--force", check=False)
            end = time.monotonic() + _DEADLINE
            while self._process.poll() is None and time.monotonic() < end:
                time.sleep(0.05)
            self._process.kill()
        self._process.wait()
        self._lock.close()

    init = None


def _first_child(pid):
    """The container's first process, as soon as it is systemd."""
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        for child in (task / "children").read_text().split():
            if pathlib.Path(f"/proc/{child}/comm").read_text().strip() == "systemd":
                return int(child)
    return None
