"""The exporter's page in a headless browser: what drives it, and steps to take on it."""

import json
import os
import pathlib
import shutil
import subprocess

from .waiting import SCALE

_DRIVER = pathlib.Path(__file__).resolve().parent / "page_driver.js"
_PAGE = pathlib.Path(__file__).resolve().parents[3] / "tools" / "exporter" / "page"


def fetch_modules(build):
    """What the page is looked at with, fetched once into the build directory."""
    directory = build.directory / "page-tests"
    directory.mkdir(exist_ok=True)
    lock = (_PAGE / "package-lock.json").read_text()
    stamp = directory / "fetched"
    if not stamp.exists() or stamp.read_text() != lock:
        for name in ("package.json", "package-lock.json"):
            shutil.copy(_PAGE / name, directory)
        command = ["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund"]
        subprocess.run(command, cwd=directory, check=True, stdout=subprocess.DEVNULL, timeout=300)
        stamp.write_text(lock)
    return directory / "node_modules"


def take_steps(lab, modules, *steps):
    """Takes steps (page_driver.js) on the page of the lab's exporter: {"seen": [...], "errors":
    [...]}.
    """
    home = lab.directory / "home"
    home.mkdir(exist_ok=True)
    variables = {**os.environ, "NODE_PATH": str(modules), "HOME": str(home)}
    words = ["node", _DRIVER, json.dumps(steps)]
    result = lab.run(*words, env=variables, timeout=90 * SCALE, check=False)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)
