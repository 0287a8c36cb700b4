"""The libraries of src/: one for each floor, and those that the tools share with the daemon."""

import re

from test_floors import ROOT, includes, sources

SHARED = ("ipsla_protocol", "ipsla_digest", "ipsla_parser")
# What a program pays for by linking it: an io context, a thread, a log file, the device's
# libraries.
HEAVY = re.compile(r"^(boost/(asio|thread)|thread|future|log/(?!format)|platform/|systemd/)")


def libraries():
    """Name to source files, as src/CMakeLists.txt has them."""
    text = (ROOT / "src" / "CMakeLists.txt").read_text()
    found = {}
    for name, body in re.findall(r"add_library\((ipsla_\w+) STATIC([^)]*)\)", text):
        found[name] = body.split()
    return found


def all_includes(name, seen):
    """Every header that a source reaches, system headers as they stand."""
    for target in re.findall(r'#\s*include\s+["<]([^">]+)[">]', (ROOT / "src" / name).read_text()):
        if target not in seen:
            seen.add(target)
            if (ROOT / "src" / target).is_file():
                all_includes(target, seen)
    return seen


def test_every_source_is_in_exactly_one_library():
    listed = sorted(name for files in libraries().values() for name in files)
    there = sorted(
        name
        for name in (str(path.relative_to(ROOT / "src")) for path in sources())
        if name.endswith(".cpp") and not name.startswith("platform/")
    )
    assert listed == [name for name in there if name != "main/sender_main.cpp"]


def test_a_floors_library_has_only_that_floors_sources():
    for name, files in libraries().items():
        if name not in SHARED + ("ipsla_asio",):
            assert {file.split("/")[0] for file in files} == {name.removeprefix("ipsla_")}


def test_what_the_tools_link_starts_nothing():
    for name in SHARED:
        for source in libraries()[name]:
            heavy = sorted(filter(HEAVY.match, all_includes(source, set())))
            assert heavy == [], f"{source} of {name}"
