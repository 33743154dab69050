"""Reads a public header as its pages need it: rooms, comments, declarations.

No C++ is parsed, but the way in which these headers are written: a ruler opens a room,
`// --- Title` a part of it, a comment stands above what it is about or behind it on the line.
"""
import re
from dataclasses import dataclass, field

RULER = re.compile(r"// -{80,}$")
TITLE = re.compile(r"// --- (.+?) -{3,}$")
ACCESS = re.compile(r"(public|private|protected):$")
TEMPLATE = re.compile(r"^template <.*?>\s+(?=\w)")
CONTAINER = re.compile(r"(typedef )?(class|struct|enum)\b[^;()]*$")

# Not for readers of a page.
ATTRIBUTES = re.compile(r"__attribute__\(\([^;]*?\)\)\s*|\[\[nodiscard\]\]\s*|"
                        r"COMM_V4_(EXPORT|INTERNAL)\s*|\s*COMM_V4_PRINTF\([^)]*\)")


@dataclass
class Declaration:
    text: str
    comment: list = field(default_factory=list)  # behind it on the line

    @property
    def is_function(self):
        return "(" in self.text and not self.text.startswith(("#define", "using", "typedef"))

    @property
    def name(self):
        """Of a function, a type, a variable or a macro; "" where there is none."""
        text = TEMPLATE.sub("", self.text)
        match = (re.match(r"#define (\w+)", text) or re.match(r"using (\w+) =", text) or
                 re.match(r"enum(?: class)? (\w+)", text) or
                 re.search(r"(~?\w+)\((?!\*)", text) or
                 re.search(r"(\w+)(\[\w*\])?( : \d+)?( = [^;]*)?;", text))
        return match[1] if match else ""


@dataclass
class Container:
    """A class, a structure or an enumeration, with what is public in it."""
    kind: str
    name: str
    member: str  # of an anonymous structure: the name of the field
    items: list


@dataclass
class Title:
    text: str


@dataclass
class Comment:
    lines: list
    holds: bool = True  # what follows at once, without an empty line


class End:
    """The end of the functions with C linkage."""


def without_conditions(lines):
    """What C++ sees, without the lines of the preprocessor that only say so."""
    kept, branches = [], []
    for line in lines:
        word = re.match(r"#\s*(ifdef|ifndef|if|else|elif|endif|include|error|undef)\b", line)
        if word is None:
            if all(branches):
                kept.append(line)
        elif word[1] in ("ifdef", "ifndef", "if"):
            branches.append(True)
        elif word[1] in ("else", "elif"):
            branches[-1] = False
        elif word[1] == "endif" and branches:
            branches.pop()
    return kept


def split_comment(line):
    """(code, comment, column of the comment or None)."""
    for match in re.finditer(r"//", line):
        if line[:match.start()].count('"') % 2 == 0:
            return line[:match.start()].rstrip(), line[match.end():], match.start()
    return line.rstrip(), None, None


def depth(code):
    code = re.sub(r"\"[^\"]*\"|'[^']*'", "", code)
    return sum(code.count(c) for c in "({") - sum(code.count(c) for c in ")}")


def clean(code):
    """A declaration on one line, without what only the compiler wants, and without a body."""
    code = ATTRIBUTES.sub("", " ".join(code.split()).replace("( ", "(")).replace(" ;", ";")
    code = re.sub(r" ?COMM_V4_DEFAULT\((.*)\);$", r" = \1;", code)
    code = re.sub(r"^(inline|extern) ", "", code)
    if "(" not in code:
        return code
    level, after = 0, False
    for at, char in enumerate(code):
        level += {"(": 1, ")": -1}.get(char, 0)
        after = after or char == ")"
        if after and level == 0 and (char == "{" or code.startswith(" : ", at)):
            return code[:at].rstrip() + ";"
    return code


class Reader:
    def __init__(self, lines):
        self.lines, self.at = lines, 0

    def items(self):
        found = []
        while self.at < len(self.lines):
            line = self.lines[self.at].strip()
            if not line:
                if found and isinstance(found[-1], Comment):
                    found[-1].holds = False
                elif found and found[-1] is not None:
                    found.append(None)
                self.at += 1
            elif title := TITLE.match(line):
                found.append(Title(title[1]))
                self.at += 1
            elif re.match(r'\}\s+// extern "C"', line):
                found.append(End())
                self.at += 1
            elif line == 'extern "C" {' or ACCESS.match(line):
                if line == "private:":
                    break
                self.at += 1
            elif line.startswith("//"):
                found.append(self.comment())
            else:
                found.append(self.statement())
        return found

    def comment(self):
        lines = []
        while self.at < len(self.lines):
            line = self.lines[self.at].strip()
            if not line.startswith("//") or TITLE.match(line):
                break
            lines.append(line[2:])
            self.at += 1
        return Comment(lines)

    def statement(self):
        code, comment = "", []
        while self.at < len(self.lines):
            part, said, column = split_comment(self.lines[self.at])
            code += " " + part.strip()
            self.at += 1
            if said is not None:
                comment.append(said)
                comment += self.rest_of_comment(column)
            text = code.strip()
            bare = TEMPLATE.sub("", ATTRIBUTES.sub("", text))
            if bare.endswith("{") and CONTAINER.match(bare[:-1]):
                return self.container(bare)
            if text.startswith("#define") or depth(text) == 0 and text[-1:] in ";}":
                break
        return Declaration(clean(text), comment)

    def rest_of_comment(self, column):
        """The lines below that go on with a comment behind code."""
        more = []
        while self.at < len(self.lines):
            line = self.lines[self.at]
            if line[:column].strip() or not line[column:].startswith("//"):
                break
            more.append(line[column + 2:])
            self.at += 1
        return more if column > 4 else []

    def container(self, opening):
        kind = re.search(r"class|struct|enum", opening)[0]
        name = re.search(kind + r"(?: class)? (\w+)", opening)
        name = name[1] if name and not name[1].startswith("COMM_V4_ENUM") else ""
        start, level = self.at, 1
        while level > 0:
            level += depth(split_comment(self.lines[self.at])[0])
            self.at += 1
        closing = re.match(r"\s*\}\s*(\w*)", self.lines[self.at - 1])[1]
        inside = self.lines[start:self.at - 1]
        items = enumerators(inside) if kind == "enum" else Reader(inside).items()
        return Container(kind, name or "", closing if closing != name else "", items)


def enumerators(lines):
    found, reader = [], Reader(lines)
    while reader.at < len(lines):
        code, said, column = split_comment(lines[reader.at])
        reader.at += 1
        if code.strip():
            comment = [said] + reader.rest_of_comment(column) if said is not None else []
            found.append(Declaration(code.strip().rstrip(","), comment))
    return found


def read(path):
    """(the comment on the first page, the items of each room)."""
    with open(path, encoding="utf-8") as file:
        lines = file.read().splitlines()
    first = next(i for i, line in enumerate(lines) if not line.startswith("//"))
    intro = [line[2:] for line in lines[:first]]
    lines = without_conditions(lines[first + 1:])  # Behind the first line of the guard.
    if not any(RULER.match(line) for line in lines):
        names = [i for i, line in enumerate(lines) if line.startswith("COMM_V4_CLASS")]
        lines[:names[-1] + 1] = ["// " + "-" * 90]
    rulers = [i for i, line in enumerate(lines) if RULER.match(line)] + [len(lines)]
    rooms = [Reader(lines[a + 1:b]).items() for a, b in zip(rulers, rulers[1:])]
    return intro, rooms
