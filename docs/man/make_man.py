#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes a man page (mdoc) from the tool's own help and the hand-written sections in docs/man.

Usage: make_man.py TOOL SOURCE OUT

SOURCE is NAME.mdoc: kestrel.mdoc for the tool, kestrel-COMMAND.mdoc for a command. It begins with
the section DESCRIPTION. Name, synopsis, options, exit status and references come from the help of
the tool, the date from CHANGELOG.md. @COMMANDS@ in SOURCE becomes the list of commands.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
COMMON_EXIT_STATUS = [(0, "Done."), (1, "Failed; one line on standard error gives the reason."),
                      (2, "Wrong usage.")]


class Help:
    """What `kestrel [COMMAND] --help` prints: summary, usage and the entries of each list."""

    def __init__(self, tool, command=None):
        words = [tool] + ([command] if command else []) + ["--help"]
        text = subprocess.run(words, check=True, capture_output=True, text=True).stdout
        lines = text.splitlines()
        self.summary = lines[0].rstrip(".")
        self.lists = {}
        entries = None
        for line in lines[1:]:
            if re.fullmatch(r"\w+:", line):
                entries = self.lists.setdefault(line[:-1], [])
            elif line.startswith(" " * 20) and entries:
                entries[-1][1] += " " + line.strip()
            elif line.startswith("  ") and entries is not None:
                what, *about = re.split(r" {2,}", line.strip(), maxsplit=1)
                entries.append([what, about[0] if about else ""])
            else:
                entries = None

    def names(self, title):
        return [what.split()[0] for what, _ in self.lists.get(title, [])]


class Option:
    """An option as its line in the help has it, such as "--mtu N   Longest packet (required)"."""

    def __init__(self, what, about):
        names, _, self.argument = what.partition(" ")
        self.names = names.split(",")
        self.required = about.endswith(" (required)")
        self.about = about.removesuffix(" (required)").rstrip(".") + "."

    def mdoc(self, name):
        argument = f" Ar {escape(self.argument)}" if self.argument else ""
        return f"Fl {escape(name[1:])}{argument}"


def escape(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text[:1] in (".", "'") else text


def options_of(text):
    return [Option(*entry) for entry in text.lists.get("Options", [])]


def synopsis(name, text):
    lines = [f".Nm {name}"]
    if "Commands" in text.lists:
        return lines + [".Ar COMMAND", ".Op Ar ARGUMENT ..."]
    for option in options_of(text):
        if "--help" in option.names:
            continue
        item = option.mdoc(option.names[0])
        lines.append(f".{item}" if option.required else f".Op {item}")
    return lines + [f".Ar {argument}" for argument in text.names("Arguments")]


def tagged_list(entries):
    lines = [".Bl -tag -width Ds"]
    for tag, about in entries:
        lines += [f".It {tag}", *map(escape, re.split(r"(?<=\.) (?=[A-Z])", about.strip()))]
    return lines + [".El"]


def options(text):
    entries = [(f"Ar {what.split()[0]}", about.rstrip(".") + ".")
               for what, about in text.lists.get("Arguments", [])]
    entries += [(" , ".join(option.mdoc(name) for name in option.names), option.about)
                for option in options_of(text)]
    return [".Sh OPTIONS"] + tagged_list(entries)


def commands(text):
    entries = []
    for what, about in text.lists["Commands"]:
        entries.append((f"Xr kestrel-{what} 1", about + "."))
    return "\n".join(tagged_list(entries))


def exit_status():
    return [".Sh EXIT STATUS"] + tagged_list(COMMON_EXIT_STATUS)


def see_also(tool, name):
    others = [f"kestrel-{command}" for command in Help(tool).names("Commands")]
    others = [other for other in ["kestrel"] + others if other != name]
    lines = [f".Xr {other} 1 ," for other in sorted(others)]
    return [".Sh SEE ALSO"] + lines[:-1] + [lines[-1].removesuffix(" ,")]


def date():
    found = re.search(r"^## \S+, (\d+)-(\d+)-(\d+)$", (ROOT / "CHANGELOG.md").read_text(), re.M)
    year, month, day = map(int, found.groups())
    months = ("January February March April May June July August September October November "
              "December").split()
    return f"{months[month - 1]} {day}, {year}"


def page(tool, name, source):
    command = name.partition("-")[2]
    text = Help(tool, command or None)
    # The hand-written text: the description first, then what follows the options.
    if "@COMMANDS@" in source:
        source = source.replace("@COMMANDS@", commands(text))
    sections = re.split(r"(?m)^(?=\.Sh )", source)
    description, rest = sections[1], sections[2:]
    summary = text.summary[0].lower() + text.summary[1:]
    lines = [f".Dd {date()}", f".Dt {name.upper()} 1", ".Os", ".Sh NAME", f".Nm {name}",
             f".Nd {escape(summary)}", ".Sh SYNOPSIS", *synopsis(name.replace("-", " ", 1), text),
             description.rstrip("\n"), *options(text)]
    own = {section.split("\n", 1)[0]: section.rstrip("\n") for section in rest}
    lines += own.pop(".Sh ENVIRONMENT", "").splitlines()
    lines += own.pop(".Sh EXIT STATUS", "\n".join(exit_status())).split("\n")
    lines += [line for section in own.values() for line in section.split("\n")]
    return "\n".join(lines + see_also(tool, name)) + "\n"


def main():
    tool, source, out = sys.argv[1:]
    source = pathlib.Path(source)
    pathlib.Path(out).parent.mkdir(parents=True, exist_ok=True)
    pathlib.Path(out).write_text(page(tool, source.stem, source.read_text()))


if __name__ == "__main__":
    main()
