"""The mutants of a source file: each constant one up and one down, each comparison turned and moved to its neighbour.

Left alone are comments, string and character literals, preprocessor lines and format attributes, in which no constant or
comparison runs, and compile-time assertions, which are tests themselves.
"""

import re
from collections import Counter
from dataclasses import dataclass

CONSTANTS = "constant"
COMPARISONS = "comparison"
KINDS = (CONSTANTS, COMPARISONS)

#  What follows a comparison whose sides have no order worth asking about: it is only turned.
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
      | (?<![\w])'(?:\\.|[^'\\\n])*'          # a character; a digit separator stands behind a digit
      | ^[ \t]*\#(?:\\\n|[^\n])*              # a preprocessor line
      | \bstatic_assert\((?:[^()]|\([^()]*\))*\)
      | \b__attribute__\(\(format\([^)]*\)\)\)
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlL]*)(?![\w.'])")
#  The formatter puts blanks around a comparison and none inside template brackets; "template <" has one in front only.
COMPARISON = re.compile(r"(?<=\s)(<=|>=|==|!=|<|>)(?=\s)")


@dataclass(frozen=True)
class Mutant:
    """One change of one token."""

    file: str  # from the tree's root
    kind: str
    line: int  # counted from 1
    text: str  # the line without the blanks around it
    line_repeat: int  # which of the lines of this text, counted from 1
    token_repeat: int  # which of the equal tokens of the line, counted from 1
    start: int  # place of the token in the file
    old: str
    new: str

    def apply(self, source):
        """The source with the change made."""
        return source[: self.start] + self.new + source[self.start + len(self.old) :]

    @property
    def place(self):
        """File and source text, with a number where the text alone does not tell."""
        return f"{self.file} :: {self.text}" + (f" #{self.line_repeat}" if self.line_repeat > 1 else "")

    @property
    def change(self):
        """What becomes what, with a number where the line has the token more than once."""
        return f"{self.old} -> {self.new}" + (f" @{self.token_repeat}" if self.token_repeat > 1 else "")

    @property
    def key(self):
        """The mutant's name: it stays the same when lines are added elsewhere."""
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
    """The source with everything that is no code blanked out, every place kept."""
    return NO_CODE.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), source)


def _tokens(source, code):
    for match in NUMBER.finditer(code):
        yield match.start(), match.group(), CONSTANTS, _number_neighbours(match.group(1), match.group(2))
    for match in COMPARISON.finditer(code):
        operator = match.group()
        behind = source[match.end() :].lstrip()
        turned_only = operator in ("==", "!=") and UNORDERED.match(behind)
        yield match.start(), operator, COMPARISONS, NEIGHBOURS[operator][: 1 if turned_only else None]


def mutants_of(file, source):
    """All mutants of a file, in the order of their places."""
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
