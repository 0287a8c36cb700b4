"""Prints the report of each finished run from the test logs until every task has had its runs.

Arguments: the tasks file, the number of runs per task. Fails when a run failed or the runs do not
come in time.
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
    shown = {task["sla-id"]: 0 for task in tasks}
    deadline = time.monotonic() + 30 + wanted * max(task["scheduler"]["time"] for task in tasks)
    failed = 0
    while any(count < wanted for count in shown.values()):
        if time.monotonic() > deadline:
            print(
                "these tasks had no run in time:",
                [task for task, count in shown.items() if count < wanted],
            )
            return 1
        for number, count in shown.items():
            for report in finished_reports(number)[count:wanted]:
                print("\n".join(report), end="\n\n", flush=True)
                shown[number] += 1
                failed += "Status: successful" not in report[0]
        time.sleep(0.1)
    print(f"{sum(shown.values())} runs shown, {failed} of them failed")
    return 1 if failed else 0


sys.exit(main())
