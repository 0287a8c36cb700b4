"""The pictures of the README, made of a daemon at work. Arguments: the directory for them."""

import os
import pathlib
import subprocess
import sys
import tempfile
import time

from screen_svg import draw
from support import page
from support.ctl import Ctl
from support.daemon import Daemon
from support.exporter import Exporter
from support.lab import Build, Lab
from support.responder_program import ResponderProgram
from support.tasks import icmp_echo, icmp_jitter, udp_echo, udp_jitter
from support.tmux import Tmux
from support.waiting import wait_for

ROOT = pathlib.Path(__file__).resolve().parents[2]
SECONDS = float(os.environ.get("IPSLA_PICTURE_SECONDS", "150"))
KEY = "a key of the picture"
COLUMNS, LINES = 96, 14
MOST_BYTES = 150_000


def start_path(lab):
    """The namespace "far", some milliseconds away, with a responder."""
    lab.add_namespace("far")
    relay = lab.popen(
        sys.executable,
        ROOT / "script/lib/path_relay.py",
        "/run/netns/far",
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        text=True,
    )
    assert relay.stdout.readline() == "ready\n"
    keys = lab.directory / "keys.json"
    keys.write_text('{"keychain-storage": [{"key-id": 7, "key-string": "%s"}]}' % KEY)
    options = [
        "--realtime",
        "50",
        "--allow-open",
        "--port-range",
        "20000-20999",
        "--keychain",
        keys,
    ]
    ResponderProgram(lab, *options, namespace="far")


def tasks():
    far = {"src": "10.20.0.1", "dst": "10.20.0.2"}
    usual = {"time": 3, "packets": 20, "interval": 20, "timeout": 900, "control": {"timeout": 900}}
    udp = {**far, **usual, "measurement": {"dst-port": 0, "dscp": 46}}
    signed = {"mode": "keychain", "algorithm": "hmac-sha256", "key-id": 7}
    return [
        icmp_echo(10, **far, **usual),
        icmp_jitter(11, **far, **usual),
        udp_echo(20, **udp),
        udp_jitter(21, **udp),
        udp_jitter(22, **udp, authentication=signed),
        udp_jitter(30, vrf="blue", **{**udp, "src": "10.1.0.1", "dst": "10.1.0.2"}),
        icmp_echo(40, **{**far, **usual, "dst": "10.20.0.9"}),
    ]


def draw_page(lab, out):
    for scheme in ("light", "dark"):
        report = page.take_steps(
            lab,
            page.fetch_modules(lab.build),
            ["open", {"scheme": scheme, "width": 1280, "height": 960, "hash": "#task-21"}],
            ["waitFor", ".plot", "Loss"],
            ["screenshot", str(out / f"page-{scheme}.png")],
        )
        assert report["errors"] == [], report


def draw_watch(lab, out):
    command = Ctl(lab).command("watch", "--interval", "3", TERM="screen-256color", LC_ALL="C.UTF-8")
    screen = Tmux(lab, COLUMNS, LINES, " ".join(map(str, command)))
    screen.wait_for(r"^ *\d+ .*udp-jitter")
    # The second refresh marks what changed.
    first = screen.lines()[0]
    wait_for(lambda: screen.lines()[0] != first, "the next refresh")
    (out / "watch.svg").write_text(draw(screen.coloured(), COLUMNS))


def main():
    out = pathlib.Path(sys.argv[1])
    build = Build(os.environ.get("IPSLA_BUILD_DIR", ROOT / "build/release"))
    with tempfile.TemporaryDirectory() as directory:
        lab = Lab(build, directory)
        try:
            start_path(lab)
            lab.add_vrf("blue")
            ResponderProgram(lab, "--realtime", "50", "--allow-open", "--port-range", "20000-20999")
            Daemon(lab, tasks(), keychain={7: KEY}).wait_ready()
            Exporter(lab, "--interval", "1")
            time.sleep(SECONDS)
            draw_watch(lab, out)
            draw_page(lab, out)
        finally:
            lab.close()
    for path in sorted(out.iterdir()):
        print(f"{path.name}: {path.stat().st_size} bytes")
        assert path.stat().st_size < MOST_BYTES, "too large for the tree"


if __name__ == "__main__":
    main()
