"""Small faults in C++ as this repository formats it: what script/mutate tries, one at a time.

Only code that runs gets faults: bodies of functions, and initial values in source files. Comments, literals,
declarations, enumerations and static assertions get none.
"""

import dataclasses
import hashlib
import re

TOKEN = re.compile(
    r"(?P<skip>//[^\n]*|/\*.*?\*/|^ *#(?:\\\n|[^\n])*)"
    r"""|(?P<text>"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*')"""
    r"|(?P<name>[A-Za-z_]\w*)"
    r"|(?P<number>\d[\w.']*)"
    r"|->|::|<=>|<<=|>>=|[-+*/%&|^=!<>]=|&&|\|\||\+\+|--|<<|>>|\S", re.M | re.S)

# Only between spaces, which excludes a template's brackets and a pointer's star.
OPERATORS = {
    "<": "<= >=", "<=": "< >", ">": ">= <=", ">=": "> <", "==": "!=", "!=": "==", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "&": "|", "|": "&", "^": "|", "<<": ">>", ">>": "<<",
    "+=": "-=", "-=": "+=", "|=": "&=", "&=": "|=", "<<=": ">>=", ">>=": "<<="}
WORDS = {"true": "false", "false": "true", "++": "--", "--": "++", "!": ""}
KEYWORDS = {"return", "else", "case", "goto", "new", "delete", "if", "for", "while", "switch", "do", "sizeof"}
SCOPES = {"namespace", "extern", "struct", "class", "union"}
LEFT_OUT = "(void)0;"


@dataclasses.dataclass
class Fault:
    file: str
    line: int
    old: str  # the changed lines, joined
    new: str
    text: str  # the whole file with the fault

    def is_in(self, where):  # empty, FOLDER, FILE or FILE:LINE
        return not where or re.match(re.escape(where) + "[/:]", f"{self.file}:{self.line}:")

    def place_in(self, order):
        """The sort key; independent of the other faults."""
        return hashlib.sha256(f"{order} {self.file} {self.old} {self.new} {self.line}".encode()).digest()


class Source:
    def __init__(self, file, text):
        self.file, self.text, self.faults = file, text, []
        self.tokens = [m for m in TOKEN.finditer(text) if not m["skip"]]
        self.words = [m[0] for m in self.tokens]
        self.pairs, opened = {}, []  # brackets, both ways
        for i, word in enumerate(self.words):
            if word in "([{":
                opened.append(i)
            elif word in ")]}":
                self.pairs[opened[-1]] = i
                self.pairs[i] = opened.pop()
        self.declarations(0, len(self.tokens))

    def add(self, first, last, new):
        """Replaces the tokens from first to last by new. Line numbers do not change."""
        start, end = self.tokens[first].start(), self.tokens[last].end()
        new += "\n" * (self.text.count("\n", start, end) - new.count("\n"))
        begin, rest = self.text.rfind("\n", 0, start) + 1, self.text.find("\n", end)
        old_lines, new_lines = self.text[begin:rest], self.text[begin:start] + new + self.text[end:rest]
        self.faults.append(Fault(self.file, self.text.count("\n", 0, start) + 1, " ".join(old_lines.split()),
                                 " ".join(new_lines.split()), self.text[:start] + new + self.text[end:]))

    def declarations(self, i, end):
        """Faults in a file, a namespace or a record, from token i to end."""
        first = i
        while i < end:
            word = self.words[i]
            if word == "=" and self.file.endswith(".cc"):
                stop = self.words.index(";", i)
                self.code(i + 1, stop)
                i = stop
            elif word == "{":
                head, close = self.words[first:i], self.pairs[i]
                if ")" in head:
                    self.code(i + 1, close)
                    self.statements(i + 1, close)
                elif SCOPES & set(head) and "enum" not in head:
                    self.declarations(i + 1, close)
                first = i = close + 1
            elif word == ";":
                first = i = i + 1
            else:
                i = (self.pairs[i] if word in ("(", "[") else i) + 1

    def code(self, i, end):
        """Faults of single tokens."""
        while i < end:
            word = self.words[i]
            if word in ("static_assert", "__attribute__"):
                i = self.pairs[i + 1]
            elif word == "[" and self.is_declared(i - 1):
                i = self.pairs[i]
            elif word in OPERATORS and self.is_spaced(i):
                for new in OPERATORS[word].split():
                    self.add(i, i, new)
            elif word in WORDS:
                self.add(i, i, WORDS[word])
            elif self.tokens[i]["number"]:
                self.number(i)
            elif word in ("min", "max") and self.words[i - 2] == "std" and self.words[i + 1] == "(":
                self.add(i, i, "max" if word == "min" else "min")
            elif word == "(" and self.words[i - 1] == "if":
                self.condition(i, self.pairs[i])
            i += 1

    def is_spaced(self, i):
        start, end = self.tokens[i].span()
        return self.text[start - 1] in " \n" and self.text[end] in " \n"

    def is_declared(self, i):
        """True if i is the name being declared: its type stands before it."""
        before = self.tokens[i - 1]
        if before["name"]:
            return self.tokens[i]["name"] and before[0] not in KEYWORDS
        return self.tokens[i]["name"] and before[0] in ">*&" and not self.is_spaced(i - 1)

    def number(self, i):
        digits, suffix = re.fullmatch(r"(0[xX][\da-fA-F']+|[\d']+)(.*)", self.words[i]).groups()
        before, after = self.words[i - 1], self.words[i + 1]
        is_result = after == ";" and (before == "return" or before == "-" and self.words[i - 2] == "return")
        if "." in suffix or after == ">" or is_result and digits in "01":  # statements() handles results
            return
        base, form = 10, "{}"
        if digits[0] == "0" and len(digits) > 1:
            base, form = (16, "{:#x}") if digits[1] in "xX" else (8, "0{:o}")
        value = int(digits.replace("'", ""), base)
        for other in (value + 1, value - 1) if value > 0 else (1,):
            self.add(i, i, form.format(other) + suffix)

    def condition(self, first, last):
        """Negates a condition that has no other faults."""
        if not {"=", ";", "!", "&&", "||", "==", "!=", "<", "<=", ">", ">="} & set(self.words[first:last]):
            self.add(first, last, f"(!{self.text[self.tokens[first].start():self.tokens[last].end()]})")

    def statements(self, i, end):
        """Leaves statements out and changes results."""
        while i < end:
            stop = self.end_of_statement(i, end) if self.begins_statement(i) else None
            if stop and self.words[i] == "return":
                value = "".join(self.words[i + 1:stop])
                if value in ("0", "-1"):
                    self.add(i, stop, "return -1;" if value == "0" else "return 0;")
                if stop + 1 < end:
                    self.add(i, stop, LEFT_OUT)
            elif stop and (self.words[i] in ("break", "continue") or self.is_action(i)):
                self.add(i, stop, LEFT_OUT)
            i = (self.pairs[i + 1] if self.words[i] == "for" else i) + 1

    def begins_statement(self, i):
        before, start = self.words[i - 1], self.tokens[i].start()
        if before == ")":
            return self.words[self.pairs[i - 1] - 1] in ("if", "for", "while", "constexpr")
        is_first_of_line = not self.text[self.text.rfind("\n", 0, start) + 1:start].strip()
        return before in (";", "{", "}", "else") or before == ":" and is_first_of_line

    def end_of_statement(self, i, end):
        while i < end and self.words[i] not in (";", ")", "]", "}"):
            i = self.pairs.get(i, i) + 1
        return i if i < end and self.words[i] == ";" else None

    def is_action(self, i):
        """True for a call, an assignment or an increment; not for a declaration."""
        while self.words[i] in ("++", "--", "*"):
            i += 1
        while self.tokens[i]["name"] and self.words[i + 1] == "::":
            i += 2
        return self.tokens[i]["name"] and self.words[i] not in KEYWORDS and self.words[i + 1] in (
            "(", ".", "->", "[", "=", "+=", "-=", "|=", "&=", "++", "--", ";")


def faults_of(file, text):
    return Source(file, text).faults
