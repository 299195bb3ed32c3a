#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the API reference (HTML) and the man pages of section 3, from the public headers.

Usage: make_function_pages.py FOLDER

FOLDER gets html/ and man3/: a page for each header, such as kestrel_hosts.h.3, one for the class
C3gpInterface, and a link to the page of its header for each function.
"""
import gzip
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

from make_man import ROOT, date

HEADERS = ROOT / "include" / "kestrel"
CLASS = "C3gpInterface"


def run_doxygen(folder):
    settings = (ROOT / "docs" / "Doxyfile").read_text() + f"""
OUTPUT_DIRECTORY = {folder}
GENERATE_XML     = NO
GENERATE_MAN     = YES
STRIP_FROM_PATH  = {ROOT / 'include'} {ROOT}
"""
    subprocess.run(["doxygen", "-"], input=settings, text=True, cwd=ROOT, check=True,
                   stdout=subprocess.DEVNULL)


def functions(header):
    """Names of the functions that a header exports."""
    text = re.sub(r"(?s)/\*.*?\*/|//[^\n]*", "", header.read_text())
    names = re.findall(r"KESTREL_API (?!__attribute__)[^;{]*?\b(\w+)\(", text)
    return sorted(set(names))


def summary(header):
    """The first sentence of a header's first comment, in one line."""
    lines = []
    for line in header.read_text().splitlines()[1:]:  # after the licence
        lines.append(re.sub(r"^[ /*]+", "", line))
        if re.search(r"[.:]( |$)", lines[-1]):
            break
    return re.split(r"[.:](?: |$)", " ".join(filter(None, lines)))[0]


def page(text, name, header):
    """A page of Doxygen under the name that it gets, with a summary and the date of the release."""
    text = re.sub(r"(?<=^\.SH NAME\n).*$", lambda _: f"{name} \\- {summary(header)}", text, count=1,
                  flags=re.M)
    text = re.sub(r"^\.TH .*$", f'.TH "{name}" 3 "{date()}" "Kestrel" "Library Functions Manual"',
                  text, count=1, flags=re.M)
    return text.replace("\\fC", "\\f(CW")


def write(folder, name, text):
    with open(folder / f"{name}.3.gz", "wb") as file:
        with gzip.GzipFile(filename="", mode="wb", fileobj=file, mtime=0) as packed:
            packed.write(text.encode())


def main():
    out = pathlib.Path(sys.argv[1])
    shutil.rmtree(out, ignore_errors=True)
    man = out / "man3"
    man.mkdir(parents=True)
    with tempfile.TemporaryDirectory() as scratch:
        run_doxygen(scratch)
        made = pathlib.Path(scratch)
        shutil.move(made / "html", out / "html")
        for header in sorted(HEADERS.glob("*.h")):
            source = made / "man" / "man3" / f"{header.name}.3"
            name = f"kestrel_{header.name}"
            if not source.exists():
                continue
            write(man, name, page(source.read_text(), name, header))
            for function in functions(header):
                write(man, function, f".so man3/{name}.3\n")
        write(man, CLASS, page((made / "man" / "man3" / f"{CLASS}.3").read_text(), CLASS,
                               HEADERS / "c3gpinterface.h"))


if __name__ == "__main__":
    main()
