"""Measures accuracy, scale and cost of the daemon; see docs/performance.md."""

import argparse
import os
import sys
import time

from . import ROOT, accuracy, api, cost, micro, responder, scale, stage
from .report import Report

AREAS = {
    "accuracy": accuracy.run,
    "scale": scale.run,
    "responder": responder.run,
    "cost": cost.run,
    "api": api.run,
    "micro": micro.run,
}


def main():
    options = parse_arguments()
    if os.geteuid() != 0:
        sys.exit("the measurements work in namespaces of their own and need root")
    build = stage.the_build(os.environ.get("IPSLA_BUILD_DIR", ROOT / "build" / "bench"))
    report = Report(build)
    print(report.head())
    for area in options.areas or AREAS:
        begin = time.monotonic()
        tables = AREAS[area](build, report)
        print(f"\n## {area} ({time.monotonic() - begin:.0f} s)\n\n{tables}", flush=True)
    for warning in report.finish():
        print(warning)
    if options.json:
        report.write(options.json)


def parse_arguments():
    parser = argparse.ArgumentParser(prog="script/bench", description=__doc__)
    parser.add_argument(
        "areas", nargs="*", metavar="area", help=f"{', '.join(AREAS)} (default: all)"
    )
    parser.add_argument("--json", metavar="FILE", help="write the figures there, too")
    options = parser.parse_args()
    unknown = [area for area in options.areas if area not in AREAS]
    if unknown:
        parser.error(f"there is no area {unknown[0]!r}: {', '.join(AREAS)}")
    return options


if __name__ == "__main__":
    main()
