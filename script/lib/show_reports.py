"""Waits until every task has had its runs, then prints one whole report: the last one of a task of
one type.

Arguments: the tasks file, the number of runs per task, the type. Fails when a run failed or the
runs do not come in time.
"""

import json
import pathlib
import re
import sys
import time

LOGS = pathlib.Path("/var/log/ip-sla")
STAMP = re.compile(r"^\d\d-\d\d-\d{4} \d\d:\d\d:\d\d: ", re.MULTILINE)
FIRST = "SLA task:"
SECTIONS = (
    FIRST,
    "Packets Values:",
    "RTT Values:",
    "Latency one-way",
    "Packet Loss Values:",
    "Out Of Sequence Values:",
)


def finished_reports(number):
    """The reports in a task's log, each a list of sections; one that may still be growing is left
    out.
    """
    try:
        text = (LOGS / f"test_{number}.log").read_text(errors="replace")
    except FileNotFoundError:
        return []
    reports, closed = [], True
    for record in STAMP.split(text)[1:]:
        if record.startswith(FIRST):
            reports.append([record.rstrip("\n")])
            closed = False
        elif record.startswith(SECTIONS):
            reports[-1].append(record.rstrip("\n"))
        else:
            closed = True  # the wait for the next run follows the report
    return reports if closed else reports[:-1]


def main():
    tasks = json.loads(pathlib.Path(sys.argv[1]).read_text())["IP-SLA-tasks"]
    wanted = int(sys.argv[2])
    deadline = time.monotonic() + 30 + wanted * max(task["scheduler"]["time"] for task in tasks)
    reports = {task["sla-id"]: [] for task in tasks}
    while any(len(found) < wanted for found in reports.values()):
        if time.monotonic() > deadline:
            missing = [number for number, found in reports.items() if len(found) < wanted]
            print("these tasks had no run in time:", missing)
            return 1
        time.sleep(0.1)
        reports = {number: finished_reports(number) for number in reports}
    (shown, *_) = [task["sla-id"] for task in tasks if task["sla-type"] == sys.argv[3]]
    print("\n".join(reports[shown][-1]), flush=True)
    failed = [
        number
        for number, found in reports.items()
        if any("Status: successful" not in report[0] for report in found)
    ]
    if failed:
        print("tasks with failed runs:", failed)
    return 1 if failed else 0


sys.exit(main())
