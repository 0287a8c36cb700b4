"""What the shells offer after a command line of ip-sla-ctl."""

import pathlib

TOOLS = pathlib.Path(__file__).resolve().parents[3] / "tools" / "ctl"

_BASH = """
compopt() { :; }
source "$COMPLETION"
ip-sla-ctl() { "$PROGRAM" "$@"; }
COMP_WORDS=(ip-sla-ctl "$@")
COMP_CWORD=$#
_ip_sla_ctl
printf '%s\\n' "${COMPREPLY[@]}"
"""

# The functions of the completion system, as far as they are used, print instead.
_ZSH = """
compadd() { while [[ $1 != -- ]]; do shift; done; shift; print -l -- "$@" }
_describe() { local name; for name in ${(P)2}; do print -r -- ${name%%:*}; done }
_files() { print FILES }
compset() { : }
ip-sla-ctl() { "$PROGRAM" "$@" }
words=(ip-sla-ctl "$@")
CURRENT=$#words
_run() { source "$COMPLETION" }
_run
"""


def _complete(ctl, shell, script, completion, words):
    variables = {
        **ctl.environment,
        "PROGRAM": ctl.lab.build.program("ip-sla-ctl"),
        "COMPLETION": TOOLS / completion,
        "PATH": "/usr/bin:/bin",
    }
    setting = [f"{name}={value}" for name, value in variables.items()]
    launcher = ctl.lab.build.launcher()
    command = ["env", "-i", *setting, *launcher, *shell, script, "shell", *words]
    return ctl.lab.run(*command).stdout.split()


def bash_completes(ctl, *words):
    """What bash offers for the last of the words, in which "=" stands by itself."""
    return _complete(ctl, ["bash", "-c"], _BASH, "ip-sla-ctl.bash", words)


def zsh_completes(ctl, *words):
    """What zsh offers to choose from for the last of the words: it picks what the word begins."""
    return _complete(ctl, ["zsh", "-f", "-c"], _ZSH, "ip-sla-ctl.zsh", words)
