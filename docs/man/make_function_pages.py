#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the API reference (HTML) and the man pages of section 3, from the public headers.

Usage: make_function_pages.py FOLDER DOCUMENTS

DOCUMENTS are those of the package (docs/packaged.py), which go into the HTML too. FOLDER gets html/,
whose links to other files of the package lead beside it, and man3/: a page for each header, such as kestrel_hosts.h.3, and a link to it for
each of its functions and for the class C3gpInterface.
"""
import gzip
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

import header_page
from make_man import ROOT, date

HEADERS = ROOT / "include" / "kestrel"


def run_doxygen(folder, documents):
    settings = (ROOT / "docs" / "Doxyfile").read_text() + f"""
OUTPUT_DIRECTORY = {folder}
GENERATE_XML     = NO
INPUT            = {ROOT / 'include' / 'kestrel'} {documents / 'README.md'} {documents / 'SECURITY.md'} \\
                   {documents / 'CHANGELOG.md'} {documents / 'docs'} {documents / 'examples'}
USE_MDFILE_AS_MAINPAGE = {documents / 'docs' / 'index.md'}
STRIP_FROM_PATH  = {ROOT / 'include'} {ROOT} {documents}
"""
    subprocess.run(["doxygen", "-"], input=settings, text=True, cwd=ROOT, check=True,
                   stdout=subprocess.DEVNULL)


def name_folders(html):
    """Names the pages of folders by their titles: doxygen names them by the build folder's path, and the
    pages must be the same for every architecture."""
    names = {}
    for page in html.glob("dir_*.html"):
        title = re.search(r"<title>Kestrel: (.*) Directory Reference</title>", page.read_text())[1]
        names[page.name] = f"dir_{re.sub(r'[^a-z]+', '_', title)}.html"
    assert len(set(names.values())) == len(names), names
    for old, new in names.items():
        (html / old).rename(html / new)
    for file in [*html.rglob("*.html"), *html.rglob("*.js")]:
        text = file.read_text()
        renamed = re.sub(r"dir_[0-9a-f]{32}\.html", lambda old: names.get(old[0], old[0]), text)
        if renamed != text:
            file.write_text(renamed)


def lead_beside(html, documents):
    """Links of a document to files that are no part of the HTML."""
    def found(match):
        link = match[2].removeprefix("html/")
        if (html / link).exists():
            return match[1] + link
        folder = "docs/" if (documents / "docs" / link).exists() else ""
        return f"{match[1]}../{folder}{link}"

    for page in html.glob("*.html"):
        page.write_text(re.sub(r'((?:href|src)=")([^"#:?]+)(?=["#?])', found, page.read_text()))


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


def write(folder, name, text):
    with open(folder / f"{name}.3.gz", "wb") as file:
        with gzip.GzipFile(filename="", mode="wb", fileobj=file, mtime=0) as packed:
            packed.write(text.encode())


def main():
    out = pathlib.Path(sys.argv[1])
    shutil.rmtree(out, ignore_errors=True)
    man = out / "man3"
    man.mkdir(parents=True)
    headers = sorted(HEADERS.glob("*.h"))
    for header in headers:
        name = f"kestrel_{header.name}"
        text = header.read_text()
        others = [f"kestrel_{other.name}" for other in headers if other != header]
        write(man, name, header_page.page(text, name, header.name, summary(header), date(), others))
        for linked in functions(header) + re.findall(r"(?m)^class KESTREL_API (\w+)", text):
            write(man, linked, f".so man3/{name}.3\n")
    with tempfile.TemporaryDirectory() as scratch:
        documents = pathlib.Path(sys.argv[2]).resolve()
        run_doxygen(scratch, documents)
        shutil.move(f"{scratch}/html", out / "html")
        name_folders(out / "html")
        lead_beside(out / "html", documents)


if __name__ == "__main__":
    main()
