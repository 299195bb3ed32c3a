#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Shows Doxygen the plain comments of the public headers as documentation.

A comment before a declaration, or after it on its line, belongs to it; functions that follow
one another without a blank line share the comment of the first. The comment that a header begins
with is that of the file. A comment before a blank line belongs to none.
"""
import pathlib
import re
import sys


def comment_blocks(lines):
    """Yields (is_comment, lines) for each run of comment lines and each line of code."""
    at = 0
    while at < len(lines):
        line = lines[at].lstrip()
        end = at + 1
        if line.startswith("//"):
            while end < len(lines) and lines[end].lstrip().startswith("//"):
                end += 1
            yield True, lines[at:end]
        elif line.startswith("/*"):
            while "*/" not in lines[end - 1]:
                end += 1
            yield True, lines[at:end]
        else:
            yield False, lines[at:end]
        at = end


def documented(block, extra=""):
    text = "\n".join(block)
    if block[0].lstrip().startswith("/*"):
        return re.sub(r"/\*", f"/**{extra}", text, count=1)
    text = re.sub(r"(?m)^(\s*)//(?!/)", r"\1///", text)
    return f"///{extra}\n{text}" if extra else text


def with_trailing_comment(line):
    line = re.sub(r"(\S\s+)/\* ", r"\1/**< ", line)
    return re.sub(r"(\S\s+)// ", r"\1///< ", line)


def has_trailing_comment(line):
    return re.search(r"[;,{]\s+(//|/\*)", line) is not None


def convert(text):
    lines = text.split("\n")
    licence = 1 if "SPDX-License-Identifier" in lines[0] else 0
    blocks = list(comment_blocks(lines[licence:]))
    out = [""] * licence
    shared = None
    for at, (is_comment, block) in enumerate(blocks):
        following = blocks[at + 1][1][0] if at + 1 < len(blocks) else ""
        if is_comment and at == 0:
            out.append(documented(block, " @file\n"))
        elif is_comment:
            nobodys = not following.strip() or has_trailing_comment(following)
            out.append("\n".join(block) if nobodys else documented(block))
            shared = None if nobodys else documented(block)
        else:
            line = block[0]
            previous_is_code = at > 0 and not blocks[at - 1][0] and blocks[at - 1][1][0].strip()
            if line.startswith("KESTREL_API") and previous_is_code and shared:
                out.append(shared)
            if not line.strip():
                shared = None
            out.append(with_trailing_comment(line))
    return "\n".join(out)


if __name__ == "__main__":
    print(convert(pathlib.Path(sys.argv[1]).read_text()), end="")
