"""Turns the Markdown of docs/ into man(7): headings, paragraphs, lists, tables, blocks of code."""
import re

import roff


def plain(line):
    return re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", line)


def cells(line):
    return [cell.strip() for cell in plain(line).strip().strip("|").split("|")]


def convert(lines):
    """The page behind its title."""
    out, paragraph = [], []

    def finish():
        if paragraph:
            out.extend(roff.prose([" " + line for line in paragraph]))
            paragraph.clear()

    at = 0
    while at < len(lines):
        line = lines[at]
        at += 1
        if match := re.match(r"(##+) (.*)", line):
            finish()
            out.append((".SH " if len(match[1]) == 2 else ".SS ") + roff.escape(match[2].upper()))
        elif line.startswith("```"):
            finish()
            end = lines.index("```", at)
            out += roff.example(lines[at:end])
            at = end + 1
        elif line.startswith("|"):
            finish()
            end = at
            while end < len(lines) and lines[end].startswith("|"):
                end += 1
            out += roff.table(cells(line), [cells(row) for row in lines[at + 1:end]])
            at = end
        elif not line.strip():
            finish()
        else:
            paragraph.append(plain(line))
    finish()
    return out
