#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the documents of the package libkestrel-dev, or checks them.

Usage: packaged.py FOLDER           writes README, docs, examples and samples, with the paths between
                                    them as in the source tree
       packaged.py --check FOLDER   lists links and paths that lead nowhere

In a document, what stands between "<!-- source tree -->" and "<!-- end -->" is left out, and
"<!-- package: TEXT -->" becomes TEXT. The tool is the one on the PATH.
"""
import pathlib
import re
import shutil
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENTS = ("README.md", "SECURITY.md", "CHANGELOG.md", "docs/index.md", "docs/native-format.md",
             "docs/report.md", "docs/at-scale.md")
# Made by others into the same folder.
BESIDE = ("copyright", "html/index.html")


def packaged(text):
    text = re.sub(r"(?s)<!-- source tree -->\n.*?<!-- end -->\n", "", text)
    text = re.sub(r"(?s)<!-- package: (.*?)\s*-->", r"\1", text)
    return text.replace("build/x64/bin/kestrel", "kestrel")


def write(out):
    shutil.rmtree(out, ignore_errors=True)
    shutil.copytree(ROOT / "examples", out / "examples")
    shutil.copytree(ROOT / "docs" / "json", out / "docs" / "json")
    shutil.copy(ROOT / "docs" / "report.png", out / "docs")
    texts = {name: packaged((ROOT / name).read_text()) for name in DOCUMENTS}
    for name, text in texts.items():
        (out / name).write_text(text)
    (out / "samples").mkdir()
    for name in sorted(set(re.findall(r"samples/\w+\.3gp", texts["README.md"]))):
        shutil.copy(ROOT / name, out / name)


def links(page):
    text = page.read_text()
    if page.suffix == ".html":
        return re.findall(r'(?:href|src)="([^"#:?]+)(?:[#?][^":]*)?"', text)
    return re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", text) + re.findall(r"\bsamples/\w+\.3gp", text)


def leads_somewhere(page, link, folder):
    place = (page.parent / link).resolve()
    return place.exists() or place in [folder.resolve() / name for name in BESIDE]


def dead_links(folder):
    for page in sorted([*folder.rglob("*.md"), *folder.rglob("*.html")]):
        for link in sorted(set(links(page))):
            if not leads_somewhere(page, link, folder):
                yield f"{page.relative_to(folder)}: {link}"
        for path in re.findall(r"\b(?:build|scripts|tests|fuzz|bench)/\w+", page.read_text()):
            if page.suffix == ".md":
                yield f"{page.relative_to(folder)}: {path} is not in the package"


def main():
    if sys.argv[1] != "--check":
        write(pathlib.Path(sys.argv[1]))
        return 0
    dead = list(dead_links(pathlib.Path(sys.argv[2])))
    print("\n".join(dead), file=sys.stderr, end="\n" if dead else "")
    return 1 if dead else 0


if __name__ == "__main__":
    sys.exit(main())
