"""ip-sla-ctl template: from one line to a measurement."""

import json

import pytest
from support.ctl import Ctl


@pytest.fixture
def ctl(lab):
    return Ctl(lab)


def _check(lab, ctl, text, *options):
    lab.path("/run/tasks.json").write_text(text)
    return ctl("check", "--strict", *options, "/run/tasks.json")


def test_template_takes_the_source_of_the_route(lab, ctl):
    lab.add_vrf("blue")
    for arguments, source in (
        (["--dst", "10.1.0.1"], "10.1.0.2"),
        (["--dst", "10.1.0.2", "--vrf", "blue"], "10.1.0.1"),
        (["--dst", "localhost"], "127.0.0.1"),
    ):
        text = ctl("template", "udp-jitter", *arguments)
        task = json.loads(text)["IP-SLA-tasks"][0]
        assert task["udp-jitter"]["src-address"] == task["control-phase"]["src-address"] == source
        assert task.get("vrf-instance") == ("blue" if "blue" in arguments else None)
        assert " 0 faults, 0 warnings" in _check(lab, ctl, text)


def test_template_measures(lab, ctl, start_daemon):
    text = ctl(
        *("template", "icmp-echo", "--dst", "127.0.0.1"),
        *("--packets", 3, "--interval", 10, "--period", 2),
    )
    daemon = start_daemon(document=text)
    assert daemon.wait_for_reports(1)[0].status == "successful"


def test_template_of_a_keychain(lab, ctl):
    first, second = (ctl("template", "keychain", "--key-id", 9) for _ in range(2))
    assert first != second, "a new key each time"
    key = json.loads(first)["keychain-storage"][0]
    assert key["key-id"] == 9 and len(key["key-string"]) == 48
    text = ctl("template", "udp-echo", "--dst", "127.0.0.1", "--key-id", 9)
    keys = lab.path("/run/keychain.json")
    keys.write_text(first)
    keys.chmod(0o600)
    lab.path("/run/tasks.json").write_text(text)
    ctl("check", "--strict", "/run/tasks.json", "/run/keychain.json")


def test_template_prints_nothing_that_cannot_work(lab, ctl):
    for arguments, error in (
        (["--dst", "127.0.0.1", "--period", "3"], "invalid scheduled time"),
        (["--dst", "127.0.0.1", "--packets", "20000000"], "more than the daemon has memory for"),
        (["--dst", "::1"], "::1 has no IPv4 address: "),
        (["--dst", "127.0.0.1", "--src", "::1"], "::1 is no IPv4 address"),
        (["--dst", "192.0.2.9"], "no source address reaches 192.0.2.9: Network is unreachable"),
        (["--dst", "127.0.0.1", "--vrf", "red"], "/var/run/netns/red: No such file or directory"),
        (["--src", "127.0.0.1"], "--dst is required"),
    ):
        result = lab.run(*ctl.command("template", "udp-echo", *arguments), check=False)
        assert (result.returncode, result.stdout) == (3, ""), arguments
        assert error in result.stderr
        with_json = lab.run(*ctl.command("--json", "template", "udp-echo", *arguments), check=False)
        if "--dst" in arguments:  # else the command line is wrong
            first = result.stderr.splitlines()[0].removeprefix("ip-sla-ctl: ")
            assert (with_json.returncode, with_json.stderr) == (3, result.stderr)
            assert json.loads(with_json.stdout) == {"error": first}
    assert lab.run(*ctl.command("template", "ping"), check=False).returncode == 3


def test_template_warns_of_what_is_missing_here_only(lab, ctl):
    """It may be there where the file is used."""
    arguments = ["template", "icmp-echo", "--dst", "127.0.0.1", "--src", "192.0.2.10"]
    result = lab.run(*ctl.command(*arguments))
    assert json.loads(result.stdout)["IP-SLA-tasks"][0]["icmp-echo"]["src-address"] == "192.0.2.10"
    warning = 'icmp-echo.src-address = "192.0.2.10": is on no interface of this machine: no run can'
    assert warning in result.stderr
