"""Headers say what a caller cannot see: nearly every declaration is commented."""

import pytest
from header_declarations import declarations
from test_floors import ROOT

LEAST = 0.90


def headers():
    return sorted(path for top in ("src", "tools") for path in (ROOT / top).rglob("*.h"))


def test_nine_in_ten_declarations_are_commented():
    counts = {}
    for path in headers():
        found = declarations(path.read_text())
        counts[path] = (sum(declaration.is_commented for declaration in found), len(found))
    commented, all_of_them = map(sum, zip(*counts.values()))
    share = commented / all_of_them
    lacking = "\n".join(
        f"{100 * some / every:4.0f} % of {every:3} in {path.relative_to(ROOT)}"
        for path, (some, every) in sorted(counts.items(), key=lambda entry: entry[1][0])
        if some < LEAST * every
    )
    assert len(counts) > 100 and all_of_them > 1500
    assert share >= LEAST, f"{100 * share:.1f} % of {all_of_them} declarations; least:\n{lacking}"


def state_of(text):
    """The names that are declared, those without a comment in brackets."""
    names = []
    for declaration in declarations(text):
        word = declaration.text.split("(")[0].split("=")[0].split("{")[0].split(":")[0].split()[-1]
        names.append(word if declaration.is_commented else f"[{word}]")
    return " ".join(names)


@pytest.mark.parametrize(
    "text, expected",
    [
        ("int Plain();\n", "[Plain]"),
        ("/// Says so.\nint Above();\n", "Above"),
        ("int behind = 0;  ///< milliseconds\n", "behind"),
        ("// A group.\nint one;\nint two;\n\nint apart;\n", "one two [apart]"),
        ("// A title.\n\nint apart;\n", "[apart]"),
        ("int Plain() {\n  return 1;  // why\n}\n", "[Plain]"),
        ("int one() {\n  return 1;\n}\n/// Two.\nint two();\n", "[one] two"),
        ("int x;  // NOLINT(some-check)\n", "[x]"),
        ('/// One.\nvoid One(const char* text = "a; // b {");\n\nint two;\n', "One [two]"),
        ("/// Of two.\nstruct Pair {\n  int one = 0;\n\n  int two{};\n};\n", "Pair one [two]"),
        ("/// A class.\nclass Box {\n  int one_;\n};\n", "Box [one_]"),
        ("class Box {\n public:\n  Box() : a_{1}, b_(2) {}\n  /// Goes.\n  ~Box();\n\n private:\n"
         "  int a_, b_;\n};\n", "[Box] [Box] ~Box [b_]"),
        ("enum class Kind { kOne, kTwo };\nusing Word = int;\n", "[Kind] [Word]"),
        ("namespace a {\ninline constexpr int kOne = 1;\n}  // namespace a\n", "[kOne]"),
        ("#define GUARD_H_\n#define LOG(x) \\\n  x;\n", "[LOG]"),
        ("class Other;\nstruct Open { Open(const Open&) = delete; };\n", "[Open]"),
        ("/// Of any type.\ntemplate <typename T>\nT Any(T one);\n\nint two;\n", "Any [two]"),
    ],
)  # fmt: skip
def test_the_measure_itself(text, expected):
    assert state_of(text) == expected
