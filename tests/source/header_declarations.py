"""Which declarations of a header are commented.

Counted is what is declared at namespace scope or in a class: types, operations, variables, fields,
aliases, macros, private ones included. An enumeration is one declaration, whatever its values. Not
counted: forward declarations, friends, deleted and defaulted operations, overrides (their comment
is the base's), include guards.

A declaration is commented when a comment stands directly above it or behind it on its own lines. So
are those that follow a comment and its declaration without a blank line: one group under one
comment. The fields of a plain record are a group under the comment of the record, up to the first
blank line; the members of a class are not.
"""

import re
from dataclasses import dataclass

CLASS = re.compile(r"\b(class|struct|union)\b(?![^<]*>)")
FORWARD = re.compile(
    r"^(template\s*<[^;{]*>\s*)?(class|struct|union|enum( class)?)\s+\w+(\s*:\s*[\w:]+)?\s*$"
)
NO_COMMENT_NEEDED = re.compile(
    r"^\s*(friend\b|static_assert\b|using namespace\b)"
    r"|=\s*(delete|default)\s*$|\boverride\b|\bfinal\s*$"
)
ACCESS = re.compile(r"^\s*(public|protected|private)\s*:(?!:)")
NOT_A_COMMENT = re.compile(r"NOLINT\w*(\([^)]*\))?:?|clang-format (on|off)")


@dataclass
class Declaration:
    line: int
    text: str
    is_commented: bool = False


@dataclass
class _Scope:
    kind: str  # "names" (namespace or class), "body"
    before: str = ""  # what the declaration says in front of the brace


def _split(text):
    """Two lists of lines: the code without comments and literals, the words of the comments."""
    code, comments = [], []
    in_block = False
    for line in text.splitlines():
        kept, said = "", ""
        place = 0
        while place < len(line):
            rest = line[place:]
            if in_block:
                end = rest.find("*/")
                said += rest if end < 0 else rest[:end]
                place += len(rest) if end < 0 else end + 2
                in_block = end < 0
            elif rest.startswith("//"):
                said += rest.lstrip("/<!")
                break
            elif rest.startswith("/*"):
                in_block, place = True, place + 2
            elif literal := re.match(r'"(\\.|[^"\\])*"|(?<!\w)\'(\\.|[^\'\\])+\'', rest):
                kept, place = kept + '""', place + literal.end()
            else:
                kept, place = kept + rest[0], place + 1
        code.append(kept.rstrip())
        comments.append(NOT_A_COMMENT.sub("", said).strip())
    return code, comments


class _Reader:
    """Walks over the code and notes each declaration with its lines."""

    def __init__(self, text):
        self.code, self.comments = _split(text)
        self.found = []
        self.scopes = [_Scope("names")]
        self.pending = ""  # of the declaration that has begun
        self.start = None  # its first line
        self.last_end = {0: -1}  # by depth: the last line of the declaration before
        self.in_group = {0: False}  # by depth: it stands under a comment above it

    def read(self):
        macro_goes_on = False
        for number, line in enumerate(self.code):
            if macro_goes_on or line.lstrip().startswith("#"):
                if not macro_goes_on:
                    self._macro(number, line)
                macro_goes_on = line.endswith("\\")
                continue
            for character in line + "\n":
                self._take(character, number)
        return self.found

    def _macro(self, number, line):
        name = re.match(r"\s*#\s*define\s+(\w+)", line)
        if name and not re.search(r"_H_$", name.group(1)):
            self._note(number, number, name.group(1))

    def _take(self, character, number):
        inside = self.scopes[-1].kind == "names"
        if character == "{":
            self._open(number, inside)
        elif character == "}":
            self._close(number)
        elif inside and character == ";" and self.pending.count("(") == self.pending.count(")"):
            self._end(number)
        elif inside:
            if self.start is None and not character.isspace() and character != ",":
                self.start = number
            if self.start is not None:
                self.pending += character
                if ACCESS.match(self.pending):
                    self._forget()

    def _open(self, number, inside):
        head = " ".join(self.pending.split())
        if not inside:
            self.scopes.append(_Scope("body"))
        elif re.match(r"(inline )?namespace\b|extern \"\"", head):
            self._forget()
            self._enter()
        elif CLASS.search(head) and "(" not in re.sub(
            r"\w+\([^()]*(\([^()]*\))?[^()]*\)", "", head
        ):
            self._end(number, keep_open=True)
            is_group = self.found[-1].is_commented and not head.startswith("class")
            self._enter()
            if is_group:
                self.last_end[len(self.scopes)] = number
                self.in_group[len(self.scopes)] = True
        else:
            self.scopes.append(_Scope("body", self.pending.rstrip()))
            if self.start is None:
                self.start = number
            self.pending += "{"

    def _enter(self):
        self.scopes.append(_Scope("names"))
        self.last_end[len(self.scopes)] = -1
        self.in_group[len(self.scopes)] = False

    def _close(self, number):
        scope = self.scopes.pop()
        if scope.kind == "names":
            self.last_end[len(self.scopes)] = number
            self._forget()
        elif self.scopes[-1].kind == "names":
            # An initialiser goes on to its semicolon or to the next one, a body ends here.
            self.pending += "}"
            initialises = re.search(r"=$|^[^(]*$|\) *: .*[\w>]$", " ".join(scope.before.split()))
            if not initialises:
                self._end(number)

    def _end(self, number, keep_open=False):
        text = " ".join(self.pending.split("{")[0].split())
        start = self.start
        self._forget()
        if start is None or not text:
            return
        if FORWARD.match(text) and not keep_open or NO_COMMENT_NEEDED.search(text):
            depth = len(self.scopes)
            if start - self.last_end.get(depth, -1) > 1:
                self.in_group[depth] = bool(self._above(start))
            self.last_end[depth] = number
            return
        self._note(start, number, text)

    def _above(self, start):
        """The comment directly above a line."""
        return start > 0 and not self.code[start - 1] and self.comments[start - 1]

    def _note(self, start, end, text):
        depth = len(self.scopes)
        last_end = self.last_end.get(depth, -1)
        goes_on = start - last_end == 1 and self.in_group.get(depth, False)
        self.in_group[depth] = bool(self._above(start)) or goes_on
        own_lines = range(start, end + 1)
        if "{" in "".join(self.code[start : end + 1]):
            own_lines = [n for n in own_lines if "{" not in "".join(self.code[start:n])]
        behind = any(self.comments[line] for line in own_lines)
        self.found.append(Declaration(start + 1, text, self.in_group[depth] or behind))
        self.last_end[depth] = end

    def _forget(self):
        self.pending, self.start = "", None


def declarations(text):
    """The counted declarations of one header."""
    return _Reader(text).read()
