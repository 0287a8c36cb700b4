"""What bash and zsh complete of ip-sla-ctl's command line."""

import re

import pytest
from support.completion import TOOLS, bash_completes, zsh_completes
from support.ctl import Ctl, start_usual_daemon
from support.tmux import Tmux

ALL_IDS = ["1", "2", "5", "9"]


@pytest.fixture
def ctl(lab, start_daemon):
    start_usual_daemon(lab, start_daemon)
    return Ctl(lab)


def _commands(ctl):
    block = ctl("--help").split("Subcommands:\n")[1].split("\n\n")[0]
    return re.findall(r"^  ([a-z]+) ", block, re.M)


def test_bash_offers_commands_and_options(ctl):
    commands = _commands(ctl)
    assert {"show", "watch", "status", "reload", "check", "probe"} <= set(commands)
    assert bash_completes(ctl, "") == commands
    assert bash_completes(ctl, "s") == ["show", "status"]
    assert bash_completes(ctl, "reload", "") == ["tasks", "keychain"]
    assert bash_completes(ctl, "show", "--m") == ["--max-age", "--metrics"]
    assert bash_completes(ctl, "--ver") == ["--version"]
    assert bash_completes(ctl, "show", "--ver") == []
    assert {"--json", "--port", "--timeout"} <= set(bash_completes(ctl, "watch", "--"))


def test_bash_offers_ids_that_were_not_given_yet(ctl):
    assert bash_completes(ctl, "show", "") == ALL_IDS
    assert bash_completes(ctl, "show", "2", "--metrics", "5", "") == ["1", "9"]
    assert bash_completes(ctl, "--timeout", "3", "probe", "") == ALL_IDS
    assert bash_completes(ctl, "probe", "1", "") == [], "one task only"
    assert bash_completes(ctl, "--port", "9", "show", "") == [], "nobody is there"
    assert bash_completes(ctl, "show", "--port", "=", "10101", "") == ALL_IDS
    assert bash_completes(ctl, "show", "--tasks", "/nonsense", "") == []


def test_bash_offers_values_of_options(ctl):
    keys = ["failing", "id", "age", "rtt", "loss"]
    assert bash_completes(ctl, "show", "--sort", "") == keys
    assert bash_completes(ctl, "watch", "--sort", "=") == keys
    assert bash_completes(ctl, "watch", "--sort", "=", "f") == ["failing"]
    assert bash_completes(ctl, "show", "--max-age", "") == ["auto"]
    assert bash_completes(ctl, "show", "--port", "") == []
    assert bash_completes(ctl, "probe", "1", "--warning", "l") == ["latency=", "loss="]
    assert bash_completes(ctl, "probe", "1", "-c", "rtt=5,l") == ["rtt=5,latency=", "rtt=5,loss="]
    tools = str(TOOLS)
    assert bash_completes(ctl, "show", "--tasks", tools + "/main.c") == [tools + "/main.cpp"]
    assert bash_completes(ctl, "check", tools + "/main.c") == [tools + "/main.cpp"]
    assert bash_completes(ctl, "check", "a", tools + "/main.c") == [tools + "/main.cpp"]


def test_zsh_offers_the_same(ctl):
    assert zsh_completes(ctl, "") == _commands(ctl)
    assert zsh_completes(ctl, "reload", "") == ["tasks", "keychain"]
    options = set(zsh_completes(ctl, "show", "--"))
    assert {"--metrics", "--sort", "--json", "--port"} <= options and "--version" not in options
    assert zsh_completes(ctl, "show", "") == ALL_IDS
    assert zsh_completes(ctl, "show", "2", "--sort=id", "5", "") == ["1", "9"]
    assert zsh_completes(ctl, "probe", "1", "") == []
    assert zsh_completes(ctl, "--port", "9", "show", "") == []
    assert zsh_completes(ctl, "show", "--sort", "") == ["failing", "id", "age", "rtt", "loss"]
    assert zsh_completes(ctl, "show", "--sort=") == ["failing", "id", "age", "rtt", "loss"]
    assert zsh_completes(ctl, "show", "--max-age", "") == ["auto"]
    assert zsh_completes(ctl, "probe", "1", "-w", "l")[:2] == ["rtt=", "latency="]
    assert zsh_completes(ctl, "check", "") == ["FILES"]


def test_zsh_completes_on_a_terminal(ctl):
    start = (
        f"fpath=({ctl.lab.directory} $fpath); autoload -U compinit _ctl; compinit -u -D; "
        "compdef _ctl ip-sla-ctl; PS1='ready '; clear"
    )
    variables = {
        **ctl.environment,
        "PATH": f"{ctl.lab.build.directory / 'bin'}:/usr/bin:/bin",
        "LC_ALL": "C.UTF-8",
    }
    (ctl.lab.directory / "_ctl").write_text((TOOLS / "ip-sla-ctl.zsh").read_text())
    setting = " ".join(f"{name}={value}" for name, value in variables.items())
    launcher = " ".join(ctl.lab.build.launcher())
    screen = Tmux(ctl.lab, 80, 24, f"env {setting} {launcher} zsh -d -f")
    screen.type(start, "Enter")
    screen.wait_for(r"^ready\s*$")
    screen.type("ip-sla-ctl stat", "Tab")
    screen.wait_for(r"^ready ip-sla-ctl status\s*$")
    screen.type("2", "Space", "Tab")
    screen.wait_for(r"\n1 +5 +9")
