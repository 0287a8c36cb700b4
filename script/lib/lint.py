"""Lints the sources below src and tools with clang-tidy, as many at a time as the first argument
says.

Two passes. The checks of the syntax tree look at every declaration of every header, which takes
longer than anything else: they get the sources in batches (build/clang-batches), where many share
one reading of their headers. What looks only into a compiler's main file, the path-sensitive
analyser first of all, gets each source by itself (build/clang); so does the compiler's own opinion
of a source that does not have its neighbours' includes before it.

A source that was found clean is not looked at again while nothing of it changes: neither its text
after preprocessing, comments included, nor the checks, nor the linter. IPSLA_LINT_CACHE names the
directory that remembers it (build/lint-cache).
"""

import concurrent.futures
import hashlib
import json
import os
import pathlib
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = r"/(src|tools)/.*\.(h|cpp)$"
BY_ITSELF = (
    "clang-analyzer-*,misc-unused-using-decls,misc-unused-alias-decls,misc-definitions-in-headers"
)
CACHE = pathlib.Path(os.environ.get("IPSLA_LINT_CACHE", ROOT / "build/lint-cache"))
LINTER = "clang-tidy-14"


def units(build):
    """The files that the build directory compiles for src and tools, less those that only a build
    makes, each with its compile command.
    """
    commands = json.loads((build / "compile_commands.json").read_text())
    roots = [base / name for base in (ROOT, build) for name in ("src", "tools")]
    files = {pathlib.Path(command["directory"], command["file"]): command for command in commands}
    ours = (file for file in files if any(root in file.parents for root in roots))
    return [(file, files[file]) for file in sorted(ours) if file.exists()]


def preprocessed(command):
    """The text that the compiler sees, with its comments, wherever the tree stands; None if it
    cannot be had.
    """
    words = shlex.split(command["command"])
    output = words.index("-o")
    words[output : output + 2] = []
    words[words.index("-c")] = "-E"
    result = subprocess.run(
        [*words, "-C"],
        cwd=command["directory"],
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
    )
    return result.stdout.replace(bytes(ROOT), b"") if result.returncode == 0 else None


def mark_of(command, *also):
    """The file whose presence says that this source is clean."""
    text = preprocessed(command)
    if text is None:
        return None
    digest = hashlib.sha256(text)
    for part in also:
        digest.update(str(part).encode() + b"\0")
    return CACHE / digest.hexdigest()


def tidy(build, checks, file, command):
    config = ROOT / ".clang-tidy"
    mark = mark_of(command, checks, config.read_text(), VERSION)
    if mark and mark.exists():
        return 0, "", True
    words = [LINTER, "-quiet", f"-p={build}", f"--config-file={config}"]
    words += [f"--header-filter={SOURCES}", f"--checks={checks}", str(file)]
    result = subprocess.run(
        words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace"
    )
    if mark and result.returncode == 0:
        mark.touch()
    return result.returncode, result.stdout, False


VERSION = subprocess.run([LINTER, "--version"], stdout=subprocess.PIPE, check=True).stdout


def main():
    jobs = int(sys.argv[1])
    CACHE.mkdir(parents=True, exist_ok=True)
    by_itself = ROOT / "build/clang"
    batches = ROOT / "build/clang-batches"
    excluded = ",".join(f"-{check}" for check in BY_ITSELF.split(","))
    work = [(batches, excluded, *unit) for unit in units(batches)]
    work += [(by_itself, f"-*,{BY_ITSELF}", *unit) for unit in units(by_itself)]
    failed = known = 0
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        runs = {pool.submit(tidy, *unit): unit for unit in work}
        for run in concurrent.futures.as_completed(runs):
            build, _, file, _ = runs[run]
            status, output, was_known = run.result()
            known += was_known
            print(
                "known to be clean:" if was_known else "tidy",
                os.path.relpath(file, ROOT),
                "in a batch" if build == batches else "",
                flush=True,
            )
            if status != 0:
                failed += 1
                print(output, flush=True)
    print(f"{len(work)} runs of the linter, {failed} of them with findings, {known} spared")
    return 1 if failed or not work else 0


sys.exit(main())
