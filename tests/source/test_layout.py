"""Widths, lengths and braces: what fits a screen is read, what does not is skimmed."""

import re
import statistics

import pytest
from test_floors import ROOT

TOPS = ("src", "tools", "tests", "bench", "cmake", "script", ".ci")
COLUMNS = 100
FILE_LINES = 450
FUNCTION_LINES = 90
MEDIAN_LINES = 8
P90_LINES = 30

SOURCES = re.compile(r"\.(h|c|cpp|py|sh|bash|cmake)$|CMakeLists\.txt$|^script/[a-z]+$|^\.ci/")
IMPLEMENTATION = re.compile(r"^(src|tools)/.*\.(c|cpp)$")
# A text that is read as it stands is not broken for its length.
LITERAL = re.compile(r'^\s*(R|[rfb]{1,2})?["\']')
HEAD = re.compile(r"^( *)(?!.*\b(if|for|while|switch|catch|else|do)\b *[({]).*\)[^;=]*\{$")
CODE = re.compile(r"\.(h|c|cpp)$")
CONTROL = re.compile(r"^ *(\} )?(else if|if|for|while)( constexpr)? \(|^ *(\} )?else$")
LITERAL_OR_COMMENT = re.compile(r'"(\\.|[^"\\])*"|\'(\\.|[^\'\\])+\'|//.*')
LAMBDA = re.compile(r"\[[^\]]*\] *(\(|mutable|\{)")


def sources(pattern):
    """Names of the project's own files that match, whether the tree is under version control or not."""
    found = [path for path in ROOT.iterdir() if path.is_file()]
    for top in TOPS:
        found += [path for path in (ROOT / top).rglob("*") if path.is_file()]
    names = [str(path.relative_to(ROOT)) for path in found if "node_modules" not in path.parts]
    return sorted(name for name in names if pattern.search(name))


def long_lines(text):
    """Numbers of the lines that are too long."""
    return [
        number
        for number, line in enumerate(text.splitlines(), 1)
        if len(line) > COLUMNS and not LITERAL.match(line)
    ]


def function_lengths(text):
    """(first line, lines) of each function, from the line of its brace to that of the other one.

    The formatter puts both at one indentation; lambdas count with the function they stand in.
    """
    lines = text.splitlines()
    found = []
    for number, line in enumerate(lines):
        head = HEAD.match(line)
        if not head or LAMBDA.search(line):
            continue
        indent = head.group(1)
        # The head of a function that goes over several lines is indented more than its end.
        for end in range(number + 1, len(lines)):
            closing = re.match(r"^( *)\}", lines[end])
            if closing and len(closing.group(1)) <= len(indent):
                found.append((number + 1, end - number + 1))
                break
    return found


def bare_statements(text):
    """Numbers of the lines where a condition ends and its statement follows on the next, without a
    brace.
    """
    lines = [LITERAL_OR_COMMENT.sub("", line).rstrip() for line in text.splitlines()]
    found = []
    for number, line in enumerate(lines):
        if not CONTROL.match(line):
            continue
        end = number
        condition = line
        while condition.count("(") > condition.count(")") and end + 1 < len(lines):
            end += 1
            condition += lines[end]
        if lines[end].endswith((")", "else")) and not condition.lstrip().startswith("} while"):
            found.append(end + 1)
    return found


def test_no_line_is_wider_than_100_columns():
    names = sources(SOURCES)
    assert len(names) > 500
    wide = [f"{name}:{line}" for name in names for line in long_lines((ROOT / name).read_text())]
    assert wide == []


def test_no_implementation_file_is_longer_than_450_lines():
    lengths = {
        name: len((ROOT / name).read_text().splitlines()) for name in sources(IMPLEMENTATION)
    }
    assert len(lengths) > 100
    assert {name: lines for name, lines in lengths.items() if lines > FILE_LINES} == {}


def test_functions_fit_a_screen():
    lengths = {
        f"{name}:{line}": lines
        for name in sources(IMPLEMENTATION)
        for line, lines in function_lengths((ROOT / name).read_text())
    }
    assert len(lengths) > 1000
    assert {place: lines for place, lines in lengths.items() if lines > FUNCTION_LINES} == {}
    assert statistics.median(lengths.values()) <= MEDIAN_LINES
    assert statistics.quantiles(lengths.values(), n=10)[8] <= P90_LINES


@pytest.mark.parametrize(
    "text, expected",
    [
        ("x" * 100, []),
        ("\n" + "x" * 101, [2]),
        ("  " + '"' + "x" * 120 + '"', []),
        ('Call("' + "x" * 120 + '")', [1]),
        ('    rf"' + "x" * 120 + '"', []),
    ],
)
def test_the_check_of_widths_itself(text, expected):
    assert long_lines(text) == expected


def test_a_statement_on_a_line_of_its_own_has_braces():
    found = [
        f"{name}:{line}"
        for name in sources(CODE)
        for line in bare_statements((ROOT / name).read_text())
    ]
    assert found == []


@pytest.mark.parametrize(
    "text, expected",
    [
        ("if (x) return;\n", []),
        ("if (x)\n  return;\n", [1]),
        ("if (x) {\n  return;\n}\n", []),
        ("for (int i = 0;\n     i < 5; ++i)\n  y();\n", [2]),
        ("if (x) {\n} else\n  y();\n", [2]),
        ("do {\n  y();\n} while (x)\n", []),
        ("if (x && // (why\n    y)\n  z();\n", [2]),
        ("while (x())\n  y();\n", [1]),
    ],
)
def test_the_check_of_braces_itself(text, expected):
    assert bare_statements(text) == expected


@pytest.mark.parametrize(
    "text, expected",
    [
        ("int One() {\n  return 1;\n}\n", [(1, 3)]),
        ("Box::Box(int a,\n         int b)\n    : a_(a) {\n  b_ = b;\n}\n", [(3, 3)]),
        ("void Two() {\n  if (x) {\n    y();\n  }\n}\n", [(1, 5)]),
        ("class A {\n  void B() {\n    c();\n  }\n};\n", [(2, 3)]),
        ("void D() {\n  Call([&](int x) {\n    x();\n  });\n}\n", [(1, 5)]),
        ("void E() {\n" + "  x();\n" * 100 + "}\n", [(1, 102)]),
    ],
)
def test_the_measure_of_functions_itself(text, expected):
    assert function_lengths(text) == expected
