"""Writes text as man(7) has it: paragraphs, lists, code, tables, references."""
import re


def escape(text):
    text = text.replace("\\", "\\e").replace("×", "\\(mu")
    text = re.sub(r"(?<!\w)-(?=[\w-])", r"\\-", text)
    return re.sub(r"^([.'])", r"\\&\1", text)


def code(text):
    """As it stands: nothing becomes a hyphen, a quote or an accent."""
    for plain, roff in (("\\", "\\e"), ("-", "\\-"), ("'", "\\(aq"), ("`", "\\(ga"), ("^", "\\(ha"),
                        ("~", "\\(ti"), ("×", "\\(mu")):
        text = text.replace(plain, roff)
    return re.sub(r"^([.])", r"\\&\1", text)


def bold(text):
    return f"\\fB{code(text)}\\fP"


def bold_name(text):
    """Not to be hyphenated."""
    return "\\%" + bold(text)


NAMES = re.compile(r"`([^`]+)`|\b([a-z_]\w*\([2-9]\))|\b((?:comm_|Comm)\w*\w|COMM_\w+)(\(\))?")


def text(words, pages=None, here=""):
    """A line of running text. `pages` tells the page of a name: it is referred to from others."""
    def name(match):
        if match[1]:
            return "\0" + bold_name(match[1]) + "\0"
        if match[2]:
            return f"\0\\fB{match[2][:-3]}\\fP{match[2][-3:]}\0"
        page = (pages or {}).get(match[3])
        is_quoted = match.string.startswith('"', match.start() - 1)  # the beginning of an output
        elsewhere = (page and page[0] != here and not is_quoted and
                     not match.string.startswith(("::", "("), match.end()))
        section = f"({page[1]})" if elsewhere else match[4] or ""
        return f"\0{bold_name(match[3])}{section}\0"
    parts = NAMES.sub(name, " ".join(words.split())).split("\0")
    done = "".join(part if i % 2 else escape(part) for i, part in enumerate(parts))
    return re.sub(r"^([.'])", r"\\&\1", done)


ITEM = re.compile(r"(\s*)(-|\d+\.)\s+(.*)")


def blocks(lines):
    """(kind, content) of a comment: text, an item of a list with its mark, or code."""
    current, indent = None, 0
    for line in lines + [""]:
        line = line[1:] if line.startswith(" ") else line
        item = ITEM.match(line)
        if not line.strip():
            if current and current[0] == "code":
                current[1].append("")
                continue
            if current:
                yield current
            current = None
        elif current and current[0] == "code" and line.startswith("  "):
            current[1].append(line)
        elif item:
            if current:
                yield current
            current, indent = [item[2], item[3]], len(item[1]) + len(item[2]) + 1
        elif current and current[0] not in ("text", "code") and not line.startswith(" " * indent):
            yield current
            current = ["text", line]
        elif (current is None and line.startswith("  ") or
              current and current[0] == "text" and line.startswith("    ")):
            if current:
                yield current
            current = ["code", [line]]
        elif current and current[0] == "code":
            yield current
            current = ["text", line]
        elif current is None or current[0] == "text" and re.match(r"Returns? ", line):
            if current:
                yield current
            current = ["text", line]
        else:
            current[1] += " " + line.strip()
    if current:
        yield current


def example(lines, paragraph=".PP"):
    while lines and not lines[-1].strip():
        lines = lines[:-1]
    margin = min(len(line) - len(line.lstrip()) for line in lines if line.strip())
    return [paragraph, ".in +4n", ".EX", *(code(line[margin:]) for line in lines), ".EE", ".in"]


def prose(lines, pages=None, here="", inside=False):
    """A comment as paragraphs; `inside` an item of a list of its own, whose first is begun."""
    out, listed = [], False
    for number, (kind, content) in enumerate(blocks(lines)):
        if kind == "code":
            out += example(content, ".IP" if inside else ".PP")
            continue
        words = text(content, pages, here)
        if kind == "text":
            if listed and inside:
                out.append(".RE")
            if not (inside and number == 0):
                out.append(".IP" if inside else ".PP")
            listed = False
        else:
            if inside and not listed:
                out.append(".RS")
            out.append(f'.IP {code(kind)} 4' if kind != "-" else '.IP \\(bu 2')
            listed = True
        out.append(words)
    if listed and inside:
        out.append(".RE")
    return out


def declaration(line):
    """Lines of a declaration that fit a terminal."""
    lines, room = [], 70
    while len(line) > room:
        at = line.rfind(", ", 0, room)
        at = at + 1 if at > 0 else (line.rfind("(", 0, room) + 1 or line.find("(") + 1)
        if at == 0:
            break
        lines.append(line[:at])
        line = "    " + line[at:].strip()
    first, *rest = lines + [line]
    return [bold(first)] + [r"\ \ \ \ " + bold(part.strip()) for part in rest]


def table(head, rows):
    """A table for tbl(1); long columns share what is left of the line."""
    columns = range(len(head))
    wide = [max(len(row[i]) for row in rows) > 24 for i in columns]
    out = [".TS", "nokeep;", "".join(" lx" if wide[i] else " l" for i in columns).strip() + ".",
           "\t".join(f"\\fI{cell}\\fP" if cell else "" for cell in map(escape, head))]
    for row in rows:
        cells = [text(cell) for cell in row]
        line = "\t".join(f"T{{\n{cell}\nT}}" if wide[i] and cell else cell
                         for i, cell in enumerate(cells))
        out += line.split("\n")
    return [".PP", *out, ".TE"]
