"""The benchmark programs: single functions, without sockets."""

import json
import subprocess

from .figures import table


def run(build, report):
    report.begin("benchmark programs")
    program = build.directory / "bin" / "ipsla-bench"
    if not program.exists():
        report.warn(f"{program} is not built: no micro benchmarks")
        return ""
    command = [program, "--benchmark_format=json", "--benchmark_min_time=0.2"]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True, timeout=300)
    found = json.loads(done.stdout)["benchmarks"]
    report.add("micro", found)
    rows = [
        [one["name"], one.get("real_time"), one.get("cpu_time"), one.get("time_unit")]
        for one in found
    ]
    return table(["benchmark", "time", "CPU", "unit"], rows)
