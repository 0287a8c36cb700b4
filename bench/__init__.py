"""Accuracy, scale and cost of the daemon, measured: what `script/bench` runs.

The laboratory is the end-to-end tests' (`tests/e2e/support`), so that no traffic leaves the
machine.
"""

import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))
