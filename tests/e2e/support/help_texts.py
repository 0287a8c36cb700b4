"""What the programs' --help says, taken apart."""

import re
import subprocess


def help_text(build, program, *words):
    command = [*build.launcher(), build.program(program), *words, "--help"]
    return subprocess.run(
        command, capture_output=True, text=True, check=False, env=build.environment()
    ).stdout


def options(text):
    """The names in a help text's lists of options: "  -n,--interval SECONDS", "  --a, --no-a"."""
    lines = re.findall(r"^  ((?:-[A-Za-z],)?--?[a-zA-Z][^ ]*)", text, re.M)
    return {name for line in lines for name in re.findall(r"--?[A-Za-z][\w-]*", line)}


def commands(text):
    block = re.search(r"^Subcommands:\n(.*?)(?:\n\n|\Z)", text, re.M | re.S)
    return re.findall(r"^  ([a-z][\w-]*)", block.group(1), re.M) if block else []


def all_helps(build, program, *words):
    """The words of each command, and its help."""
    text = help_text(build, program, *words)
    yield words, text
    for command in commands(text):
        yield from all_helps(build, program, *words, command)
