"""The mutants of a source file: each number is increased and decreased by one, but not below 0; each comparison is
replaced by those that NEIGHBOURS lists for it, or is only inverted if its right side has no order (UNORDERED).

Comments, string and character literals, preprocessor lines, format attributes and compile-time assertions are not
changed.
"""

import re
from collections import Counter
from dataclasses import dataclass

CONSTANTS = "constant"
COMPARISONS = "comparison"
KINDS = (CONSTANTS, COMPARISONS)

#  Right sides of "==" and "!=" that have no meaningful order. These comparisons are only inverted.
UNORDERED = re.compile(r"(nullptr|-1|EOF|'|[A-Z]\w*::|MAP_FAILED|this|SIZE_MAX)")

NEIGHBOURS = {
    "<": ("<=", ">"),
    "<=": ("<", ">="),
    ">": (">=", "<"),
    ">=": (">", "<="),
    "==": ("!=", "<=", ">="),
    "!=": ("==", "<", ">"),
}

NO_CODE = re.compile(
    r"""//[^\n]*                              # a comment
      | /\*.*?\*/
      | (?<![\w])"(?:\\.|[^"\\\n])*"          # a text
      | (?<![\w])'(?:\\.|[^'\\\n])*'          # a character; a digit separator follows a digit
      | ^[ \t]*\#(?:\\\n|[^\n])*              # a preprocessor line
      | \bstatic_assert\((?:[^()]|\([^()]*\))*\)
      | \b__attribute__\(\(format\([^)]*\)\)\)
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlL]*)(?![\w.'])")
#  The formatter writes a blank on both sides of a comparison, but not inside template brackets. "template <" has a
#  blank before the bracket, but not after it.
COMPARISON = re.compile(r"(?<=\s)(<=|>=|==|!=|<|>)(?=\s)")


@dataclass(frozen=True)
class Mutant:
    """One change of one token."""

    file: str  # path from the tree's root
    kind: str
    line: int  # counted from 1
    text: str  # the line without the blanks around it
    line_repeat: int  # index among the lines with the same text, from 1
    token_repeat: int  # index among the equal tokens of the line, from 1
    start: int  # offset of the token in the file
    old: str
    new: str

    def apply(self, source):
        """Returns the source with the change."""
        return source[: self.start] + self.new + source[self.start + len(self.old) :]

    @property
    def place(self):
        """Returns the file and the source line, with a number from the second line with this text on."""
        return f"{self.file} :: {self.text}" + (f" #{self.line_repeat}" if self.line_repeat > 1 else "")

    @property
    def change(self):
        """Returns the old and the new token, with a number from the second such token of the line on."""
        return f"{self.old} -> {self.new}" + (f" @{self.token_repeat}" if self.token_repeat > 1 else "")

    @property
    def key(self):
        """Returns the mutant's name. It depends on other lines only if they have the same text."""
        return f"{self.place} :: {self.change}"


def _number_neighbours(digits, suffix):
    plain = digits.replace("'", "")
    if plain[:2] in ("0x", "0X"):
        value, form = int(plain, 16), "0x{:x}"
    elif len(plain) > 1 and plain[0] == "0":
        value, form = int(plain, 8), "0{:o}"
    else:
        value, form = int(plain), "{}"
    return [form.format(n) + suffix for n in (value + 1, value - 1) if n >= 0]


def _code_only(source):
    """Returns the source with everything except code replaced by blanks, so that offsets stay the same."""
    return NO_CODE.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), source)


def _tokens(source, code):
    for match in NUMBER.finditer(code):
        yield match.start(), match.group(), CONSTANTS, _number_neighbours(match.group(1), match.group(2))
    for match in COMPARISON.finditer(code):
        operator = match.group()
        right_side = source[match.end() :].lstrip()
        turned_only = operator in ("==", "!=") and UNORDERED.match(right_side)
        yield match.start(), operator, COMPARISONS, NEIGHBOURS[operator][: 1 if turned_only else None]


def mutants_of(file, source):
    """Returns all mutants of a file, in the order of their offsets."""
    lines = source.split("\n")
    seen = Counter()
    repeats = []
    for text in lines:
        seen[text.strip()] += 1
        repeats.append(seen[text.strip()])
    found = []
    tokens_seen = Counter()
    for start, old, kind, news in sorted(_tokens(source, _code_only(source))):
        line = source.count("\n", 0, start)
        tokens_seen[line, old] += 1
        for new in news:
            place = (line + 1, lines[line].strip(), repeats[line], tokens_seen[line, old], start)
            found.append(Mutant(file, kind, *place, old, new))
    return found
