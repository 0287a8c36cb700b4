"""A machine that is a test's own: Debian with its own systemd, as new when the test begins."""

import fcntl
import os
import pathlib
import re
import subprocess
import time
import uuid

from support.waiting import SCALE, wait_for

_DEADLINE = 60


class Machine:
    """What tests do on a machine. `init` is the id of its first process, as the tests see it."""

    init = None

    def inside(self, *command):
        """The command that runs this one there."""
        entered = ["env", "-i", "LC_ALL=C.UTF-8", "DEBIAN_FRONTEND=noninteractive"]
        entered += ["PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"]
        return entered + [str(word) for word in command]

    def run(self, *command, check=True):
        result = subprocess.run(
            self.inside(*command),
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=_DEADLINE * SCALE,
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

    def files(self):
        """All files, but what the system itself keeps of its work."""
        places = ["/boot", "/etc", "/home", "/opt", "/root", "/srv", "/usr", "/var"]
        found = set(self.run("find", *places, "-xdev").stdout.splitlines())
        # Caches, backups of dpkg's state, the journal.
        own = re.compile(
            r"/var/(lib/dpkg|lib/systemd/(?!deb-)|log/journal|log/dpkg\.log|log/alternatives\.log|tmp|cache)\b"
            r"|/etc/ld\.so\.cache$"
        )
        return {path for path in found if not own.match(path)}

    def _wait_until_up(self):
        wait_for(self._is_up, "the machine to be up", _DEADLINE)

    def _is_up(self):
        state = self.run("systemctl", "is-system-running", check=False).stdout.strip()
        return state in ("running", "degraded")


class Container(Machine):
    """In a container above a root that script/lib/scratch_root made once. What a test changes lies in
    memory and is gone with the test. `shared` is a directory that the machine sees as /packages.
    """

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
            self._wait_until_up()
        except BaseException:
            self.close()
            raise

    def _is_up(self):
        assert self._process.poll() is None, f"the machine ended: {self._console.read_text()}"
        self.init = _first_child(self._process.pid)
        return self.init is not None and super()._is_up()

    def inside(self, *command):
        return ["nsenter", "-t", str(self.init), "--all", *super().inside(*command)]

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


def _first_child(pid):
    """The container's first process, as soon as it is systemd."""
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        for child in (task / "children").read_text().split():
            if pathlib.Path(f"/proc/{child}/comm").read_text().strip() == "systemd":
                return int(child)
    return None
