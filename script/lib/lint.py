"""Lints the sources below src and tools with clang-tidy, as many at a time as the first argument
says.

Two passes. The checks of the syntax tree look at every declaration of every header, which takes
longer than anything else: they get the sources in batches (build/clang-batches), where many share
one reading of their headers. What looks only into a compiler's main file, the path-sensitive
analyser first of all, gets each source by itself (build/clang); so does the compiler's own opinion
of a source that does not have its neighbours' includes before it.
"""

import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = r"/(src|tools)/.*\.(h|cpp)$"
BY_ITSELF = (
    "clang-analyzer-*,misc-unused-using-decls,misc-unused-alias-decls,misc-definitions-in-headers"
)


def units(build):
    """The files that the build directory compiles for src and tools, less those that only a build
    makes.
    """
    commands = json.loads((build / "compile_commands.json").read_text())
    roots = [base / name for base in (ROOT, build) for name in ("src", "tools")]
    files = {pathlib.Path(command["directory"], command["file"]) for command in commands}
    ours = (file for file in files if any(root in file.parents for root in roots))
    return sorted(file for file in ours if file.exists())


def tidy(build, checks, file):
    command = ["clang-tidy-14", "-quiet", f"-p={build}", f"--config-file={ROOT / '.clang-tidy'}"]
    command += [f"--header-filter={SOURCES}", f"--checks={checks}", str(file)]
    result = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace"
    )
    return result.returncode, result.stdout


def main():
    jobs = int(sys.argv[1])
    by_itself = ROOT / "build/clang"
    batches = ROOT / "build/clang-batches"
    excluded = ",".join(f"-{check}" for check in BY_ITSELF.split(","))
    work = [(batches, excluded, file) for file in units(batches)]
    work += [(by_itself, f"-*,{BY_ITSELF}", file) for file in units(by_itself)]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        runs = {pool.submit(tidy, *unit): unit for unit in work}
        for run in concurrent.futures.as_completed(runs):
            build, _, file = runs[run]
            status, output = run.result()
            print(
                "tidy",
                os.path.relpath(file, ROOT),
                "in a batch" if build == batches else "",
                flush=True,
            )
            if status != 0:
                failed += 1
                print(output, flush=True)
    print(f"{len(work)} runs of the linter, {failed} of them with findings")
    return 1 if failed or not work else 0


sys.exit(main())
