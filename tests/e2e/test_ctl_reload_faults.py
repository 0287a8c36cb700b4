"""ip-sla-ctl reload keychain where it does not go well: a daemon that ends, refuses or is silent."""

import os
import signal

import pytest
from support.ctl import Ctl
from support.fake_daemon import FakeDaemon
from support.tasks import icmp_echo

ENDED = "the daemon ended: the keychain file could not be read"
SILENT = (
    "no reply within 300 ms; a daemon listens, but it may be a new one: a keychain file that cannot "
    "be read ends the daemon"
)
WOULD_END = "ip-sla-ctl: not reloaded: the daemon would end\n"


@pytest.fixture
def ctl(lab):
    return Ctl(lab)


def _reload_without_reading(ctl, *options):
    """A keychain reload by somebody who may not read what the daemon may."""
    rights = "-dac_override,-dac_read_search"
    limits = [f"--bounding-set={rights}", f"--inh-caps={rights}"]
    return ctl.lab.run(
        "setpriv", *limits, *ctl.command("reload", "keychain", *options), check=False
    )


@pytest.fixture
def daemon(start_daemon):
    """A daemon whose keychain file is of no use any more, and only for it to read."""
    started = start_daemon([icmp_echo(1)])
    started.write_keychain("nonsense")
    started.keychain_path.chmod(0)
    return started


def test_reload_of_a_keychain_that_only_the_daemon_may_read_is_refused(ctl, daemon):
    result = _reload_without_reading(ctl)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == (
        f"ip-sla-ctl: {daemon.keychain_path}: the file cannot be read: Permission denied\n"
        "ip-sla-ctl: not reloaded; with --force the daemon is told all the same\n"
    )
    assert daemon.is_running()


@pytest.mark.parametrize("options, shown", [([], ""), (["--json"], f'{{"error":"{ENDED}"}}\n')])
def test_forced_reload_of_a_keychain_that_ends_the_daemon(ctl, daemon, options, shown):
    result = _reload_without_reading(ctl, "--force", *options)
    assert (result.returncode, result.stdout) == (2, shown)
    assert result.stderr.splitlines()[1:] == [f"ip-sla-ctl: {ENDED}"]
    assert daemon.wait_exit() == 1


def test_forced_reload_goes_by_the_file_that_the_daemon_reads(lab, ctl, start_daemon):
    """Another file that is fine does not hide one that ends the daemon."""
    daemon = start_daemon([icmp_echo(1)])
    daemon.write_keychain("nonsense")
    other = lab.directory / "other.json"
    other.write_text('{"keychain-storage": []}')
    error = (
        f"ip-sla-ctl: the daemon reads {daemon.keychain_path}, not {other}\n"
        f"ip-sla-ctl: {daemon.keychain_path}:1:1: not valid JSON\n{WOULD_END}"
    )
    ctl("reload", "keychain", other, "--force", status=1, error=error)
    assert daemon.is_running()


def test_keys_that_the_daemon_passes_over_are_told(ctl, start_daemon):
    daemon = start_daemon([icmp_echo(1)])
    daemon.write_keychain('{"keychain-storage": [{}, {"key-id": 5, "key-string": "c"}]}')
    result = ctl.lab.run(*ctl.command("reload", "keychain", "--force"))
    first, second = result.stdout.splitlines()
    assert first == "keychain reloaded: 1 key: 5"
    fault = "key 1: key id #undefined parse skipped: no key configuration"
    assert second == f"skipped:   {fault}"
    assert fault in result.stderr and str(daemon.keychain_path) in result.stderr


def test_daemon_that_does_not_answer_a_keychain_reload(ctl, start_daemon):
    daemon = start_daemon([icmp_echo(1)])
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        error = f"ip-sla-ctl: {SILENT}\n"
        patience = ["reload", "keychain", "--timeout", "0.3"]
        assert ctl(*patience, status=2, error=error) == ""
        assert ctl.json(*patience, status=2, error=error) == {"error": SILENT}
    finally:
        os.kill(daemon.pid, signal.SIGCONT)


def test_daemon_that_refuses_a_keychain_reload(lab, ctl):
    keychain = lab.directory / "keychain.json"
    keychain.write_text('{"keychain-storage": []}')
    FakeDaemon(lab, refuses=True)
    text = "the daemon refused to read the keychain file"
    error = f"ip-sla-ctl: {text}\n"
    assert ctl("reload", "keychain", keychain, status=1, error=error) == ""
    assert ctl.json("reload", "keychain", keychain, status=1, error=error) == {"error": text}
