"""What a fleet costs a Prometheus server: simulated senders, a real server, its own account.

    unshare --net python3 bench/fleet.py [--senders N] [--tasks N] [--interval S] [--minutes N]

Every sender is an address of the loopback interface of the network namespace that the script runs
in, and answers scrapes as ip-sla-exporter does beside a daemon with udp-jitter tasks, the type with
the most series; its values move from scrape to scrape. The interval is shorter than in use, so that
the server soon holds as many samples of each series as otherwise in hours. Run it with two numbers
of senders: the difference is what the senders cost, without what the server costs by itself.
"""

import argparse
import http.server
import json
import pathlib
import random
import subprocess
import tempfile
import threading
import time
import urllib.request

RULES = pathlib.Path(__file__).resolve().parents[1] / "deploy" / "prometheus" / "ip-sla-rules.yml"
PORT = 9815
SERVER = "http://127.0.0.1:9090"
WAYS = ("sd", "ds")


def families(tasks):
    """Name, type and samples (labels, mean value) of what one sender answers."""
    ids = range(1, tasks + 1)
    one = [(f'task="{i}"', 1) for i in ids]
    info = 'type="udp-jitter",vrf="",source="10.0.0.1",destination="10.1.0.{0}",dscp=""'
    yield "ipsla_up", "gauge", [("", 1)]
    yield "ipsla_task_info", "gauge", [(f'task="{i}",' + info.format(i), 1) for i in ids]
    yield "ipsla_last_run_success", "gauge", one
    yield "ipsla_last_run_timestamp_seconds", "gauge", [(f'task="{i}"', None) for i in ids]
    yield "ipsla_task_period_seconds", "gauge", [(f'task="{i}"', 60) for i in ids]
    results = (("successful", None), ("failed", 0))
    yield "ipsla_runs_total", "counter", [
        (f'task="{i}",result="{name}"', value) for i in ids for name, value in results
    ]
    for name, value in (("min", 0.018), ("mean", 0.02), ("max", 0.03)):
        yield f"ipsla_rtt_{name}_seconds", "gauge", [(f'task="{i}"', value) for i in ids]
        yield f"ipsla_one_way_delay_{name}_seconds", "gauge", [
            (f'task="{i}",direction="{way}"', value / 2) for i in ids for way in WAYS
        ]
    yield "ipsla_jitter_stddev_seconds", "gauge", [
        (f'task="{i}",direction="{way}"', 0.001) for i in ids for way in WAYS
    ]
    yield "ipsla_packet_loss_ratio", "gauge", [
        (f'task="{i}",direction="{way}"', 0) for i in ids for way in (*WAYS, "round_trip")
    ]
    outcomes = {"sent": 10, "received": 10, "late": 0, "skipped": 0, "duplicate": 0}
    yield "ipsla_packets", "gauge", [
        (f'task="{i}",outcome="{name}"', count) for i in ids for name, count in outcomes.items()
    ]
    own = ("clock_synchronized", "scrape_duration_seconds", "history_bytes", "history_points")
    for name in own:
        yield f"ipsla_{name}", "gauge", [("", 1)]


class Senders:
    """One text for all of them, made anew from time to time."""

    def __init__(self, tasks):
        self.families = list(families(tasks))
        self.series = sum(len(samples) for _, _, samples in self.families)
        self.text = b""
        self.round = 0
        self.renew()

    def renew(self):
        self.round += 1
        lines = []
        for name, kind, samples in self.families:
            lines.append(f"# TYPE {name} {kind}")
            for labels, value in samples:
                if value is None:
                    value = self.round if kind == "counter" else int(time.time())
                elif isinstance(value, float):
                    value = f"{value * random.gauss(1, 0.1):.15g}"
                lines.append(f"{name}{{{labels}}} {value}" if labels else f"{name} {value}")
        self.text = ("\n".join(lines) + "\n").encode()


def serve(senders):
    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_GET(self):
            self.send_response(200)
            self.send_header("Content-Type", "text/plain; version=0.0.4")
            self.send_header("Content-Length", str(len(senders.text)))
            self.end_headers()
            self.wfile.write(senders.text)

        def log_message(self, *_):
            pass

    server = http.server.ThreadingHTTPServer(("0.0.0.0", PORT), Handler)
    server.daemon_threads = True
    server.handle_error = lambda *_: None  # the scraper goes when the measurement ends
    threading.Thread(target=server.serve_forever, daemon=True).start()


def configuration(directory, count, interval):
    targets = [f"127.1.{number // 250}.{number % 250 + 1}:{PORT}" for number in range(count)]
    path = directory / "prometheus.yml"
    document = {
        "global": {"scrape_interval": f"{interval}s", "evaluation_interval": f"{interval}s"},
        "rule_files": [str(RULES)],
        "scrape_configs": [
            {"job_name": "ip-sla", "static_configs": [{"targets": targets}]},
            {"job_name": "own", "static_configs": [{"targets": ["127.0.0.1:9090"]}]},
        ],
    }
    path.write_text(json.dumps(document))  # JSON is YAML
    return path


def value(expression):
    url = f"{SERVER}/api/v1/query?query=" + urllib.request.quote(expression)
    with urllib.request.urlopen(url, timeout=30) as answer:
        result = json.load(answer)["data"]["result"]
    return float(result[0]["value"][1]) if result else None


FIGURES = {
    "series": "prometheus_tsdb_head_series",
    "samples_per_second": "rate(prometheus_tsdb_head_samples_appended_total[{range}s])",
    "resident_mib": 'process_resident_memory_bytes{{job="own"}} / 2^20',
    "heap_mib": 'go_memstats_heap_alloc_bytes{{job="own"}} / 2^20',
    "cpu_cores": 'rate(process_cpu_seconds_total{{job="own"}}[{range}s])',
    "failed_scrapes": 'count(up{{job="ip-sla"}} == 0) or vector(0)',
    "rules_seconds": "sum(prometheus_rule_group_last_duration_seconds)",
}


def measure(arguments):
    senders = Senders(arguments.tasks)
    serve(senders)
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        path = configuration(directory, arguments.senders, arguments.interval)
        with open(directory / "log", "wb") as log:
            command = ["prometheus", f"--config.file={path}", f"--storage.tsdb.path={name}/data"]
            command += ["--web.listen-address=127.0.0.1:9090"]
            server = subprocess.Popen(command, stdout=log, stderr=log)
        try:
            end = time.monotonic() + 60 * arguments.minutes
            while time.monotonic() < end:
                time.sleep(arguments.interval)
                senders.renew()
            figures = {"senders": arguments.senders, "series_per_sender": senders.series}
            for key, expression in FIGURES.items():
                found = value(expression.format(range=max(60, 4 * arguments.interval)))
                figures[key] = None if found is None else round(found, 2)
            files = (path for path in (directory / "data").rglob("*") if path.is_file())
            figures["disk_mib"] = round(sum(path.stat().st_size for path in files) / 2**20, 2)
            print(json.dumps(figures))
        finally:
            server.terminate()
            server.wait()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--senders", type=int, default=40)
    parser.add_argument("--tasks", type=int, default=100)
    parser.add_argument("--interval", type=int, default=5)
    parser.add_argument("--minutes", type=float, default=10)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    measure(parser.parse_args())


main()
