# SPDX-License-Identifier: Apache-2.0
"""A man page of section 3 for a public header: its comments as text, its declarations as they are."""
import re

COMMENT = re.compile(r"\s*(//|/\*)")
# What the reader of a page does not need to see of a header.
PLUMBING = re.compile(r'\s*(#\s*(ifn?def|if|else|endif|include|define \w+_H$|undef)\b|extern "C"'
                      r"|namespace\b|using namespace|\}  // namespace|\}$|(class|struct) \w+;$|enum class \w+ : [\w ]+;$)")


def escaped(text):
    """Text of a line, for roff."""
    for plain, roff in (("\\", "\\e"), ("-", "\\-"), ("'", "\\(aq"), ("`", "\\(ga"), ("^", "\\(ha"),
                        ("~", "\\(ti")):
        text = text.replace(plain, roff)
    return re.sub(r"^([.])", r"\\&\1", text)


def inline(text):
    """A line of prose: `code` and **emphasis** in bold."""
    parts = re.split(r"`([^`]+)`|\*\*([^*]+)\*\*", text)
    out = ""
    for at, part in enumerate(parts):
        if part:
            out += escaped(part) if at % 3 == 0 else f"\\fB{escaped(part)}\\fR"
    return re.sub(r"^([.])", r"\\&\1", out)


def literal(lines):
    return [".PP", ".nf", ".ft CW", *(escaped(line) for line in lines), ".ft R", ".fi"]


def plain_comment(lines):
    """The text of a comment of either kind, without its marks."""
    text = "\n".join(lines)
    text = re.sub(r"(?m)^\s*// ?", "", text) if lines[0].lstrip().startswith("//") else re.sub(
        r"(?m)^\s*(?:/\* ?|\*/|\* ?)", "", text.replace(" */", ""))
    return text.rstrip("\n").split("\n")


def rendered(lines):
    """Lines of a comment as roff: paragraphs, lists, headings, tables and code."""
    out, block = [], []

    def end_block():
        if block:
            margin = min(len(line) - len(line.lstrip()) for line in block if line.strip())
            out.extend(literal(["    " + line[margin:] for line in block]))
            block.clear()

    in_item = fresh = False
    for line in lines:
        item = re.match(r" *(-|\(?\d+[.)]) +", line)
        is_code = not in_item and not item and line.startswith("  ")
        if is_code or line.startswith("|") or (block and not line.strip() and fresh):
            block.append(line)
            fresh = is_code
            continue
        end_block()
        if not line.strip():
            out.append(".PP")
            in_item = False
        elif line.startswith("#"):
            out.append(f".SS {escaped(line.lstrip('# '))}")
        elif item:
            out += [f".IP {escaped(item.group(1)) if item.group(1) != '-' else '-'} 4",
                    inline(line[item.end():])]
            in_item = True
        else:
            if in_item and not line.startswith(" "):
                out.append(".PP")
                in_item = False
            out.append(inline(line.strip()))
    while block and not block[-1].strip():
        block.pop()
    end_block()
    return out


def blocks(lines):
    """Yields (comment, code) for each run of lines: either may be empty. A record is one run."""
    comment, code, depth = [], [], 0
    for line in lines:
        if depth == 0 and COMMENT.match(line) and not code or (comment and not code and not
                                                               comment_ended(comment)):
            comment.append(line)
            continue
        if depth == 0 and not line.strip():
            if comment or code:
                yield comment, code
            comment, code = [], []
            continue
        if depth == 0 and COMMENT.match(line):
            yield comment, code
            comment, code = [line], []
            continue
        code.append(line)
        depth += line.count("{") - line.count("}")
        if 'extern "C" {' in line or re.match(r"(inline )?namespace\b.*\{$", line):
            depth = 0
        depth = max(depth, 0)
    if comment or code:
        yield comment, code


def comment_ended(lines):
    return not lines[0].lstrip().startswith("/*") or "*/" in lines[-1]


def declarations(lines):
    """The declarations of a header, or of a class, with their comments."""
    out = []
    for comment, code in blocks(lines):
        code = [line for line in code if not PLUMBING.match(line) or line == "}"]
        while code and code[-1] == "}" and "{" not in "".join(code):
            code.pop()
        if code and code[0].startswith("class ") and code[0].endswith("{"):
            out += [*rendered(plain_comment(comment) if comment else []),
                    *literal([code[0].replace("KESTREL_API ", "")])]
            inside = code[1:code.index("  private:")] if "  private:" in code else code[1:-1]
            out += declarations([line[4:] if line.startswith("    ") else line
                                 for line in inside if line.strip() != "public:"])
            out += literal(["};"])
            continue
        if code:
            out += literal([re.sub("^KESTREL_API ", "", line) for line in signature(code)])
        if comment:
            out += [".PP", *rendered(plain_comment(comment))]
    return out


def signature(code):
    """A function without the body that a header may have."""
    text = "\n".join(code)
    found = re.match(r"(?s)((?:template|inline|constexpr|static)\b[^{;=]*\)[^{;=]*?) *\{", text)
    return (found.group(1) + ";").split("\n") if found else code


def without_empty_paragraphs(lines):
    out = []
    for line in lines:
        if out and out[-1] == ".PP" and line.startswith((".PP", ".SH", ".SS", ".IP")):
            out.pop()
        if line != ".PP" or not out[-1].startswith((".SH", ".SS")):
            out.append(line)
    return out


def page(text, name, header, summary, date, others):
    """The man page of a header's text."""
    lines = text.split("\n")[1:]  # after the licence
    guard = next(at for at, line in enumerate(lines) if line.startswith("#ifndef"))
    about = plain_comment(lines[:guard])
    is_companion = "companion library kestrel_hosts" in " ".join(about)
    flags = "kestrel\\-hosts" if is_companion else "kestrel"
    return "\n".join(without_empty_paragraphs([
        f'.TH "{name}" 3 "{date}" "Kestrel" "Library Functions Manual"', ".SH NAME",
        f"{escaped(name)} \\- {escaped(summary)}", ".SH SYNOPSIS", ".nf",
        f"\\fB#include <kestrel/{header}>\\fR", ".fi", ".PP",
        f"Link with $(pkg\\-config \\-\\-cflags \\-\\-libs {flags}).", ".SH DESCRIPTION",
        *rendered(about), ".SH DECLARATIONS", *declarations(lines[guard + 2:]), ".SH SEE ALSO",
        ",\n".join(f".BR {escaped(other)} (3)" for other in others) + ",",
        "and the documents of libkestrel\\-dev, in /usr/share/doc/libkestrel\\-dev.", ""]))
