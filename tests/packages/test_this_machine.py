"""The tests that change the machine they run on take no other than the emulated one."""

import subprocess

import pytest
import this_machine
from this_machine import ThisMachine

DISK = "proc /proc proc rw 0 0\n/dev/vda1 / ext4 rw 0 0\n"
MEMORY = "none / rootfs rw 0 0\nnone / tmpfs rw 0 0\nproc /proc proc rw 0 0\n"


@pytest.fixture
def seen(tmp_path, monkeypatch):
    """What a machine shows of itself: by default all that the emulated one does."""

    def run(command, **options):
        raise AssertionError(f"{command} was run")

    def write(**texts):
        for name, text in texts.items():
            (tmp_path / name).write_text(text)

    monkeypatch.setattr(subprocess, "run", run)
    for name in ("MARK", "INIT", "MOUNTS"):
        monkeypatch.setattr(this_machine, name, tmp_path / name.lower())
    write(mark="", init="systemd\n", mounts=MEMORY)
    return write


def test_the_emulated_machine_is_taken(seen, tmp_path):
    with pytest.raises(AssertionError, match="is-system-running.* was run"):
        ThisMachine(tmp_path)


def test_a_machine_without_the_mark_is_refused(seen, tmp_path):
    (tmp_path / "mark").unlink()
    with pytest.raises(AssertionError, match="not the emulated one"):
        ThisMachine(tmp_path)


@pytest.mark.parametrize("other", [{"init": "bash\n"}, {"mounts": MEMORY + DISK}])
def test_a_mark_alone_is_not_enough(seen, tmp_path, other):
    seen(**other)
    with pytest.raises(AssertionError, match="its root|its first process"):
        ThisMachine(tmp_path)
